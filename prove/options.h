// The words on prove.exe's command line. Pure.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zel::prove {

// What a run consists of, in the order in which it is run.
inline constexpr std::string_view kUnitTests = "unit";
inline constexpr std::string_view kIntegrationTests = "integration";
inline constexpr std::string_view kEndToEnd = "end-to-end";
inline constexpr std::string_view kDemonstration = "demonstration";
inline constexpr std::string_view kGroups[] = {kUnitTests, kIntegrationTests, kEndToEnd,
                                               kDemonstration};

struct Options {
  bool help = false;
  bool clean_only = false;
  bool short_form = false;
  std::vector<std::string> only;  // groups; empty: all of them

  [[nodiscard]] bool Wants(std::string_view group) const;
};

// Nothing for words that mean nothing.
[[nodiscard]] std::optional<Options> ParseOptions(std::span<const std::string> words);

[[nodiscard]] std::string_view HelpText();

}  // namespace zel::prove
