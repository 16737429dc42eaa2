// Replaces system calls of this process where all of them pass: in ntdll. Test bench only.
#pragma once

namespace zel::sim {

// Puts `replacement` in front of ntdll's function `name` and returns what still makes the call;
// null when the function does not look like a system call's stub. To be called before the process
// has a second thread.
//
// kernelbase, the run-time libraries and ntdll itself all make their calls through the stub's
// address, so nothing of user mode gets by.
[[nodiscard]] void* ReplaceSystemCall(const char* name, void* replacement);

}  // namespace zel::sim
