#include "simulator/fltlib/import_table.h"

#include <windows.h>

#include <cstring>
#include <utility>

namespace zel::sim {

namespace {

const char* const kModule = reinterpret_cast<const char*>(::GetModuleHandleW(nullptr));

template <class T>
const T* At(DWORD offset) {
  return reinterpret_cast<const T*>(kModule + offset);
}

// The entry of `function` in the table of one DLL; null when it is not imported.
void** FindEntry(const IMAGE_IMPORT_DESCRIPTOR& dll, const char* function) {
  const auto* name = At<IMAGE_THUNK_DATA>(dll.OriginalFirstThunk);
  const auto* entry = At<IMAGE_THUNK_DATA>(dll.FirstThunk);
  for (; name->u1.AddressOfData != 0; ++name, ++entry) {
    if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal)) continue;
    const auto* const by_name =
        At<IMAGE_IMPORT_BY_NAME>(static_cast<DWORD>(name->u1.AddressOfData));
    if (std::strcmp(reinterpret_cast<const char*>(by_name->Name), function) == 0) {
      return reinterpret_cast<void**>(const_cast<IMAGE_THUNK_DATA*>(entry));
    }
  }
  return nullptr;
}

}  // namespace

void* ReplaceImport(const char* dll, const char* function, void* replacement) {
  const auto* const dos = At<IMAGE_DOS_HEADER>(0);
  const auto* const headers = At<IMAGE_NT_HEADERS>(static_cast<DWORD>(dos->e_lfanew));
  const DWORD imports =
      headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
  for (const auto* each = At<IMAGE_IMPORT_DESCRIPTOR>(imports); each->Name != 0; ++each) {
    if (::_stricmp(At<char>(each->Name), dll) != 0) continue;
    if (void** const entry = FindEntry(*each, function)) {
      DWORD protection = 0;
      ::VirtualProtect(entry, sizeof *entry, PAGE_READWRITE, &protection);
      void* const original = std::exchange(*entry, replacement);
      ::VirtualProtect(entry, sizeof *entry, protection, &protection);
      return original;
    }
  }
  return nullptr;
}

}  // namespace zel::sim
