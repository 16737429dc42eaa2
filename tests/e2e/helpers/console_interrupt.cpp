// Runs a program in a console of its own and presses Ctrl+C there until the program ends.
//
//   console_interrupt PROGRAM [ARGUMENT...]
//
// The first Ctrl+C comes after a line on standard input, the next ones every 100 ms. Prints "ended
// early" (before any Ctrl+C), "interrupted" or "still running" (after 30 s), and the program's exit
// code in hexadecimal. The line is to come when the program is up: Wine delivers Ctrl+C as a signal
// to the main thread, and one that meets it while it makes threads can stop it for good.
#include <windows.h>

#include <cstdio>
#include <string>

namespace {

constexpr DWORD kRepeatMs = 100;
constexpr int kRepeats = 300;

// Every process of the console gets the event, this one included.
BOOL WINAPI Ignore(DWORD) {
  return TRUE;
}

int Fail(const char* step) {
  std::printf("%s failed: %lu\n", step, ::GetLastError());
  return 1;
}

std::wstring QuotedCommandLine(int count, wchar_t** arguments) {
  std::wstring line;
  for (int i = 0; i < count; ++i) line += L"\"" + std::wstring(arguments[i]) + L"\" ";
  return line;
}

const char* InterruptUntilEnd(HANDLE process) {
  while (std::getchar() != '\n' && !std::feof(stdin)) {
  }
  if (::WaitForSingleObject(process, 0) == WAIT_OBJECT_0) return "ended early";
  for (int i = 0; i < kRepeats; ++i) {
    ::GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0);
    if (::WaitForSingleObject(process, kRepeatMs) == WAIT_OBJECT_0) return "interrupted";
  }
  ::TerminateProcess(process, 1);
  return "still running";
}

}  // namespace

int wmain(int argument_count, wchar_t** arguments) {
  if (argument_count < 2) return Fail("reading the arguments");
  ::FreeConsole();
  if (!::AllocConsole()) return Fail("AllocConsole");

  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION program;
  std::wstring command_line = QuotedCommandLine(argument_count - 1, arguments + 1);
  if (!::CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &program)) {
    return Fail("CreateProcess");
  }
  ::SetConsoleCtrlHandler(Ignore, TRUE);
  const char* const outcome = InterruptUntilEnd(program.hProcess);
  DWORD exit_code = 0;
  ::GetExitCodeProcess(program.hProcess, &exit_code);
  std::printf("%s %08lx\n", outcome, exit_code);
  return 0;
}
