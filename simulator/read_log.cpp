#include "simulator/read_log.h"

#include <algorithm>
#include <iterator>

namespace zel::sim {

void ReadLog::Add(const FileKey& file, std::uint64_t offset, std::uint64_t length) {
  Reads& reads = files_[file];
  reads.bytes += length;
  std::uint64_t begin = offset;
  std::uint64_t end = offset + std::min(length, UINT64_MAX - offset);
  // From the first range that ends there or behind, each one that touches becomes part of this.
  auto next = reads.ends.upper_bound(begin);
  if (next != reads.ends.begin() && std::prev(next)->second >= begin) --next;
  while (next != reads.ends.end() && next->first <= end) {
    begin = std::min(begin, next->first);
    end = std::max(end, next->second);
    next = reads.ends.erase(next);
  }
  if (begin < end) reads.ends.emplace(begin, end);
}

std::string ReadLog::Take(const FileKey& file) {
  const auto found = files_.extract(file);
  if (found.empty()) return "0";
  std::string text = std::to_string(found.mapped().bytes);
  for (const auto& [begin, end] : found.mapped().ends) {
    text += " " + std::to_string(begin) + "+" + std::to_string(end - begin);
  }
  return text;
}

}  // namespace zel::sim
