// Brings a library of the bench into another process. Test bench only.
#pragma once

#include <windows.h>

#include <string>

namespace zel::sim {

// Loads `library` into `process`, which was made suspended and has run no code of its program yet.
// False when it cannot, or when the library refuses to be loaded.
[[nodiscard]] bool InjectLibrary(HANDLE process, const std::wstring& library);

}  // namespace zel::sim
