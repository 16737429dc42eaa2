// Replaces functions that the program of this process imports. Test bench only.
#pragma once

namespace zel::sim {

// Puts `replacement` in place of the function that the program itself (no DLL of it) imports by
// that name; returns the imported one, null when there is none. To be called while the loader lets
// no other thread run.
void* ReplaceImport(const char* dll, const char* function, void* replacement);

// The same, with the imported one in `original`.
template <class Function>
void ReplaceImport(const char* dll, const char* function, Function* replacement,
                   Function*& original) {
  original = reinterpret_cast<Function*>(
      ReplaceImport(dll, function, reinterpret_cast<void*>(replacement)));
}

}  // namespace zel::sim
