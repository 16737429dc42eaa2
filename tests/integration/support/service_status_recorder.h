// Takes the place of the service control manager's end of SetServiceStatus for its lifetime.
#pragma once

#include <windows.h>

#include <atomic>
#include <vector>

#include "tests/integration/support/import_hook.h"

extern "C" {
extern void* __imp_SetServiceStatus;
}

namespace zel::test {

// Threads: reports come from one thread at a time, and are read when it has ended; LastState from
// any thread.
class ServiceStatusRecorder {
 public:
  struct Report {
    SERVICE_STATUS_HANDLE handle;
    SERVICE_STATUS status;
  };

  ServiceStatusRecorder() {
    reports_.clear();
    last_state_ = 0;
    refused_report_ = 0;
  }

  // The report of this number, from 1, fails with ERROR_INVALID_HANDLE.
  static void Refuse(std::size_t number) { refused_report_ = number; }

  [[nodiscard]] static const std::vector<Report>& reports() { return reports_; }

  // 0 before the first report.
  [[nodiscard]] static DWORD LastState() { return last_state_; }

 private:
  static BOOL WINAPI Record(SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS status) {
    reports_.push_back({handle, *status});
    last_state_ = status->dwCurrentState;
    ::SetLastError(ERROR_INVALID_HANDLE);
    return reports_.size() != refused_report_;
  }

  static inline std::vector<Report> reports_;
  static inline std::atomic<DWORD> last_state_{0};
  static inline std::size_t refused_report_ = 0;
  ImportHook hook_{__imp_SetServiceStatus, &Record};
};

}  // namespace zel::test
