// What the message threads of one connection share. Inside drivercomm/.
//
// Lifetime: shared by the threads' owner (drivercomm/message_threads.h) and by those who wait for
// something of theirs; the handles close when the last of them lets go.
#pragma once

#include <windows.h>

#include <array>
#include <atomic>
#include <cstdint>

#include "drivercomm/driver_port.h"
#include "win32/handles.h"

namespace zel {

inline constexpr std::size_t kMessageThreads = 4;

// One thread's reading, and what others ask of it (drivercomm/messages_in_hand.h).
struct MessageReading {
  // Odd from the beginning of a read until its message has been processed, else even; counts up.
  std::atomic<std::uint64_t> round{0};
  // How often the thread was asked whether its read is over. It sets `answered` to the number that
  // it has found here when its read was not.
  std::atomic<std::uint64_t> asked{0};
  std::atomic<std::uint64_t> answered{0};
  // Set for every question; resets itself. Made by the thread before its first round, and not
  // replaced.
  UniqueEvent asked_event;
};

// The start information of the threads.
struct DriverSession {
  DriverPort port;
  UniqueEvent serviceThreadStartEvent;     // manual reset: the threads may read
  UniqueEvent serviceThreadShutdownEvent;  // manual reset: they and those who wait are to end
  std::array<MessageReading, kMessageThreads> readings;
  std::atomic<std::size_t> readings_taken{0};
};

// Set before the events are, once and for all: a start that comes after the stop finds it.
inline constinit std::atomic<bool> driverThreadsStopping{false};

}  // namespace zel
