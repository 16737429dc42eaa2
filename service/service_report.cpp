#include "service/service_report.h"

namespace zel {

namespace {

constexpr std::uint32_t kAcceptStopAndShutdown = 1 | 4;

bool IsSettled(std::uint32_t state) {
  return state == kServiceStateRunning || state == kServiceStateStopped;
}

}  // namespace

ServiceReport MakeServiceReport(std::uint32_t state, std::uint32_t win32_exit_code,
                                std::uint32_t wait_hint_ms, std::uint32_t& next_checkpoint) {
  return {
      .state = state,
      .controls_accepted = state == kServiceStateStartPending ? 0 : kAcceptStopAndShutdown,
      .win32_exit_code = win32_exit_code,
      .checkpoint = IsSettled(state) ? 0 : next_checkpoint++,
      .wait_hint_ms = wait_hint_ms,
  };
}

}  // namespace zel
