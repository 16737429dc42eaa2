#include "zelctl/machine.h"

#include <algorithm>

namespace zel::ctl {

namespace {

std::uint32_t OpenWithSize(Machine& machine, const std::string& path,
                           std::unique_ptr<SourceFile>& file, std::uint64_t& size) {
  const std::uint32_t code = machine.OpenSource(path, file);
  return code == 0 ? file->GetSize(size) : code;
}

}  // namespace

std::uint32_t ReadWholeFile(Machine& machine, const std::string& path,
                            std::vector<std::byte>& contents) {
  constexpr std::uint64_t kLongest = std::uint64_t{1} << 32;  // a bitmap file is shorter
  constexpr std::uint32_t kFileTooLarge = 223;                // ERROR_FILE_TOO_LARGE
  std::unique_ptr<SourceFile> file;
  std::uint64_t size = 0;
  if (const std::uint32_t code = OpenWithSize(machine, path, file, size); code != 0) return code;
  if (size > kLongest) return kFileTooLarge;
  contents.resize(size);
  return file->Read(0, contents);
}

std::uint32_t ReadBeginning(Machine& machine, const std::string& path, std::size_t most,
                            std::vector<std::byte>& contents) {
  std::unique_ptr<SourceFile> file;
  std::uint64_t size = 0;
  if (const std::uint32_t code = OpenWithSize(machine, path, file, size); code != 0) return code;
  contents.resize(std::min<std::uint64_t>(size, most));
  return file->Read(0, contents);
}

std::uint32_t WriteWholeFile(Machine& machine, const std::string& path, const std::string& beside,
                             std::span<const std::byte> contents) {
  std::unique_ptr<ReplacementFile> file;
  std::uint32_t code = machine.CreateReplacement(path, beside, file);
  if (code == 0) code = file->Write(0, contents);
  if (code == 0) code = file->Flush();
  return code != 0 ? code : file->Commit();
}

}  // namespace zel::ctl
