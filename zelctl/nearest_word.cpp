#include "zelctl/nearest_word.h"

#include <algorithm>
#include <numeric>

namespace zel::ctl {

namespace {

constexpr std::size_t kShortestBeginning = 2;

// How many letters have to be added, left out or exchanged, row by row of the usual table.
std::size_t Distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t exchanged = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({row[j] + 1, diagonal + 1, exchanged});
    }
  }
  return row.back();
}

}  // namespace

std::string NearestWord(std::string_view word, const std::vector<std::string>& known) {
  const auto begins = [&](const std::string& candidate) { return candidate.starts_with(word); };
  if (word.size() >= kShortestBeginning) {
    const auto found = std::ranges::find_if(known, begins);
    if (found != known.end()) return *found;
  }
  std::string nearest;
  std::size_t fewest = word.size() / 3 + 1;  // more than that is another word
  for (const std::string& candidate : known) {
    const std::size_t distance = Distance(word, candidate);
    if (distance > fewest || (distance == fewest && !nearest.empty())) continue;
    fewest = distance;
    nearest = candidate;
  }
  return nearest;
}

}  // namespace zel::ctl
