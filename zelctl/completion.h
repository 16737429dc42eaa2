// Scripts that teach a shell the command line. Pure.
#pragma once

#include <string>
#include <vector>

namespace zel::ctl {

struct CommandWords {
  std::string command;
  std::vector<std::string> options;  // with their dashes
  std::vector<std::string> values;   // what may follow: shells, topics; empty for paths and ids
};

[[nodiscard]] std::string BashCompletion(const std::vector<CommandWords>& commands);
[[nodiscard]] std::string PowerShellCompletion(const std::vector<CommandWords>& commands);

}  // namespace zel::ctl
