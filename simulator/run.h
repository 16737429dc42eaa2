// driversim run: a program whose file activity is reported to the driver. Test bench only.
#pragma once

#include <string>

namespace zel::sim {

// The exit code of a run that could not begin or whose reports did not all get through, and of
// every process in it that loses the driver.
inline constexpr int kReportsLost = 3;

// Runs `command_line` with simhook.dll in it and returns the program's exit code, or kReportsLost.
[[nodiscard]] int RunReported(std::wstring command_line);

}  // namespace zel::sim
