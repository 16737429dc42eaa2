// Files of the system, read and written piece by piece.
//
// Errors: Win32 codes, 0 for success.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "files/types.h"
#include "win32/handles.h"
#include "zelctl/machine.h"

namespace zel::ctl {

// The volume's GUID as the service takes it. None for what is on no volume with a GUID.
[[nodiscard]] std::optional<VolumeGuid> VolumeOf(const std::wstring& path);

// Others may read, write, rename and delete the file meanwhile.
[[nodiscard]] std::uint32_t OpenSystemSource(const std::wstring& path,
                                             std::unique_ptr<SourceFile>& file);

// Others may only read the file meanwhile.
[[nodiscard]] std::uint32_t OpenSystemTarget(const std::wstring& path,
                                             std::unique_ptr<TargetFile>& file);

// As Machine::CreateReplacement.
[[nodiscard]] std::uint32_t CreateSystemReplacement(const std::wstring& path,
                                                    const std::wstring& beside,
                                                    std::unique_ptr<ReplacementFile>& file);

// A file that nobody else can open and that goes with its handle, so with the process, too.
[[nodiscard]] std::uint32_t LockSystemFile(const std::wstring& path,
                                           std::unique_ptr<HeldLock>& lock);

}  // namespace zel::ctl
