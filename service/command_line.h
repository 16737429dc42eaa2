// What the program's arguments ask for, and the command line it is installed with. Pure.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace zel {

// The whole argument vector, program path included; every element is NUL-terminated.
using Arguments = std::span<const wchar_t* const>;

enum class ProgramMode { kInstall, kRemove, kDebug, kUsage, kService };

// True when `argument` is "-" or "/" followed by exactly `name`; case matters.
[[nodiscard]] bool IsSwitch(std::wstring_view argument, std::wstring_view name);

// The mode that the first argument behind the program path selects. One that begins with "-" or "/"
// and names no mode gives kUsage; any other, or none at all, gives kService.
[[nodiscard]] ProgramMode SelectMode(Arguments arguments);

// Whether debug mode is to run without the driver: "-debug -nodriver" and not one argument more.
[[nodiscard]] bool AsksForNoDriver(Arguments arguments);

// The command line that makes the service control manager start `program_path`: in quotation marks
// when it holds a blank, so that it is not taken for a program and its arguments.
[[nodiscard]] std::wstring ServiceCommandLine(std::wstring_view program_path);

}  // namespace zel
