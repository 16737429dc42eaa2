// Scripts that teach a shell the command line. Pure.
#pragma once

#include <string>
#include <vector>

namespace zel::ctl {

// What can be offered in one place of a command line.
enum class Offer {
  kNothing,  // a text that nobody else knows
  kFiles,
  kIds,      // of bitmaps, as the service on this machine lists them
  kBitmaps,  // ids or files
  kWords,
};

struct OfferedValue {
  Offer offer = Offer::kNothing;
  std::vector<std::string> words = {};  // for kWords
};

struct OptionWords {
  std::string name;  // with its dashes
  bool takes_value = false;
  OfferedValue value = {};  // if it does
};

struct CommandWords {
  std::string command;
  std::vector<OptionWords> options;  // its own and those of every command
  bool takes_words = false;          // besides options
  OfferedValue value = {};           // if it does
};

struct CommandLineWords {
  std::vector<OptionWords> options;  // of every command
  std::vector<CommandWords> commands;
};

[[nodiscard]] std::string BashCompletion(const CommandLineWords& words);
[[nodiscard]] std::string PowerShellCompletion(const CommandLineWords& words);

}  // namespace zel::ctl
