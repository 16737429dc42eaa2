// What a run has put, or is about to put, on the machine outside of its own folder, as it stands in
// the file by which the next run cleans up after one that was killed. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zel::prove {

struct State {
  // The kit's folder when it ran, UTF-8, without a backslash at its end. What is outside of it is
  // never touched: a service is the run's only when its program lies in there, and an install
  // directory only when it is in there.
  std::string folder;
  // Names of services of the service manager.
  std::vector<std::string> services;
  // Whether the agent's registry value may have been written.
  bool install_directory = false;

  friend bool operator==(const State&, const State&) = default;
};

// A line for each entry; lines end in LF.
[[nodiscard]] std::string FormatState(const State& state);

// Nothing for what FormatState does not write, a file that ends too early among it.
[[nodiscard]] std::optional<State> ParseState(std::string_view text);

// Whether the command line of a service runs a program in `folder`; case does not count for the
// letters A to Z, and the program may stand in quotes.
[[nodiscard]] bool RunsFrom(std::wstring_view command_line, std::wstring_view folder);

// Whether `path` is `folder` or lies in it, by the same rule.
[[nodiscard]] bool LiesIn(std::wstring_view path, std::wstring_view folder);

}  // namespace zel::prove
