// Files that are read and written piece by piece. Pure.
//
// Errors: Win32 codes, 0 for success.
// Threads: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zel::ctl {

class SourceFile {
 public:
  virtual ~SourceFile() = default;

  [[nodiscard]] virtual std::uint32_t GetSize(std::uint64_t& size) = 0;

  // Fills the whole buffer. ERROR_HANDLE_EOF when the file ends before it is full.
  [[nodiscard]] virtual std::uint32_t Read(std::uint64_t offset, std::span<std::byte> buffer) = 0;
};

class TargetFile : public SourceFile {
 public:
  // What the file grows by reads as zeros.
  [[nodiscard]] virtual std::uint32_t SetSize(std::uint64_t size) = 0;
  [[nodiscard]] virtual std::uint32_t Write(std::uint64_t offset,
                                            std::span<const std::byte> bytes) = 0;

  // What was written is on the device afterwards.
  [[nodiscard]] virtual std::uint32_t Flush() = 0;
};

inline constexpr std::uint32_t kEndOfFile = 38;  // ERROR_HANDLE_EOF

}  // namespace zel::ctl
