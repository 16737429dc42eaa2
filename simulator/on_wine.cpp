#include "simulator/on_wine.h"

#include <windows.h>

namespace zel::sim {

std::string WineVersion() {
  using Version = const char*(CDECL*)();
  const auto version = reinterpret_cast<Version>(reinterpret_cast<void*>(
      ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version")));
  return version != nullptr ? version() : std::string();
}

bool IsOnWine() {
  return !WineVersion().empty();
}

}  // namespace zel::sim
