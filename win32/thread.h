// Starting threads.
//
// Threads: a WorkerThread is started and joined by one thread at a time.
#pragma once

#ifdef _WIN32
#include <process.h>
#include <windows.h>

#include "win32/handles.h"
#else
#include <thread>
#endif

namespace zel {

#ifdef _WIN32
// No C++ exception leaves it for the system's frames: one that would ends the process.
using ThreadProcedure = unsigned(__stdcall*)(void*) noexcept;

// Starts a thread that calls `procedure(context)`. Null, with the last error set, when the system
// has none left. `stack_bytes` are reserved for its stack; 0: as many as the program's header says.
[[nodiscard]] inline UniqueThread StartThread(ThreadProcedure procedure, void* context = nullptr,
                                              unsigned stack_bytes = 0) {
  const unsigned flags = stack_bytes != 0 ? STACK_SIZE_PARAM_IS_A_RESERVATION : 0;
  return UniqueThread(reinterpret_cast<HANDLE>(
      ::_beginthreadex(nullptr, stack_bytes, procedure, context, flags, nullptr)));
}
#endif

// A thread that is started with a function and waited for, for what is also built elsewhere.
// Lifetime: joined before it goes; the context outlives the thread.
class WorkerThread {
 public:
  using Procedure = void(void* context) noexcept;

  // False when the system makes no thread.
  [[nodiscard]] bool Start(Procedure* procedure, void* context);

  // Returns when the thread has ended; at once when there is none.
  void Join();

 private:
#ifdef _WIN32
  static unsigned __stdcall Run(void* self) noexcept {
    const auto& thread = *static_cast<const WorkerThread*>(self);
    thread.procedure_(thread.context_);
    return 0;
  }
  Procedure* procedure_ = nullptr;
  void* context_ = nullptr;
  UniqueThread thread_;
#else
  std::thread thread_;
#endif
};

#ifdef _WIN32

inline bool WorkerThread::Start(Procedure* procedure, void* context) {
  constexpr unsigned kStackReservation = 256 * 1024;
  procedure_ = procedure;
  context_ = context;
  thread_ = StartThread(Run, this, kStackReservation);
  return static_cast<bool>(thread_);
}

inline void WorkerThread::Join() {
  if (thread_) ::WaitForSingleObject(thread_.get(), INFINITE);
  thread_.reset();
}

#else

inline bool WorkerThread::Start(Procedure* procedure, void* context) {
  thread_ = std::thread(procedure, context);
  return true;
}

inline void WorkerThread::Join() {
  if (thread_.joinable()) thread_.join();
}

#endif

}  // namespace zel
