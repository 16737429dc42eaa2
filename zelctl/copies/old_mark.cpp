#include "zelctl/copies/old_mark.h"

#include <span>
#include <string_view>

#include "zelctl/error_words.h"

namespace zel::ctl {

namespace {

constexpr std::string_view kOpening = "zelctl apply 1 ";

MaybeFailure LookAt(Machine& machine, const std::string& path, bool& is_mark) {
  std::vector<std::byte> beginning;
  const std::uint32_t code = ReadBeginning(machine, path, kOpening.size(), beginning);
  if (code == kFileNotFound || code == kPathNotFound) return std::nullopt;
  is_mark = std::string_view(reinterpret_cast<const char*>(beginning.data()), beginning.size()) ==
            kOpening;
  return CheckSystem(machine, code, "cannot read " + path);
}

}  // namespace

// It lay beside the copy as that was told then.
MaybeFailure FindOldMark(Machine& machine, const CopyPlace& place, std::string& mark) {
  mark.clear();
  for (const std::string& copy : {place.told(), place.path()}) {
    const std::string path = copy + ".zelctl-apply";
    bool is_mark = false;
    if (auto failure = LookAt(machine, path, is_mark)) return failure;
    if (is_mark) mark = path;
  }
  return std::nullopt;
}

MaybeFailure RemoveOldMark(Machine& machine, const CopyPlace& place) {
  std::string mark;
  if (auto failure = FindOldMark(machine, place, mark)) return failure;
  if (mark.empty()) return std::nullopt;
  return CheckSystem(machine, machine.Remove(mark), "cannot remove " + mark);
}

}  // namespace zel::ctl
