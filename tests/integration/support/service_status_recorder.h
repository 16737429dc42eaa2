// Takes the place of the service control manager's end of SetServiceStatus for its lifetime.
#pragma once

#include <windows.h>

#include <vector>

#include "tests/integration/support/import_hook.h"

extern "C" {
extern void* __imp_SetServiceStatus;
}

namespace zel::test {

// Threads: reports come from one thread at a time, and are read when it has ended.
class ServiceStatusRecorder {
 public:
  struct Report {
    SERVICE_STATUS_HANDLE handle;
    SERVICE_STATUS status;
  };

  ServiceStatusRecorder() { reports_.clear(); }

  [[nodiscard]] static const std::vector<Report>& reports() { return reports_; }

 private:
  static BOOL WINAPI Record(SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS status) {
    reports_.push_back({handle, *status});
    return TRUE;
  }

  static inline std::vector<Report> reports_;
  ImportHook hook_{__imp_SetServiceStatus, &Record};
};

}  // namespace zel::test
