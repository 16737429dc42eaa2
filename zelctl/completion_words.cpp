#include "zelctl/completion_words.h"

#include <utility>

#include "zelctl/help_text.h"

namespace zel::ctl {

namespace {

// What the names of values stand for, as the help writes them.
OfferedValue OfferFor(const std::string& name) {
  for (const char* file : {"PATH", "SOURCE", "COPY", "FILE"}) {
    if (name == file) return {.offer = Offer::kFiles};
  }
  if (name == "ID") return {.offer = Offer::kIds};
  if (name == "BITMAP") return {.offer = Offer::kBitmaps};
  if (name == "--protseq") return {.offer = Offer::kWords, .words = ProtocolSequences()};
  if (name == "--auth") return {.offer = Offer::kWords, .words = Authentications()};
  if (name == "SHELL") return {.offer = Offer::kWords, .words = Shells()};
  if (name == "TOPIC") return {.offer = Offer::kWords, .words = HelpTopics()};
  return {};
}

void AddOptionWords(const CLI::Option& option, std::vector<OptionWords>& words) {
  const bool takes_value = option.get_expected_max() > 0;
  std::vector<std::string> names;
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  for (const std::string& name : option.get_snames()) {
    if (takes_value) names.push_back("-" + name);
  }
  for (const std::string& name : names) {
    const OfferedValue by_name = OfferFor(name);
    words.push_back(
        {.name = name,
         .takes_value = takes_value,
         .value = by_name.offer == Offer::kWords ? by_name : OfferFor(option.get_type_name())});
  }
}

std::vector<OptionWords> OptionWordsOf(const CLI::App& app) {
  std::vector<OptionWords> words;
  for (const CLI::Option* option : app.get_options()) {
    if (!option->get_positional()) AddOptionWords(*option, words);
  }
  return words;
}

}  // namespace

const std::vector<std::string>& Shells() {
  static const std::vector<std::string> words = {"powershell", "bash"};
  return words;
}

const std::vector<std::string>& ProtocolSequences() {
  static const std::vector<std::string> words = {"ncalrpc", "ncacn_ip_tcp", "ncacn_np",
                                                 "ncacn_http"};
  return words;
}

const std::vector<std::string>& Authentications() {
  static const std::vector<std::string> words = {"ntlm", "none"};
  return words;
}

CommandLineWords WordsOf(CLI::App& app) {
  CommandLineWords words = {.options = OptionWordsOf(app), .commands = {}};
  for (const CLI::App* command : app.get_subcommands(nullptr)) {
    if (command->get_group() == kUnlisted) continue;
    CommandWords own = {.command = command->get_name(), .options = OptionWordsOf(*command)};
    for (const CLI::Option* option : command->get_options()) {
      if (!option->get_positional()) continue;
      own.takes_words = true;
      own.value = OfferFor(option->get_name(true));
    }
    words.commands.push_back(std::move(own));
  }
  return words;
}

}  // namespace zel::ctl
