// driversim run and client: programs with a library of the bench in them. Test bench only.
#pragma once

#include <string>

namespace zel::sim {

// The exit code of a run that could not begin or whose reports did not all get through, and of
// every process in it that loses the driver.
inline constexpr int kReportsLost = 3;

// Runs `command_line` with simhook.dll in it, which reports its file activity to the driver, and
// returns the program's exit code, or kReportsLost.
[[nodiscard]] int RunReported(std::wstring command_line);

// The same with pipehook.dll, which carries out the calls that Wine's runtime does not know. No
// driver is needed; kReportsLost only says that the run could not begin.
[[nodiscard]] int RunClient(std::wstring command_line);

}  // namespace zel::sim
