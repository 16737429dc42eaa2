// The procedure of the message threads. Inside driver/.
#pragma once

namespace zel {

// For _beginthreadex; `start_information` is the DriverSession, which outlives the thread and has
// at most kMessageThreads. Waits for serviceThreadStartEvent, then reads and handles messages until
// the threads are stopped. Returns 0.
unsigned __stdcall DriverMessageThread(void* start_information);

}  // namespace zel
