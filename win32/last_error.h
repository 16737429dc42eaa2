// Keeps the calling thread's last error over a scope.
#pragma once

#include <windows.h>

namespace zel {

class [[nodiscard]] LastErrorKeeper {
 public:
  LastErrorKeeper() noexcept : error_(::GetLastError()) {}
  ~LastErrorKeeper() { ::SetLastError(error_); }
  LastErrorKeeper(const LastErrorKeeper&) = delete;
  LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

 private:
  DWORD error_;
};

}  // namespace zel
