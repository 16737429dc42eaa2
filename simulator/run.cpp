#include "simulator/run.h"

#include <optional>

#include "simulator/control_client.h"
#include "simulator/injected_run.h"

namespace zel::sim {

namespace {

int Fail(const char* what) {
  TellFailure(what);
  return kReportsLost;
}

}  // namespace

int RunReported(std::wstring command_line) {
  // Held to the end: it breaks with the driver, whatever becomes of the processes of the run.
  ControlClient driver;
  if (!driver.connected()) return Fail("no driver runs");
  const std::optional<DWORD> exit_code = RunWithLibrary(std::move(command_line), L"simhook.dll");
  if (!exit_code) return kReportsLost;
  const int code = OwnExitCode(*exit_code);
  return driver.Tell("counters") ? code : Fail("the driver went, reports are lost");
}

int RunClient(std::wstring command_line) {
  const std::optional<DWORD> exit_code = RunWithLibrary(std::move(command_line), L"pipehook.dll");
  return exit_code ? OwnExitCode(*exit_code) : kReportsLost;
}

}  // namespace zel::sim
