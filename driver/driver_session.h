// The message threads of one connection: their procedure and what they share. Inside driver/.
//
// Lifetime: shared by the threads' owner (driver/message_threads.h) and by those who wait for
// something of theirs; the handles close when the last of them lets go.
#pragma once

#include <windows.h>

#include <array>
#include <atomic>
#include <cstddef>

#include "driver/driver_port.h"
#include "driver/reader_barrier.h"
#include "driver/receive_slots.h"
#include "win32/handles.h"

namespace zel {

// The start information of the threads.
struct DriverSession {
  DriverPort port;
  UniqueEvent serviceThreadStartEvent;     // manual reset: the threads may read
  UniqueEvent serviceThreadShutdownEvent;  // manual reset: they and those who wait are to end
  ReaderStates readers;
  ReceiveSlots slots;
  // Set for every probe of a reader; each resets itself. Made by its thread before the first read,
  // and not replaced.
  std::array<UniqueEvent, kMessageThreads> probe_events;
  std::atomic<std::size_t> readers_taken{0};
};

// Set before the events are, once and for all: a start that comes after the stop finds it.
inline constinit std::atomic<bool> driverThreadsStopping{false};

// The procedure of the message threads, for _beginthreadex; `start_information` is the
// DriverSession, which outlives the thread and has at most kMessageThreads. Waits for
// serviceThreadStartEvent, then reads and handles messages until the threads are stopped. Returns
// 0.
unsigned __stdcall DriverMessageThread(void* start_information) noexcept;

}  // namespace zel
