// The four threads that read the driver's messages, their start and their stop.
//
// Threads: StartDriverThreads belongs to the service start; everything else to any thread.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>

#include "driver/reader_barrier.h"

namespace zel {

struct DriverSession;

// Makes the events and the threads and lets them read from the port, which is connected. 0, or the
// Win32 error of what could not be made; that has been logged and StopDriverThreads has been run.
// After a stop, also one that comes at the same time, ERROR_SHUTDOWN_IN_PROGRESS likewise.
[[nodiscard]] std::uint32_t StartDriverThreads();

// Ends the threads, waiting without a limit for the messages that they have in hand, and every wait
// of WaitForDriverStop; then closes the events and the port. For good: no thread can be started
// afterwards. May be called twice, by several threads at once, and without a start; every call
// returns after the threads have ended.
void StopDriverThreads();

// Waits for the stop of the threads. False when `timeout_ms` have passed without it; true at once
// when there are no threads.
[[nodiscard]] bool WaitForDriverStop(DWORD timeout_ms);

// Null while there are no threads.
[[nodiscard]] std::shared_ptr<DriverSession> CurrentDriverSession();

// A barrier for what the threads have in hand now; passed at once while there are none. It outlives
// the threads.
[[nodiscard]] ReaderBarrier RaiseReaderBarrier();

}  // namespace zel
