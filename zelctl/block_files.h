// Files that are read and written piece by piece. Pure.
//
// Errors: Win32 codes, 0 for success.
// Threads: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "files/types.h"

namespace zel::ctl {

// Which file it is, however it is called.
struct FileIdentity {
  std::optional<VolumeGuid> volume;  // none on what is no volume with a GUID: a share, a snapshot
  FileId file_id = 0;

  bool operator==(const FileIdentity&) const = default;
};

class SourceFile {
 public:
  virtual ~SourceFile() = default;

  [[nodiscard]] virtual std::uint32_t Identify(FileIdentity& identity) = 0;
  [[nodiscard]] virtual std::uint32_t GetSize(std::uint64_t& size) = 0;

  // Whether the file takes less room than its size; false where nobody knows.
  [[nodiscard]] virtual bool HasHoles() = 0;

  // Fills the whole buffer. ERROR_HANDLE_EOF when the file ends before it is full.
  [[nodiscard]] virtual std::uint32_t Read(std::uint64_t offset, std::span<std::byte> buffer) = 0;
};

class TargetFile : public SourceFile {
 public:
  // What the file grows by reads as zeros.
  [[nodiscard]] virtual std::uint32_t SetSize(std::uint64_t size) = 0;
  [[nodiscard]] virtual std::uint32_t Write(std::uint64_t offset,
                                            std::span<const std::byte> bytes) = 0;

  // From now on what is not written takes no room and reads as zeros. Whether it can be so.
  [[nodiscard]] virtual bool KeepHoles() = 0;

  // What was written is on the device afterwards.
  [[nodiscard]] virtual std::uint32_t Flush() = 0;

  // When the file system says that the file was last written. Stamp makes it `now` first, after
  // which no write through this object may follow; what file systems keep may be coarser.
  [[nodiscard]] virtual std::uint32_t GetWriteTime(FileTime& written) = 0;
  [[nodiscard]] virtual std::uint32_t Stamp(FileTime now, FileTime& written) = 0;
};

inline constexpr std::uint32_t kEndOfFile = 38;  // ERROR_HANDLE_EOF

}  // namespace zel::ctl
