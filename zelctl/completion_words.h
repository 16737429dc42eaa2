// What the grammar of the command line offers to completion. Pure.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "zelctl/completion.h"

namespace zel::ctl {

// The words that are taken where a shell, --protseq and --auth are told.
[[nodiscard]] const std::vector<std::string>& Shells();
[[nodiscard]] const std::vector<std::string>& ProtocolSequences();
[[nodiscard]] const std::vector<std::string>& Authentications();

// The group of commands that go on working and are not shown.
inline constexpr char kUnlisted[] = "";

[[nodiscard]] CommandLineWords WordsOf(CLI::App& app);

}  // namespace zel::ctl
