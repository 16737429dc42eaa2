#include "simulator/run.h"

#include <windows.h>

#include <cstdio>
#include <optional>

#include "simulator/control_client.h"
#include "simulator/injection.h"
#include "win32/handles.h"

namespace zel::sim {

namespace {

// Beyond it stand the system's codes for crashes, of which Wine's callers see the low byte alone.
constexpr DWORD kLargestOwnCode = 0xFF;

int Fail(const char* what) {
  std::fprintf(stderr, "driversim: %s, error %lu\n", what, ::GetLastError());
  return kReportsLost;
}

std::wstring HookLibrary() {
  wchar_t program[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, program, MAX_PATH);
  const std::wstring path = program;
  return path.substr(0, path.find_last_of(L'\\') + 1) + L"simhook.dll";
}

}  // namespace

int RunReported(std::wstring command_line) {
  // Held to the end: it breaks with the driver, whatever becomes of the processes of the run.
  ControlClient driver;
  if (!driver.connected()) return Fail("no driver runs");
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION made = {};
  if (!::CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED,
                        nullptr, nullptr, &startup, &made)) {
    return Fail("cannot start the program");
  }
  const UniqueResource<KernelObjectTraits> process(made.hProcess);
  const UniqueThread thread(made.hThread);
  if (!InjectLibrary(process.get(), HookLibrary())) {
    ::TerminateProcess(process.get(), kReportsLost);
    return Fail("cannot get into the program");
  }
  ::ResumeThread(thread.get());
  ::WaitForSingleObject(process.get(), INFINITE);
  DWORD exit_code = kReportsLost;
  ::GetExitCodeProcess(process.get(), &exit_code);
  if (exit_code > kLargestOwnCode) {
    std::fprintf(stderr, "driversim: the program ended with 0x%08lx\n", exit_code);
  }
  if (!driver.Tell("counters")) return Fail("the driver went, reports are lost");
  return static_cast<int>(exit_code);
}

}  // namespace zel::sim
