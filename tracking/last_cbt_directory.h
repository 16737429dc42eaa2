// Inside tracking/. Where the bitmaps were the last time that the service ran. In a session on
// another directory it finds other bitmaps or none, and takes the driver's reports all the same.
#pragma once

#include <windows.h>

#include <string>

namespace zel {

// Compares `directory` with the one that a value of `key` names, warns when it is another one, and
// has the value name this one from now on. Names that differ in the case of A to Z alone are the
// same. `key` has the rights to read and to set values.
// Errors: logged at General/Warn; nothing is then compared, or remembered.
void NoteCbtDirectory(HKEY key, const std::wstring& directory);

}  // namespace zel
