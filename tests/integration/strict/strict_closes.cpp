// Ends a test when it closes what is not open: by then another may have got the same number, and it
// is that one's handle which would be gone. The results of these calls are looked at by nobody
// else.
#include <windows.h>

#include <cstdio>
#include <cstdlib>

#include "tests/integration/support/import_hook.h"

extern "C" {
extern void* __imp_CloseHandle;
extern void* __imp_FindClose;
extern void* __imp_FindCloseChangeNotification;
extern void* __imp_UnmapViewOfFile;
}

namespace {

[[noreturn]] void Fail(const char* function, const void* argument) {
  std::fprintf(stderr, "%s(%p) failed: %lu\n", function, argument, ::GetLastError());
  std::fflush(stderr);
  std::abort();
}

BOOL WINAPI StrictCloseHandle(HANDLE handle);
BOOL WINAPI StrictFindClose(HANDLE search);
BOOL WINAPI StrictFindCloseChangeNotification(HANDLE notification);
BOOL WINAPI StrictUnmapViewOfFile(const void* view);

const zel::test::ImportHook close_handle(__imp_CloseHandle, &StrictCloseHandle);
const zel::test::ImportHook find_close(__imp_FindClose, &StrictFindClose);
const zel::test::ImportHook find_close_change_notification(__imp_FindCloseChangeNotification,
                                                           &StrictFindCloseChangeNotification);
const zel::test::ImportHook unmap_view(__imp_UnmapViewOfFile, &StrictUnmapViewOfFile);

// Calls the imported function itself; a failure ends the program.
template <class Argument>
BOOL CallStrictly(const zel::test::ImportHook& hook, const char* function, Argument argument) {
  const auto call = reinterpret_cast<BOOL(WINAPI*)(Argument)>(hook.original());
  if (!call(argument)) Fail(function, argument);
  return TRUE;
}

BOOL WINAPI StrictCloseHandle(HANDLE handle) {
  return CallStrictly(close_handle, "CloseHandle", handle);
}

BOOL WINAPI StrictFindClose(HANDLE search) {
  return CallStrictly(find_close, "FindClose", search);
}

BOOL WINAPI StrictFindCloseChangeNotification(HANDLE notification) {
  return CallStrictly(find_close_change_notification, "FindCloseChangeNotification", notification);
}

BOOL WINAPI StrictUnmapViewOfFile(const void* view) {
  return CallStrictly(unmap_view, "UnmapViewOfFile", view);
}

}  // namespace
