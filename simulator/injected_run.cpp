#include "simulator/injected_run.h"

#include <cstdio>

#include "simulator/injection.h"
#include "win32/handles.h"

namespace zel::sim {

namespace {

// Beyond it stand the system's codes for crashes.
constexpr DWORD kLargestOwnCode = 0xFF;

std::wstring PathBesideProgram(const wchar_t* name) {
  wchar_t program[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, program, MAX_PATH);
  const std::wstring path = program;
  return path.substr(0, path.find_last_of(L'\\') + 1) + name;
}

}  // namespace

void TellFailure(const char* what) {
  std::fprintf(stderr, "driversim: %s, error %lu\n", what, ::GetLastError());
}

std::optional<DWORD> RunWithLibrary(std::wstring command_line, const wchar_t* library) {
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION made = {};
  if (!::CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED,
                        nullptr, nullptr, &startup, &made)) {
    TellFailure("cannot start the program");
    return std::nullopt;
  }
  const UniqueResource<KernelObjectTraits> process(made.hProcess);
  const UniqueThread thread(made.hThread);
  if (!InjectLibrary(process.get(), PathBesideProgram(library))) {
    TellFailure("cannot get into the program");
    ::TerminateProcess(process.get(), 1);
    return std::nullopt;
  }
  ::ResumeThread(thread.get());
  ::WaitForSingleObject(process.get(), INFINITE);
  DWORD exit_code = 0;
  if (::GetExitCodeProcess(process.get(), &exit_code)) return exit_code;
  TellFailure("cannot tell how the program ended");
  return std::nullopt;
}

int OwnExitCode(DWORD exit_code) {
  if (exit_code > kLargestOwnCode) {
    std::fprintf(stderr, "driversim: the program ended with 0x%08lx\n", exit_code);
  }
  return static_cast<int>(exit_code);
}

}  // namespace zel::sim
