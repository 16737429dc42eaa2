// The privilege to open any file for backup, without which tracked files of others stay closed to
// the service.
#pragma once

#include <cstdint>

namespace zel {

// Enables SeBackupPrivilege for this process. 0, or the code of what failed, which is logged;
// ERROR_NOT_ALL_ASSIGNED when the account does not have the privilege.
[[nodiscard]] std::uint32_t AcquireBackupPrivilege();

}  // namespace zel
