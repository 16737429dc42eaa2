// The machine that the commands run on: files, clock, error names. Pure.
//
// Paths are UTF-8.
// Errors: Win32 codes, 0 for success.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
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

// A file that takes the place of another when it is done, or vanishes.
class ReplacementFile : public TargetFile {
 public:
  // Puts it in the place that it was made for. Called once, after Flush; on failure the old file is
  // as it was.
  [[nodiscard]] virtual std::uint32_t Commit() = 0;
};

// Keeps others away for as long as it lives; the process's death ends it too.
class HeldLock {
 public:
  virtual ~HeldLock() = default;
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
  // Lies at `beside` until it is committed to `path`, on the same volume; goes with its object
  // otherwise. `beside` is a name of this program's own: what lies there is overwritten, and
  // ERROR_SHARING_VIOLATION says that another process is writing it. Empty: a name beside `path`
  // that nobody has.
  [[nodiscard]] virtual std::uint32_t CreateReplacement(const std::string& path,
                                                        const std::string& beside,
                                                        std::unique_ptr<ReplacementFile>& file) = 0;
  [[nodiscard]] virtual std::uint32_t Remove(const std::string& path) = 0;
  [[nodiscard]] virtual std::uint32_t Identify(const std::string& path, FileIdentity& identity) = 0;

  // ERROR_SHARING_VIOLATION when somebody else has it. The folder must be there.
  [[nodiscard]] virtual std::uint32_t Lock(const std::string& path,
                                           std::unique_ptr<HeldLock>& lock) = 0;
  // No failure when it is there already.
  [[nodiscard]] virtual std::uint32_t MakeFolder(const std::string& path) = 0;
  // What this user may still write on the volume of that folder.
  [[nodiscard]] virtual std::uint32_t GetFreeBytes(const std::string& folder,
                                                   std::uint64_t& bytes) = 0;
  // The path by which the system itself knows what `path` leads to, through links and other
  // spellings as far as it tells; of what is not there yet, its folder's.
  [[nodiscard]] virtual std::string Resolve(const std::string& path) = 0;

  // With the drive and directories that a relative path leaves out; as it is where that fails.
  [[nodiscard]] virtual std::string AbsolutePath(const std::string& path) = 0;

  [[nodiscard]] virtual FileTime Now() = 0;
  // A moment that is over: the clock, which moves in steps, shows a later one when this returns.
  [[nodiscard]] virtual FileTime PastMoment() = 0;
  [[nodiscard]] virtual std::uint64_t Milliseconds() = 0;  // since some moment; never goes back
  [[nodiscard]] virtual ErrorWords Describe(std::uint32_t code) = 0;
};

// A file's whole contents.
[[nodiscard]] std::uint32_t ReadWholeFile(Machine& machine, const std::string& path,
                                          std::vector<std::byte>& contents);

// A file's first bytes, as many as it has, at most `most`.
[[nodiscard]] std::uint32_t ReadBeginning(Machine& machine, const std::string& path,
                                          std::size_t most, std::vector<std::byte>& contents);

// The file is there with these contents, on the device, or not touched. `beside` as
// CreateReplacement takes it.
[[nodiscard]] std::uint32_t WriteWholeFile(Machine& machine, const std::string& path,
                                           const std::string& beside,
                                           std::span<const std::byte> contents);

}  // namespace zel::ctl
