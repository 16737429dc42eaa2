// The test programs of the kit: which there are, and how what they print is read. Pure.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zel::prove {

enum class TestKind {
  kUnit,         // pure: all tests in one process, in the folder with the documents they check
  kIntegration,  // against the system: each test in a process of its own
};

struct TestProgram {
  std::string_view path;  // below the kit's bin
  TestKind kind;
};

[[nodiscard]] std::span<const TestProgram> TestPrograms();

// The full names in what --gtest_list_tests prints; disabled tests are left out.
[[nodiscard]] std::vector<std::string> ParseTestList(std::string_view output);

// The first test of each suite, in their order.
[[nodiscard]] std::vector<std::string> FirstOfEachSuite(std::span<const std::string> names);

// What one test gave as its reason for being skipped; nothing when it was not.
[[nodiscard]] std::optional<std::string> SkipReason(std::string_view output);

struct TestResult {
  std::string name;
  bool passed = false;
  bool skipped = false;
  double seconds = 0;

  friend bool operator==(const TestResult&, const TestResult&) = default;
};

// What a program that ran several tests printed of each. A test that began and did not end is there
// as one that failed.
[[nodiscard]] std::vector<TestResult> ParseResults(std::string_view output);

// What `output` has of one test, from its beginning to its end.
[[nodiscard]] std::string OutputOf(std::string_view output, std::string_view name);

// The last lines of `text`, no more than `limit` bytes of them.
[[nodiscard]] std::string Tail(std::string_view text, std::size_t limit);

}  // namespace zel::prove
