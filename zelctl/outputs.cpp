#include "zelctl/outputs.h"

#include "zelctl/error_words.h"

namespace zel::ctl {

namespace {

constexpr std::size_t kBeginning = 16;

MaybeFailure CheckMayOverwrite(Machine& machine, const std::string& path, BeginsLike same_kind) {
  std::vector<std::byte> beginning;
  const std::uint32_t code = ReadBeginning(machine, path, kBeginning, beginning);
  if (code == kFileNotFound) return std::nullopt;
  if (auto failure = CheckSystem(machine, code, "cannot look at " + path)) return failure;
  if (same_kind(beginning)) return std::nullopt;
  return Refuse(Reason::kExists,
                path + " is a file of another kind; say --replace if it is to be overwritten");
}

}  // namespace

MaybeFailure WriteOutput(Machine& machine, const Request& request, const std::string& path,
                         std::span<const std::byte> contents, BeginsLike same_kind) {
  if (!request.replace) {
    if (auto failure = CheckMayOverwrite(machine, path, same_kind)) return failure;
  }
  return CheckSystem(machine, WriteWholeFile(machine, path, {}, contents), "cannot write " + path);
}

}  // namespace zel::ctl
