// The kinds of Win32 handles that the service owns, as traits of UniqueResource.
// What needs more than <windows.h> has a header of its own beside this one.
#pragma once

#include <windows.h>

#include "win32/unique_resource.h"

namespace zel {

// Kernel objects whose creators answer null on failure.
using KernelObjectTraits = NullTraits<HANDLE, ::CloseHandle>;
using UniqueEvent = UniqueResource<KernelObjectTraits>;
using UniqueThread = UniqueResource<KernelObjectTraits>;
using UniqueToken = UniqueResource<KernelObjectTraits>;
using UniqueMapping = UniqueResource<KernelObjectTraits>;

// A mapped view, seen as what lies at its start.
template <class T>
using UniqueView = UniqueResource<NullTraits<T*, ::UnmapViewOfFile>>;

// Handles whose creators answer INVALID_HANDLE_VALUE on failure.
template <auto CloseFunction>
struct InvalidHandleTraits {
  using Type = HANDLE;
  static Type Null() noexcept { return INVALID_HANDLE_VALUE; }
  static bool Valid(Type value) noexcept {
    return value != INVALID_HANDLE_VALUE && value != nullptr;
  }
  static void Close(Type value) noexcept { CloseFunction(value); }
};
using UniqueFile = UniqueResource<InvalidHandleTraits<::CloseHandle>>;
using UniqueFind = UniqueResource<InvalidHandleTraits<::FindClose>>;
using UniqueChangeNotification = UniqueResource<InvalidHandleTraits<::FindCloseChangeNotification>>;

using UniqueRegistryKey = UniqueResource<NullTraits<HKEY, ::RegCloseKey>>;
using UniqueServiceHandle = UniqueResource<NullTraits<SC_HANDLE, ::CloseServiceHandle>>;

}  // namespace zel
