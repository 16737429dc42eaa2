#include "prove/options.h"

#include <algorithm>

namespace zel::prove {

bool Options::Wants(std::string_view group) const {
  return only.empty() || std::ranges::find(only, group) != only.end();
}

std::optional<Options> ParseOptions(std::span<const std::string> words) {
  Options options;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == "--help" || word == "/?") {
      options.help = true;
    } else if (word == "--short") {
      options.short_form = true;
    } else if (word == "--clean") {
      options.clean_only = true;
    } else if (word == "--only" && i + 1 < words.size() &&
               std::ranges::find(kGroups, words[i + 1]) != std::end(kGroups)) {
      options.only.push_back(words[++i]);
    } else {
      return std::nullopt;
    }
  }
  return options;
}

std::string_view HelpText() {
  return "prove - shows on this machine what ZelService does, with a simulated driver\n"
         "\n"
         "Usage: prove [--short] [--only GROUP]... | --clean | --help\n"
         "\n"
         "  --short        the first integration test of each suite, no demonstration\n"
         "  --only GROUP   unit, integration, end-to-end or demonstration\n"
         "  --clean        removes what a run that was killed has left, and runs nothing\n"
         "\n"
         "Run it as an administrator in the folder of the unpacked kit, which is on a local\n"
         "drive. It installs the services ZelService and VelmoraActivityMonitor and removes\n"
         "them again, and refuses where either is installed already. Ctrl+C ends it in order.\n"
         "The report is in prove-report.txt and prove-report.json beside it.\n"
         "\n"
         "Ends with 0 when all that this system can show was shown, 1 when something failed,\n"
         "was not run or was left behind, 2 for wrong usage, 3 when it refuses to run, and 4\n"
         "when it was interrupted.\n";
}

}  // namespace zel::prove
