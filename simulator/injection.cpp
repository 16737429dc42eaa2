#include "simulator/injection.h"

#include "win32/handles.h"

namespace zel::sim {

bool InjectLibrary(HANDLE process, const std::wstring& library) {
  const SIZE_T bytes = (library.size() + 1) * sizeof(wchar_t);
  void* const path = ::VirtualAllocEx(process, nullptr, bytes, MEM_COMMIT, PAGE_READWRITE);
  if (path == nullptr || !::WriteProcessMemory(process, path, library.c_str(), bytes, nullptr)) {
    return false;
  }
  // The system's own libraries lie at one address in every process of a session.
  const auto load = reinterpret_cast<LPTHREAD_START_ROUTINE>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32"), "LoadLibraryW")));
  const UniqueThread thread(::CreateRemoteThread(process, nullptr, 0, load, path, 0, nullptr));
  DWORD loaded = 0;
  const bool ended = thread && ::WaitForSingleObject(thread.get(), INFINITE) == WAIT_OBJECT_0 &&
                     ::GetExitCodeThread(thread.get(), &loaded);
  ::VirtualFreeEx(process, path, 0, MEM_RELEASE);
  // The low half of the module's address, which is a multiple of 64 KiB.
  return ended && loaded != 0;
}

}  // namespace zel::sim
