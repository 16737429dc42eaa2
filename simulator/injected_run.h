// A program that runs with a library of the bench in it. Test bench only.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace zel::sim {

// Runs `command_line` with `library`, which lies beside this program, and returns the exit code.
// Nothing, and a line on standard error, when it could not begin.
[[nodiscard]] std::optional<DWORD> RunWithLibrary(std::wstring command_line,
                                                  const wchar_t* library);

// Tells on standard error what failed, with the last error.
void TellFailure(const char* what);

// The same exit code for the caller; a crash's is told on standard error, since Wine's callers see
// the low byte alone.
[[nodiscard]] int OwnExitCode(DWORD exit_code);

}  // namespace zel::sim
