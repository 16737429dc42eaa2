// Services of this machine's service manager.
//
// Errors: what throws throws StepFailure with the system's code. Threads: any.
#pragma once

#include <windows.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "prove/kit.h"

namespace zel::prove {

struct ServiceSetup {
  std::wstring command_line;
  std::wstring display_name;
  std::wstring account;
  DWORD start_type = 0;
  std::vector<std::wstring> dependencies;
};

[[nodiscard]] bool ServiceExists(const wchar_t* name);
// Throws when there is no such service.
[[nodiscard]] ServiceSetup SetupOf(const wchar_t* name);
[[nodiscard]] DWORD StateOf(const wchar_t* name);
// 0 when it does not run.
[[nodiscard]] DWORD ProcessOf(const wchar_t* name);

// A service of its own process, started on demand.
void CreateDemandService(const wchar_t* name, const std::filesystem::path& program);
// Waits until it runs in another process than `former_process`.
void StartAndAwait(const Kit& kit, const wchar_t* name, DWORD former_process = 0);
// Asks it to stop; waits until it says so and its process has ended.
void StopAndAwait(const Kit& kit, const wchar_t* name, DWORD limit_ms);
// Ends its process at once, as a crash does.
void KillProcessOf(const Kit& kit, const wchar_t* name);

// Stops it, by force where it does not stop by itself, deletes it and waits until it is gone.
void RemoveService(const Kit& kit, const wchar_t* name);

}  // namespace zel::prove
