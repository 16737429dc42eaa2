// A Win32 error code and its one-line text, such as "Access is denied [ERROR_ACCESS_DENIED]".
//
// Threads: one object belongs to one thread (the text is cached in it).
#pragma once

#include <cstdint>
#include <string>

namespace zel {

class ErrorInfo {
 public:
  // Takes the calling thread's last error. An NTSTATUS of warning or error severity becomes its
  // Win32 code, where it has one, and the thread's last error is set to that code.
  ErrorInfo() noexcept;

  // The same conversion for a given value; the last error stays as it is.
  explicit ErrorInfo(std::uint32_t code) noexcept;

  [[nodiscard]] std::uint32_t code() const noexcept { return code_; }

  // For the "%hs" of "failed: %hs\n". Computed once; valid while the object lives. Leaves the last
  // error as it is.
  [[nodiscard]] const char* text() const;

 private:
  std::uint32_t code_;
  mutable std::string text_;  // empty until asked for
};

}  // namespace zel
