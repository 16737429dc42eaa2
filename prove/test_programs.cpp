#include "prove/test_programs.h"

#include <algorithm>
#include <charconv>

namespace zel::prove {

namespace {

constexpr TestProgram kPrograms[] = {
    {"unit_tests.exe", TestKind::kUnit},
    {"zelctl_unit_tests.exe", TestKind::kUnit},
    {"prove_unit_tests.exe", TestKind::kUnit},
    {"integration_tests.exe", TestKind::kIntegration},
    {"service_tests.exe", TestKind::kIntegration},
    {"install_directory_tests.exe", TestKind::kIntegration},
    {"service_manager_tests.exe", TestKind::kIntegration},
    {"bitmap_tests.exe", TestKind::kIntegration},
    {"tracking_tests.exe", TestKind::kIntegration},
    {"driver_tests.exe", TestKind::kIntegration},
    {"zelctl_tests.exe", TestKind::kIntegration},
    {"simulator\\simulator_tests.exe", TestKind::kIntegration},
    {"simulator\\change_model_tests.exe", TestKind::kIntegration},
    {"simulator\\rpc_tests.exe", TestKind::kIntegration},
};

constexpr std::string_view kRun = "[ RUN      ] ";
constexpr std::string_view kOk = "[       OK ] ";
constexpr std::string_view kFailed = "[  FAILED  ] ";
constexpr std::string_view kSkipped = "[  SKIPPED ] ";

// Cuts the next line off, its end too.
std::string_view TakeLine(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

std::string_view FirstWord(std::string_view text) {
  return text.substr(0, text.find_first_of(" ,"));
}

// "... (12 ms)" in seconds; 0 without one.
double SecondsOf(std::string_view line) {
  const std::size_t open = line.rfind('(');
  unsigned milliseconds = 0;
  if (open != line.npos) {
    std::from_chars(line.data() + open + 1, line.data() + line.size(), milliseconds);
  }
  return milliseconds / 1000.0;
}

bool IsDisabled(std::string_view name) {
  return name.find("DISABLED_") != name.npos;
}

}  // namespace

std::span<const TestProgram> TestPrograms() {
  return kPrograms;
}

std::vector<std::string> ParseTestList(std::string_view output) {
  std::vector<std::string> names;
  std::string suite;
  while (!output.empty()) {
    const std::string_view line = TakeLine(output);
    if (line.starts_with("  ")) {
      std::string name = suite + std::string(FirstWord(line.substr(2)));
      if (!suite.empty() && !IsDisabled(name)) names.push_back(std::move(name));
    } else {
      // What the program's main says comes in front of the suites, and is no name with a dot at its
      // end.
      const std::string_view word = FirstWord(line);
      suite = word.ends_with('.') ? std::string(word) : std::string();
    }
  }
  return names;
}

std::vector<std::string> FirstOfEachSuite(std::span<const std::string> names) {
  std::vector<std::string> first;
  std::string_view last_suite;
  for (const std::string& name : names) {
    const std::string_view suite = std::string_view(name).substr(0, name.find('.'));
    if (suite != last_suite) first.push_back(name);
    last_suite = suite;
  }
  return first;
}

std::optional<std::string> SkipReason(std::string_view output) {
  bool skipped = false;
  std::string reason;
  while (!output.empty()) {
    const std::string_view line = TakeLine(output);
    if (line.starts_with(kSkipped)) skipped = true;
    // A line with the place, then the words; the framework's own lines follow.
    if (line.ends_with(": Skipped")) reason = TakeLine(output);
  }
  if (!skipped) return std::nullopt;
  return reason.empty() ? "the test says that it is not for this system" : reason;
}

std::vector<TestResult> ParseResults(std::string_view output) {
  std::vector<TestResult> results;
  while (!output.empty()) {
    const std::string_view line = TakeLine(output);
    if (line.starts_with(kRun)) {
      results.push_back({std::string(line.substr(kRun.size())), false, false, 0});
    } else if (!results.empty() && line.substr(0, kOk.size()) == kOk) {
      results.back().passed = true;
      results.back().seconds = SecondsOf(line);
    } else if (!results.empty() && line.starts_with(kSkipped) && line.ends_with(" ms)")) {
      results.back().skipped = true;
      results.back().seconds = SecondsOf(line);
    } else if (!results.empty() && line.starts_with(kFailed) && line.ends_with(" ms)")) {
      results.back().seconds = SecondsOf(line);
    } else if (line.starts_with("[----------] Global test environment tear-down")) {
      break;  // a summary follows, which names tests once more
    }
  }
  return results;
}

std::string OutputOf(std::string_view output, std::string_view name) {
  const std::string begin = std::string(kRun) + std::string(name);
  std::string lines;
  bool inside = false;
  while (!output.empty()) {
    const std::string_view line = TakeLine(output);
    if (line.starts_with(kRun)) inside = line == begin;
    if (inside) lines += std::string(line) + "\n";
    if (inside && (line.starts_with(kFailed) || line.starts_with(kSkipped))) break;
  }
  return lines;
}

std::string Tail(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return std::string(text);
  const std::string_view last = text.substr(text.size() - limit);
  const std::size_t line = last.find('\n');
  return "...\n" + std::string(line == last.npos ? last : last.substr(line + 1));
}

}  // namespace zel::prove
