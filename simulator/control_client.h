// The user's end of the control channel. Test bench only.
//
// Threads: any; one order at a time.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>

#include "win32/critical_section.h"
#include "win32/handles.h"

namespace zel::sim {

class ControlClient {
 public:
  // Connects; asks without a connection when there is no driver.
  ControlClient();

  [[nodiscard]] bool connected() const { return static_cast<bool>(pipe_); }

  // Gives one order and returns the answer; nothing when the channel is gone.
  [[nodiscard]] std::optional<std::string> Tell(std::string_view order);

 private:
  CriticalSection lock_;
  UniqueFile pipe_;
  std::string answer_ ZEL_GUARDED_BY(lock_);
};

}  // namespace zel::sim
