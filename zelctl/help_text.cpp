#include "zelctl/help_text.h"

#include <algorithm>
#include <span>

#include "zelctl/grammar.h"
#include "zelctl/manual.h"

namespace zel::ctl {

namespace {

// A command's help names those of every command in one line.
bool IsListed(const CLI::App& app, const CLI::Option& option) {
  return app.get_parent() == nullptr || option.get_group() != kCommonGroup;
}

std::string OptionLines(const CLI::App& app) {
  constexpr std::size_t kColumn = 24;
  std::string lines;
  for (const CLI::Option* option : app.get_options()) {
    if (!IsListed(app, *option)) continue;
    std::string left = "  " + option->get_name(true, true);
    if (!option->get_positional() && option->get_expected_max() > 0 &&
        !option->get_type_name().empty()) {
      left += " " + option->get_type_name();
    }
    if (left.size() + 2 > kColumn)
      left += "\n" + std::string(kColumn, ' ');
    else
      left.resize(kColumn, ' ');
    lines += left + option->get_description() + "\n";
  }
  return lines;
}

std::string UsageLine(const CLI::App& app, std::string_view name) {
  std::string usage = std::string(kProgram) + " " + std::string(name);
  std::string positionals;
  bool has_options = false;
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_positional()) {
      const std::string word =
          option->get_name(true) + (option->get_items_expected_max() > 1 ? "..." : "");
      positionals += option->get_required() ? " " + word : " [" + word + "]";
    } else if (option->get_required()) {
      usage += " " + option->get_name(false) + " " + option->get_type_name();
    } else {
      has_options = true;  // those of every command at least
    }
  }
  return usage + (has_options ? " [OPTION]..." : "") + positionals;
}

std::string CommandHelp(CLI::App& app, const ManualPage& page) {
  const CLI::App& command = *app.get_subcommand(std::string(page.name));
  return std::string(kProgram) + " " + std::string(page.name) + " - " + std::string(page.summary) +
         "\n\nUsage: " + UsageLine(command, page.name) + "\n\n" + OptionLines(command) +
         "  and the options of every command (zelctl help)\n\n" + std::string(page.text);
}

std::string PageList(std::span<const ManualPage> pages) {
  std::string lines;
  for (const ManualPage& page : pages) {
    std::string left = "  " + std::string(page.name);
    left.resize(14, ' ');
    lines.append(left).append(page.summary).append("\n");
  }
  return lines;
}

std::string ProgramHelp(const CLI::App& app) {
  return std::string(kProgram) +
         " - asks and steers the service that tracks changed blocks of files\n\n"
         "Usage: zelctl [OPTION]... COMMAND ...\n\nOptions of every command:\n" +
         OptionLines(app) + "\nCommands:\n" + PageList(CommandPages()) + "\nOther topics:\n" +
         PageList(TopicPages()) + "\nzelctl help TOPIC tells more of each.\n";
}

}  // namespace

std::optional<std::string> HelpText(const std::string& topic) {
  Request request;
  Grammar grammar(request);
  if (topic.empty()) return ProgramHelp(grammar.app());
  const auto named = [&](const ManualPage& page) { return page.name == topic; };
  if (const auto page = std::ranges::find_if(CommandPages(), named); page != CommandPages().end()) {
    return CommandHelp(grammar.app(), *page);
  }
  if (const auto page = std::ranges::find_if(TopicPages(), named); page != TopicPages().end()) {
    return std::string(kProgram) + " " + topic + " - " + std::string(page->summary) + "\n\n" +
           std::string(page->text);
  }
  return std::nullopt;
}

std::vector<std::string> HelpTopics() {
  std::vector<std::string> topics;
  for (const auto pages : {CommandPages(), TopicPages()}) {
    for (const ManualPage& page : pages) topics.emplace_back(page.name);
  }
  return topics;
}

}  // namespace zel::ctl
