// Files of the system, read and written piece by piece.
//
// Errors: Win32 codes, 0 for success.
#pragma once

#include <windows.h>

#include <string>

#include "win32/handles.h"
#include "zelctl/machine.h"

namespace zel::ctl {

// Others may read, write, rename and delete the file meanwhile.
[[nodiscard]] std::uint32_t OpenSystemSource(const std::wstring& path,
                                             std::unique_ptr<SourceFile>& file);

// Others may only read the file meanwhile.
[[nodiscard]] std::uint32_t OpenSystemTarget(const std::wstring& path,
                                             std::unique_ptr<TargetFile>& file);

// Lies at path + ".zelctl-new", where one that a killed process has left is overwritten.
[[nodiscard]] std::uint32_t CreateSystemReplacement(const std::wstring& path,
                                                    std::unique_ptr<ReplacementFile>& file);

}  // namespace zel::ctl
