#include "zelctl/machine.h"

namespace zel::ctl {

std::uint32_t ReadWholeFile(Machine& machine, const std::string& path,
                            std::vector<std::byte>& contents) {
  std::unique_ptr<SourceFile> file;
  std::uint32_t code = machine.OpenSource(path, file);
  std::uint64_t size = 0;
  if (code == 0) code = file->GetSize(size);
  if (code != 0) return code;
  constexpr std::uint64_t kLongest = std::uint64_t{1} << 32;  // a bitmap file is shorter
  constexpr std::uint32_t kFileTooLarge = 223;                // ERROR_FILE_TOO_LARGE
  if (size > kLongest) return kFileTooLarge;
  contents.resize(size);
  return file->Read(0, contents);
}

std::uint32_t WriteWholeFile(Machine& machine, const std::string& path,
                             std::span<const std::byte> contents) {
  std::unique_ptr<ReplacementFile> file;
  std::uint32_t code = machine.CreateReplacement(path, file);
  if (code == 0) code = file->Write(0, contents);
  if (code == 0) code = file->Flush();
  return code != 0 ? code : file->Commit();
}

}  // namespace zel::ctl
