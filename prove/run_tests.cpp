#include "prove/run_tests.h"

#include "prove/options.h"
#include "prove/steps.h"

namespace zel::prove {

namespace {

constexpr std::size_t kDetailBytes = 4'000;
constexpr DWORD kAllTestsMs = 900'000;

class TestRunner {
 public:
  TestRunner(const Kit& kit, bool short_form, const std::function<void(const Item&)>& told,
             std::vector<Item>& items)
      : kit_(kit), short_form_(short_form), told_(told), items_(items) {}

  void Run(const TestProgram& program) {
    program_ = &program;
    group_ = program.kind == TestKind::kUnit ? kUnitTests : kIntegrationTests;
    try {
      if (program.kind == TestKind::kUnit) {
        RunTogether();
      } else {
        RunEach();
      }
    } catch (const Interrupted&) {
      Add({}, Outcome::kNotRun, "interrupted", 0);
    } catch (const StepFailure& failure) {
      Add({}, Outcome::kFailed, failure.what(), 0);
    }
  }

 private:
  // `name` empty: the program as a whole.
  void Add(const std::string& name, Outcome outcome, const std::string& detail, double seconds) {
    std::string full(program_->path);
    if (!name.empty()) full += ": " + name;
    items_.push_back({group_, full, outcome, detail, seconds});
    told_(items_.back());
  }

  ProgramRun RunProgram(std::wstring_view arguments, const std::filesystem::path& folder,
                        DWORD limit_ms) const {
    std::wstring program = Quoted(kit_.bin() / program_->path) + L" ";
    return kit_.Run(program.append(arguments),
                    {.folder = folder, .input = {}, .limit_ms = limit_ms});
  }

  void RunTogether() {
    const ProgramRun run = RunProgram(L"", kit_.folder() / "source", kAllTestsMs);
    const std::vector<TestResult> results = ParseResults(run.output);
    bool all_passed = true;
    for (const TestResult& result : results) {
      const std::string output = OutputOf(run.output, result.name);
      if (result.skipped) {
        Add(result.name, Outcome::kNotHere, SkipReason(output).value_or(""), result.seconds);
      } else if (result.passed) {
        Add(result.name, Outcome::kPassed, {}, result.seconds);
      } else {
        all_passed = false;
        Add(result.name, Outcome::kFailed, Tail(output, kDetailBytes), result.seconds);
      }
    }
    Require(!results.empty() && (run.exit_code == 0) == all_passed,
            "ended with " + std::to_string(run.exit_code) + ":\n" + Tail(run.output, kDetailBytes));
  }

  void RunEach() {
    const ProgramRun list = RunProgram(L"--gtest_list_tests", kit_.work(), 120'000);
    const std::vector<std::string> all = ParseTestList(list.output);
    Require(list.exit_code == 0 && !all.empty(),
            "tells no tests:\n" + Tail(list.output, kDetailBytes));
    const std::vector<std::string> chosen = short_form_ ? FirstOfEachSuite(all) : all;
    for (const std::string& name : chosen) RunOne(name);
    if (chosen.size() < all.size()) {
      Add(std::to_string(all.size() - chosen.size()) + " more tests", Outcome::kLeftOut,
          "the short form runs the first test of each suite", 0);
    }
  }

  void RunOne(const std::string& name) {
    const ULONGLONG began = ::GetTickCount64();
    const ProgramRun run = RunProgram(L"--gtest_filter=" + ToWide(name), kit_.work(), 300'000);
    const double seconds = static_cast<double>(::GetTickCount64() - began) / 1000.0;
    const std::vector<TestResult> results = ParseResults(run.output);
    if (run.exit_code != 0 || results.empty()) {
      Add(name, Outcome::kFailed,
          (run.timed_out ? "ended by force after its limit\n"
                         : "ended with " + std::to_string(run.exit_code) + "\n") +
              Tail(run.output, kDetailBytes),
          seconds);
    } else if (const std::optional<std::string> reason = SkipReason(run.output)) {
      Add(name, Outcome::kNotHere, *reason, seconds);
    } else {
      Add(name, Outcome::kPassed, {}, seconds);
    }
  }

  const Kit& kit_;
  bool short_form_;
  const std::function<void(const Item&)>& told_;
  std::vector<Item>& items_;
  const TestProgram* program_ = nullptr;
  std::string group_;
};

}  // namespace

void RunTestPrograms(const Kit& kit, TestKind kind, bool short_form,
                     const std::function<void(const Item&)>& told, std::vector<Item>& items) {
  if (short_form) {
    // One random history instead of 200, and a second of stress.
    ::SetEnvironmentVariableW(L"ZEL_MODEL_SEED", L"1");
    ::SetEnvironmentVariableW(L"ZEL_STRESS_SECONDS", L"1");
  }
  TestRunner runner(kit, short_form, told, items);
  for (const TestProgram& program : TestPrograms()) {
    if (program.kind == kind) runner.Run(program);
  }
}

}  // namespace zel::prove
