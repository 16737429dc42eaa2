// A thread that is started with a function and waited for.
//
// Threads: started and joined by one thread at a time.
// Lifetime: joined before it goes; the context outlives the thread.
#pragma once

#ifdef _WIN32
#include <process.h>
#include <windows.h>

#include "win32/handles.h"
#else
#include <system_error>
#include <thread>
#endif

namespace zel {

class WorkerThread {
 public:
  using Procedure = void(void* context) noexcept;

  // False when the system makes no thread; the thread's last error then says why.
  [[nodiscard]] bool Start(Procedure* procedure, void* context) {
    procedure_ = procedure;
    context_ = context;
#ifdef _WIN32
    thread_.reset(reinterpret_cast<HANDLE>(::_beginthreadex(
        nullptr, kStackReservation, Run, this, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr)));
    return static_cast<bool>(thread_);
#else
    thread_ = std::thread([this] { procedure_(context_); });
    return true;
#endif
  }

  // Returns when the thread has ended; at once when there is none.
  void Join() {
#ifdef _WIN32
    if (thread_) ::WaitForSingleObject(thread_.get(), INFINITE);
    thread_.reset();
#else
    if (thread_.joinable()) thread_.join();
#endif
  }

 private:
  Procedure* procedure_ = nullptr;
  void* context_ = nullptr;
#ifdef _WIN32
  static constexpr unsigned kStackReservation = 256 * 1024;
  static unsigned __stdcall Run(void* self) {
    const auto& thread = *static_cast<const WorkerThread*>(self);
    thread.procedure_(thread.context_);
    return 0;
  }
  UniqueThread thread_;
#else
  std::thread thread_;
#endif
};

}  // namespace zel
