#include "service/command_line.h"

namespace zel {

namespace {

bool BeginsAsSwitch(std::wstring_view argument) {
  return argument.starts_with(L'-') || argument.starts_with(L'/');
}

}  // namespace

bool IsSwitch(std::wstring_view argument, std::wstring_view name) {
  return BeginsAsSwitch(argument) && argument.substr(1) == name;
}

ProgramMode SelectMode(Arguments arguments) {
  if (arguments.size() < 2 || !BeginsAsSwitch(arguments[1])) return ProgramMode::kService;
  if (IsSwitch(arguments[1], L"install")) return ProgramMode::kInstall;
  if (IsSwitch(arguments[1], L"remove")) return ProgramMode::kRemove;
  if (IsSwitch(arguments[1], L"debug")) return ProgramMode::kDebug;
  return ProgramMode::kUsage;
}

bool AsksForNoDriver(Arguments arguments) {
  return arguments.size() == 3 && IsSwitch(arguments[2], L"nodriver");
}

std::wstring ServiceCommandLine(std::wstring_view program_path) {
  std::wstring command_line(program_path);
  if (command_line.find(L' ') == std::wstring::npos) return command_line;
  return L"\"" + command_line + L"\"";
}

}  // namespace zel
