// Who may call: what the interface is registered with, so that the setting RpcCallers
// (config/settings.h) holds from the next call on. Not here: what the system itself asks of callers
// (docs/security.md).
//
// With kAny the interface is registered by RpcServerRegisterIf, without any conditions. Otherwise
// by RpcServerRegisterIf2 with a security callback, which the runtime asks at each call, of callers
// without authentication too; a caller whom it refuses gets ERROR_ACCESS_DENIED, and the log one
// line a minute of each. When the setting goes from one to the other the interface is registered
// anew; calls in hand and enumerations go on. A call that comes just in between ends with
// RPC_S_UNKNOWN_IF.
#pragma once

#include <windows.h>

namespace zel {

// What a registration came to, and the function that was asked last.
struct RegistrationResult {
  const wchar_t* function;
  long status;  // an RPC status
};

// The registered interface, from Register to the destructor; one at a time in a process.
class CallerControl {
 public:
  CallerControl() = default;
  ~CallerControl();
  CallerControl(const CallerControl&) = delete;
  CallerControl& operator=(const CallerControl&) = delete;

  // Registers the interface as RpcCallers says now, and anew whenever the configuration file says
  // something else. When that fails later it is logged, and tried again when the file is next
  // written; until then the interface stays registered as it was, or nobody can call.
  [[nodiscard]] RegistrationResult Register();
};

}  // namespace zel
