// The reads that the service makes on the port, as the kernel sees them. Test bench only.
//
// The kernel puts a message into its reader's buffer, forgets it and wakes the reader. Here the
// driver forgets when it is told that the reader has it, which is written down as the reader's wait
// for it ends: after the message has come into the buffer and before any code of the service can
// look at it. A service that is killed before gets the message again, also when it lies in the
// buffer already; one that is killed after it never does.
//
// Threads: any.
#pragma once

#include <windows.h>

namespace zel::sim {

// A new connection, whose reads are the first. Not while a read of another one is outstanding.
[[nodiscard]] HRESULT BeginPortReads();

// Begins one read: HRESULT_FROM_WIN32(ERROR_IO_PENDING), which completes through the OVERLAPPED's
// event, or why there is none. `overlapped` says who reads: when it reads again it has processed
// what it got before.
[[nodiscard]] HRESULT BeginPortRead(HANDLE port, void* buffer, DWORD size, OVERLAPPED* overlapped);

// To be called when a wait for `event` has ended, be it a read's or not.
void EndPortRead(HANDLE event);

// Has every wait of the program for a read's event end in EndPortRead. To be called while the
// loader lets no other thread run.
void WatchPortReads();

}  // namespace zel::sim
