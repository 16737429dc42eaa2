// The machine that the commands run on: files, clock, error names. Pure.
//
// Paths are UTF-8.
// Errors: Win32 codes, 0 for success.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "files/types.h"
#include "zelctl/block_files.h"

namespace zel::ctl {

struct ErrorWords {
  std::string name;  // as winerror.h has it; the code's digits where it has none
  std::string text;  // the system's, without a full stop
};

// What a path names.
struct FileIdentity {
  std::optional<VolumeGuid> volume;  // none on what is no volume with a GUID: a share, a snapshot
  FileId file_id = 0;
};

// A file that takes the place of another when it is done, or vanishes.
class ReplacementFile : public TargetFile {
 public:
  // Puts it in the place that it was made for. Called once, after Flush; on failure the old file is
  // as it was.
  [[nodiscard]] virtual std::uint32_t Commit() = 0;
};

class Machine {
 public:
  virtual ~Machine() = default;

  // Others may read and write the file meanwhile.
  [[nodiscard]] virtual std::uint32_t OpenSource(const std::string& path,
                                                 std::unique_ptr<SourceFile>& file) = 0;
  // An existing file, which others may only read meanwhile.
  [[nodiscard]] virtual std::uint32_t OpenTarget(const std::string& path,
                                                 std::unique_ptr<TargetFile>& file) = 0;
  // Lies beside `path` under another name until it is committed; goes with its object otherwise.
  [[nodiscard]] virtual std::uint32_t CreateReplacement(const std::string& path,
                                                        std::unique_ptr<ReplacementFile>& file) = 0;
  [[nodiscard]] virtual std::uint32_t Remove(const std::string& path) = 0;
  [[nodiscard]] virtual std::uint32_t Identify(const std::string& path, FileIdentity& identity) = 0;

  // With the drive and directories that a relative path leaves out; as it is where that fails.
  [[nodiscard]] virtual std::string AbsolutePath(const std::string& path) = 0;

  [[nodiscard]] virtual FileTime Now() = 0;
  [[nodiscard]] virtual std::uint64_t Milliseconds() = 0;  // since some moment; never goes back
  [[nodiscard]] virtual ErrorWords Describe(std::uint32_t code) = 0;
};

// A file's whole contents.
[[nodiscard]] std::uint32_t ReadWholeFile(Machine& machine, const std::string& path,
                                          std::vector<std::byte>& contents);

// The file is there with these contents, on the device, or not touched.
[[nodiscard]] std::uint32_t WriteWholeFile(Machine& machine, const std::string& path,
                                           std::span<const std::byte> contents);

}  // namespace zel::ctl
