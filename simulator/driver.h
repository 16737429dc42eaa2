// The simulated driver of this process: the model behind its lock. Test bench only.
//
// Threads: any.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>

#include "simulator/channels.h"
#include "simulator/driver_model.h"
#include "win32/critical_section.h"
#include "win32/handles.h"

namespace zel::sim {

class Driver {
 public:
  Driver();

  // False when the system refused what a driver needs; nothing else may be called then.
  [[nodiscard]] bool usable() const { return receipts_ && changed_event_ && stop_event_; }
  // Obeys a line of the control channel. After "stop" it is the caller's to set the stop event,
  // once the answer is on its way: the process may end at once.
  struct Told {
    std::string answer;
    bool stops;
  };
  [[nodiscard]] Told Tell(std::string_view line);
  [[nodiscard]] HANDLE stop_event() const { return stop_event_.get(); }
  // Leaves behind whether something is lost with this process.
  void Shutdown();

  // The port's side.
  // Set when there may be something new to hand over.
  [[nodiscard]] HANDLE changed_event() const { return changed_event_.get(); }
  void Connect();
  void Disconnect();
  // The bytes of the next message; without one, `wait_ms` is how long to wait for the next look.
  [[nodiscard]] std::optional<Bytes> Offer(DWORD& wait_ms);
  void HandedOver();

 private:
  // Tells the model what the user library has written down since it was last asked.
  void ReadReceipts() ZEL_REQUIRES(lock_);

  CriticalSection lock_;
  DriverModel model_ ZEL_GUARDED_BY(lock_);
  UniqueMapping receipts_mapping_;
  UniqueView<ReceiptLog> receipts_;
  std::uint64_t receipts_read_ ZEL_GUARDED_BY(lock_) = 0;
  UniqueEvent changed_event_;  // set by itself again after a wait
  UniqueEvent stop_event_;     // manual reset
};

}  // namespace zel::sim
