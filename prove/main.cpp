// The proving kit's program (docs/windows.md): shows on this machine what the checks show
// elsewhere, and leaves the machine as it was.
#include <windows.h>

#include <cstdio>
#include <fstream>

#include "prove/machine.h"
#include "prove/options.h"
#include "prove/run_tests.h"
#include "prove/scenarios.h"
#include "prove/traces.h"
#include "simulator/on_wine.h"

namespace zel::prove {
namespace {

enum ExitCode { kSuccess = 0, kFailure = 1, kUsage = 2, kRefusal = 3, kInterruption = 4 };

Kit* running_kit = nullptr;
HANDLE run_ended = nullptr;

// The system ends the process when this returns after a closed console, so it waits for the
// cleanup, as long as the system lets it. What that is too short for is left to the next run.
BOOL WINAPI OnConsoleEvent(DWORD event) {
  running_kit->Interrupt();
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
    ::WaitForSingleObject(run_ended, INFINITE);
  }
  return TRUE;
}

std::filesystem::path OwnFolder() {
  wchar_t program[32'768] = {};
  ::GetModuleFileNameW(nullptr, program, 32'768);
  return std::filesystem::path(program).parent_path();
}

int Refuse(const std::string& why) {
  std::fprintf(stderr, "prove: %s\n", why.c_str());
  return kRefusal;
}

void Tell(const Item& item) {
  std::printf("%-8s %s: %s\n", std::string(OutcomeWord(item.outcome)).c_str(), item.group.c_str(),
              item.name.c_str());
  std::fflush(stdout);
}

double Seconds() {
  return static_cast<double>(::GetTickCount64()) / 1000.0;
}

class Run {
 public:
  Run(Kit& kit, const Options& options) : kit_(kit), options_(options), agent_(kit) {
    report_.facts = MachineFacts(kit);
  }

  const Report& report() const { return report_; }
  void EndWith(std::string left_behind) {
    report_.left_behind = std::move(left_behind);
    report_.interrupted = kit_.interrupted();
  }

  void All() {
    Tests(kUnitTests, TestKind::kUnit);
    Tests(kIntegrationTests, TestKind::kIntegration);
    Scenario(kEndToEnd, EndToEnd(agent_));
    if (options_.short_form && options_.only.empty()) {
      LeaveOut(kDemonstration, "the short form leaves it out");
    } else {
      Scenario(kDemonstration, Demonstration(agent_));
    }
  }

 private:
  void LeaveOut(std::string_view group, const char* why) {
    report_.items.push_back({std::string(group), "all of it", Outcome::kLeftOut, why, 0});
    Tell(report_.items.back());
  }

  bool Leaves(std::string_view group) {
    if (options_.Wants(group)) return false;
    LeaveOut(group, "not asked for");
    return true;
  }

  void Tests(std::string_view group, TestKind kind) {
    if (!Leaves(group)) RunTestPrograms(kit_, kind, options_.short_form, Tell, report_.items);
  }

  void Scenario(std::string_view group, std::vector<Step> steps) {
    if (Leaves(group)) return;
    for (Step& step : steps) step.run = WithLog(std::move(step.run));
    const StepSetting setting = {sim::IsOnWine(), [&] { return kit_.interrupted(); }, Seconds,
                                 Tell};
    RunSteps(std::string(group), steps, setting, report_.items);
  }

  // A failure comes with what the service's log says at its end.
  std::function<void()> WithLog(std::function<void()> run) const {
    return [this, run = std::move(run)] {
      try {
        run();
      } catch (const Interrupted&) {
        throw;
      } catch (const std::exception& failure) {
        throw StepFailure(failure.what() + std::string("\nThe service's log ends with\n") +
                          agent_.LogTail());
      }
    };
  }

  Kit& kit_;
  const Options& options_;
  Agent agent_;
  Report report_;
};

// Whether the report was written.
bool WriteReport(const Kit& kit, const Report& report) {
  bool written = true;
  for (const auto& [name, text] : {std::pair{"prove-report.txt", TextOf(report)},
                                   std::pair{"prove-report.json", JsonOf(report)}}) {
    std::ofstream file(kit.folder() / name, std::ios::binary);
    file << text;
    file.close();
    written = written && !file.fail();
  }
  return written;
}

int Prove(Kit& kit, Traces& traces, const Options& options) {
  traces.Announce();
  Run run(kit, options);
  run.All();
  run.EndWith(traces.CleanUp());
  std::printf("\n%s", TextOf(run.report()).c_str());
  if (!WriteReport(kit, run.report())) {
    std::fputs("prove: cannot write the report beside the program\n", stderr);
    return kFailure;
  }
  if (run.report().interrupted) return kInterruption;
  return Succeeded(run.report()) ? kSuccess : kFailure;
}

int Begin(const Options& options) {
  if (!IsAdministrator()) return Refuse("run it as an administrator");
  Kit kit(OwnFolder());
  const std::string fault = FolderFault(kit.folder());
  if (!fault.empty()) return Refuse("the kit cannot run in this folder: " + fault);
  Traces traces(kit);
  const std::string left = traces.CleanUpAfterEarlierRun();
  if (!left.empty()) return Refuse("an earlier run has left something: " + left);
  if (options.clean_only) return kSuccess;
  const std::string foreign = Traces::Foreign();
  if (!foreign.empty()) return Refuse(foreign);

  running_kit = &kit;
  run_ended = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (run_ended == nullptr || !::SetConsoleCtrlHandler(OnConsoleEvent, TRUE)) {
    return Refuse("cannot watch for Ctrl+C: error " + std::to_string(::GetLastError()));
  }
  const int exit_code = Prove(kit, traces, options);
  ::SetEvent(run_ended);
  return exit_code;
}

int Main(std::span<wchar_t*> arguments) {
  std::vector<std::string> words;
  for (const wchar_t* argument : arguments) words.push_back(ToUtf8(argument));
  const std::optional<Options> options = ParseOptions(words);
  if (!options || options->help) {
    std::fputs(std::string(HelpText()).c_str(), options ? stdout : stderr);
    return options ? kSuccess : kUsage;
  }
  try {
    return Begin(*options);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "prove: %s\n", failure.what());
    return kFailure;
  }
}

}  // namespace
}  // namespace zel::prove

int wmain(int count, wchar_t** arguments) {
  return zel::prove::Main({arguments + 1, static_cast<std::size_t>(count - 1)});
}
