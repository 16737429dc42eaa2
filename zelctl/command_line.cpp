#include "zelctl/command_line.h"

#include <algorithm>
#include <utility>

#include "zelctl/completion.h"
#include "zelctl/completion_words.h"
#include "zelctl/grammar.h"
#include "zelctl/help_text.h"
#include "zelctl/manual.h"
#include "zelctl/nearest_word.h"

namespace zel::ctl {

namespace {

constexpr std::uint32_t kProbeTimeoutS = 30;

std::vector<std::string> CommandNames() {
  std::vector<std::string> names;
  for (const ManualPage& page : CommandPages()) names.emplace_back(page.name);
  return names;
}

std::vector<std::string> OptionNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

Failure UsageFailure(std::string message) {
  while (!message.empty() && (message.back() == '\n' || message.back() == '.')) message.pop_back();
  return {.exit_code = ExitCode::kUsage, .code = 0, .name = {}, .message = std::move(message)};
}

std::string MaybeMeant(const std::string& word, const std::vector<std::string>& known) {
  const std::string nearest = NearestWord(word, known);
  return nearest.empty() ? "" : " (did you mean " + nearest + "?)";
}

bool IsOption(const std::string& word) {
  return word.starts_with("-");
}

// The command that was read, under the name that it has now; null before one was.
const CLI::App* ReadCommand(const CLI::App& app) {
  const auto commands = app.get_subcommands();
  return commands.empty() ? nullptr : commands.front();
}

// What is there and means nothing, with what may have been meant.
Failure UnexpectedWord(const CLI::App& app, const CLI::ExtrasError& error) {
  const CLI::App* const command = ReadCommand(app);
  const CLI::App& read = command != nullptr ? *command : app;
  const std::vector<std::string> words = read.remaining();
  const auto word = std::ranges::find_if_not(words, IsOption);
  if (command == nullptr && word != words.end()) {
    return UsageFailure("There is no command '" + *word + "'" + MaybeMeant(*word, CommandNames()));
  }
  const auto option = std::ranges::find_if(words, IsOption);
  if (option == words.end()) return UsageFailure(error.what());
  return UsageFailure("There is no option '" + *option + "'" +
                      MaybeMeant(*option, OptionNames(read)));
}

// Names the page that helps.
MaybeFailure PointToHelp(const CLI::App& app, MaybeFailure failure) {
  if (!failure) return failure;
  const CLI::App* const command = ReadCommand(app);
  const std::string name = command == nullptr ? "" : std::string(NameNow(command->get_name()));
  failure->message += "; see zelctl help" + (name.empty() || name == "help" ? "" : " " + name);
  return failure;
}

MaybeFailure CompleteApply(const Request& request) {
  if (request.command != Command::kApply) return std::nullopt;
  if (!request.has_bitmap && !request.full) {
    return UsageFailure("--bitmap is required, or --full for a copy of everything");
  }
  if (request.force_identity == request.snapshot_time.empty()) {
    return UsageFailure("--force-identity and --snapshot-time need each other");
  }
  if (request.force_identity && !request.has_bitmap) {
    return UsageFailure("--bitmap is required: it tells whose snapshot it is");
  }
  if (request.full && !request.as_of.empty()) {
    return UsageFailure("--as-of is of no use for a copy of everything");
  }
  return std::nullopt;
}

// What the parts of a request mean together.
MaybeFailure Complete(CLI::App& app, Request& request) {
  if (request.protseq.empty())
    request.protseq = request.server.empty() ? "ncalrpc" : "ncacn_ip_tcp";
  if (!request.authentication) {
    request.authentication =
        request.server.empty() ? Authentication::kNone : Authentication::kNtlmOrNone;
  }
  if (request.command == Command::kVersion) return std::nullopt;
  if (app.get_subcommands().empty()) return UsageFailure("A command is missing");
  const bool is_probe = request.command == Command::kPing || request.command == Command::kStatus;
  if (!request.timeout_s) request.timeout_s = is_probe ? kProbeTimeoutS : 0;
  const bool has_files = request.command == Command::kApply ||
                         request.command == Command::kBackup || request.command == Command::kVerify;
  if (has_files && (request.to.empty() || request.from.empty())) {
    return UsageFailure("--from and --to each need the path of a file");
  }
  if (auto failure = CompleteApply(request)) return failure;
  if (request.command == Command::kCompletion) {
    const auto script = request.text == "bash" ? BashCompletion : PowerShellCompletion;
    request.text = script(WordsOf(app));
  } else if (request.command == Command::kHelp) {
    const std::optional<std::string> text = HelpText(request.text);
    if (!text) {
      return UsageFailure("There is no help on '" + request.text + "'" +
                          MaybeMeant(request.text, HelpTopics()));
    }
    request.text = *text;
  }
  return std::nullopt;
}

void AskForHelp(const CLI::App& app, Request& request) {
  const CLI::App* const command = ReadCommand(app);
  request.command = Command::kHelp;
  request.text =
      HelpText(command == nullptr ? "" : std::string(NameNow(command->get_name()))).value_or("");
}

// From the back, as the library takes them. "/?" is how Windows' own programs are asked for help,
// and no path: it stays what it is where paths are told from options.
std::vector<std::string> ForLibrary(const std::vector<std::string>& arguments) {
  std::vector<std::string> words = arguments;
  const auto paths = std::ranges::find(words, "--");
  std::replace(words.begin(), paths, std::string("/?"), std::string("--help"));
  std::ranges::reverse(words);
  return words;
}

}  // namespace

MaybeFailure ParseCommandLine(const std::vector<std::string>& arguments, Request& request) {
  request = {};
  Grammar grammar(request);
  try {
    grammar.app().parse(ForLibrary(arguments));
    return PointToHelp(grammar.app(), Complete(grammar.app(), request));
  } catch (const CLI::CallForHelp&) {
    AskForHelp(grammar.app(), request);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    request.json = std::ranges::find(arguments, "--json") != arguments.end();
    const auto* const extras = dynamic_cast<const CLI::ExtrasError*>(&error);
    return PointToHelp(grammar.app(), extras != nullptr ? UnexpectedWord(grammar.app(), *extras)
                                                        : UsageFailure(error.what()));
  }
}

}  // namespace zel::ctl
