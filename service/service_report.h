// One report to the service control manager as numbers. Pure; service/service_status.h sends it.
#pragma once

#include <cstdint>

namespace zel {

// The states that are treated apart, with the service control manager's values.
inline constexpr std::uint32_t kServiceStateStopped = 1;
inline constexpr std::uint32_t kServiceStateStartPending = 2;
inline constexpr std::uint32_t kServiceStateRunning = 4;

// What SERVICE_STATUS says, apart from the service type.
struct ServiceReport {
  std::uint32_t state;
  std::uint32_t controls_accepted;  // 0, or stop and shutdown (5)
  std::uint32_t win32_exit_code;
  std::uint32_t checkpoint;
  std::uint32_t wait_hint_ms;
};

// The report of `state`. No control is accepted while the start is pending. A pending state carries
// `next_checkpoint`, which then rises by one; a settled state (running, stopped) carries 0.
[[nodiscard]] ServiceReport MakeServiceReport(std::uint32_t state, std::uint32_t win32_exit_code,
                                              std::uint32_t wait_hint_ms,
                                              std::uint32_t& next_checkpoint);

}  // namespace zel
