// The symbolic name of a Win32 error code.
#pragma once

#include <array>
#include <cstdint>

namespace zel {

// "ERROR_ACCESS_DENIED" for 5, "WSAEBADF" for 10009: the names of the winerror.h that this program
// was built with, ERROR_* and the WSA* codes 10004 to 10112. A code without a name reads as its
// decimal digits. Cost: a binary search in a constant table; nothing is allocated.
class ErrorName {
 public:
  explicit ErrorName(std::uint32_t code) noexcept;

  // Lifetime: this object's.
  [[nodiscard]] const char* text() const noexcept {
    return name_ != nullptr ? name_ : digits_.data();
  }

 private:
  const char* name_;                  // in the table; null for a code without a name
  std::array<char, 11> digits_ = {};  // of the code, with a terminator
};

}  // namespace zel
