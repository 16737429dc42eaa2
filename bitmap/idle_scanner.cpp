#include "bitmap/idle_scanner.h"

#include <windows.h>

#include <utility>

#include "errors/error_info.h"
#include "logging/log_message.h"
#include "win32/critical_section.h"
#include "win32/handles.h"
#include "win32/thread.h"

namespace zel {

namespace {

constexpr DWORD kScanIntervalMs = 10'000;

struct IdleScanner {
  void (*scan)();
  UniqueEvent stop_event;  // manual reset
  UniqueThread thread;
};

// Held while the thread is waited for, so before every lock that the scan takes.
CriticalSection scannerLock;

// Null while no scanner runs. Not destroyed with the process, whose end the thread may outlive.
constinit IdleScanner* scanner ZEL_GUARDED_BY(scannerLock) = nullptr;

// `context` is the IdleScanner, which outlives the thread.
unsigned __stdcall IdleScannerThread(void* context) noexcept {
  const auto& self = *static_cast<const IdleScanner*>(context);
  while (::WaitForSingleObject(self.stop_event.get(), kScanIntervalMs) != WAIT_OBJECT_0) {
    self.scan();
  }
  LogMessage(kBitmapDebug, L"Bitmap idle scanner thread exiting...\n");
  return 0;
}

}  // namespace

void StartIdleScanner(void (*scan)()) {
  LogMessage(kBitmapInfo, L"Starting bitmap idle scanner thread\n");
  const LockGuard guard(scannerLock);
  scanner = new IdleScanner{scan, UniqueEvent(::CreateEventW(nullptr, TRUE, FALSE, nullptr)), {}};
  // Without its event the thread would scan without a pause and never end.
  if (scanner->stop_event) {
    scanner->thread = StartThread(IdleScannerThread, scanner);
  }
  if (!scanner->thread) {
    LogMessage(kBitmapError, L"Failed to start the bitmap idle scanner thread: %hs\n",
               ErrorInfo().text());
  }
}

void StopIdleScanner() {
  const LockGuard guard(scannerLock);
  if (scanner == nullptr) return;
  if (scanner->thread) {
    ::SetEvent(scanner->stop_event.get());
    ::WaitForSingleObject(scanner->thread.get(), INFINITE);
  }
  delete std::exchange(scanner, nullptr);
}

}  // namespace zel
