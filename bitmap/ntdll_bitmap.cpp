#include "bitmap/ntdll_bitmap.h"

#include <windows.h>

#include "logging/log_message.h"

namespace zel {

constinit NtdllBitmap ntdllBitmap = {};

namespace {

template <class Function>
void LookUp(HMODULE ntdll, const char* name, std::atomic<Function*>& routine) {
  routine = reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(ntdll, name)));
}

}  // namespace

void ResolveNtdllBitmap() {
  if (IsNtdllBitmapResolved()) return;
  const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
  if (ntdll == nullptr) {
    LogMessage(kBitmapError, L"load library failed\n");
    return;
  }
  LookUp(ntdll, "RtlInitializeBitMap", ntdllBitmap.RtlInitializeBitMap);
  LookUp(ntdll, "RtlAreBitsClear", ntdllBitmap.RtlAreBitsClear);
  LookUp(ntdll, "RtlTestBit", ntdllBitmap.RtlTestBit);
  ntdllBitmap.resolved.store(true, std::memory_order_release);
}

}  // namespace zel
