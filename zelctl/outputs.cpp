#include "zelctl/outputs.h"

#include "zelctl/error_words.h"

namespace zel::ctl {

MaybeFailure CheckMayWrite(Machine& machine, const Request& request, const std::string& path,
                           BeginsLike same_kind) {
  constexpr std::size_t kBeginning = 16;
  if (request.replace) return std::nullopt;
  std::vector<std::byte> beginning;
  const std::uint32_t code = ReadBeginning(machine, path, kBeginning, beginning);
  if (code == kFileNotFound) return std::nullopt;
  if (auto failure = CheckSystem(machine, code, "cannot look at " + path)) return failure;
  if (same_kind(beginning)) return std::nullopt;
  return Refuse(Reason::kExists,
                path + " is a file of another kind; say --replace if it is to be overwritten");
}

MaybeFailure WriteOutput(Machine& machine, const Request& request, const std::string& path,
                         std::span<const std::byte> contents, BeginsLike same_kind) {
  if (auto failure = CheckMayWrite(machine, request, path, same_kind)) return failure;
  return CheckSystem(machine, WriteWholeFile(machine, path, {}, contents), "cannot write " + path);
}

}  // namespace zel::ctl
