// Puts a test's function in place of an imported one for the life of the object.
//
//   extern "C" void* __imp_EnterCriticalSection;
//   ImportHook hook(__imp_EnterCriticalSection, &CountingEnter);
//
// Only calls through this program's import table are seen: not those of DLLs.
#pragma once

#include <windows.h>

namespace zel::test {

class ImportHook {
 public:
  template <class Function>
  ImportHook(void*& import, Function* replacement) : import_(import), original_(import) {
    Set(reinterpret_cast<void*>(replacement));
  }
  ~ImportHook() { Set(original_); }
  ImportHook(const ImportHook&) = delete;
  ImportHook& operator=(const ImportHook&) = delete;

  // The imported function itself.
  [[nodiscard]] void* original() const { return original_; }

 private:
  void Set(void* function) {
    DWORD protection = 0;
    ::VirtualProtect(&import_, sizeof import_, PAGE_READWRITE, &protection);
    import_ = function;
    ::VirtualProtect(&import_, sizeof import_, protection, &protection);
  }

  void*& import_;
  void* original_;
};

}  // namespace zel::test
