#include "prove/report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace zel::prove {

namespace {

constexpr std::array kOutcomes = {Outcome::kPassed, Outcome::kFailed, Outcome::kNotHere,
                                  Outcome::kLeftOut, Outcome::kNotRun};

std::vector<std::string> GroupsOf(const Report& report) {
  std::vector<std::string> groups;
  for (const Item& item : report.items) {
    if (std::ranges::find(groups, item.group) == groups.end()) groups.push_back(item.group);
  }
  return groups;
}

std::string Padded(std::string_view text, std::size_t width) {
  std::string padded(text);
  padded.resize(std::max(width, text.size()), ' ');
  return padded;
}

std::string Indented(std::string_view text) {
  std::string lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    if (line.ends_with('\r')) line.remove_suffix(1);
    lines += "    " + std::string(line) + "\n";
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::string GroupLine(const Report& report, const std::string& group) {
  double seconds = 0;
  Report of_group;
  for (const Item& item : report.items) {
    if (item.group != group) continue;
    of_group.items.push_back(item);
    seconds += item.seconds;
  }
  char time[32];
  std::snprintf(time, sizeof time, "%8.1f s  ", seconds);
  return Padded(group, 24) + time + OneLine(of_group) + "\n";
}

std::string ItemsWith(const Report& report, Outcome outcome) {
  std::string lines;
  for (const Item& item : report.items) {
    if (item.outcome != outcome) continue;
    lines += std::string(OutcomeWord(outcome)) + ": " + item.group + ": " + item.name + "\n" +
             Indented(item.detail);
  }
  return lines;
}

}  // namespace

std::string_view OutcomeWord(Outcome outcome) {
  switch (outcome) {
    case Outcome::kPassed:
      return "passed";
    case Outcome::kFailed:
      return "FAILED";
    case Outcome::kNotHere:
      return "not here";
    case Outcome::kLeftOut:
      return "left out";
    case Outcome::kNotRun:
      break;
  }
  return "not run";
}

std::size_t CountOf(const Report& report, Outcome outcome) {
  return static_cast<std::size_t>(std::ranges::count(report.items, outcome, &Item::outcome));
}

bool Succeeded(const Report& report) {
  return CountOf(report, Outcome::kPassed) > 0 && CountOf(report, Outcome::kFailed) == 0 &&
         CountOf(report, Outcome::kNotRun) == 0 && !report.interrupted &&
         report.left_behind.empty();
}

std::string OneLine(const Report& report) {
  std::string line;
  for (const Outcome outcome : kOutcomes) {
    if (!line.empty()) line += ", ";
    std::string word(OutcomeWord(outcome));
    if (outcome == Outcome::kFailed) word = "failed";
    line += std::to_string(CountOf(report, outcome)) + " " + word;
  }
  return line;
}

std::string TextOf(const Report& report) {
  std::string text;
  for (const Fact& fact : report.facts) text += Padded(fact.name, 24) + fact.value + "\n";
  text += "\n";
  for (const std::string& group : GroupsOf(report)) text += GroupLine(report, group);
  text += "\n";
  for (const Outcome outcome :
       {Outcome::kFailed, Outcome::kNotRun, Outcome::kNotHere, Outcome::kLeftOut}) {
    text += ItemsWith(report, outcome);
  }
  if (!report.left_behind.empty()) text += "LEFT BEHIND:\n" + Indented(report.left_behind);
  if (report.interrupted) text += "The run was interrupted.\n";
  return text + OneLine(report) + "\n";
}

std::string JsonOf(const Report& report) {
  using Json = nlohmann::ordered_json;
  Json counts;
  for (const Outcome outcome : kOutcomes) counts[OutcomeWord(outcome)] = CountOf(report, outcome);
  Json facts = Json::object();
  for (const Fact& fact : report.facts) facts[fact.name] = fact.value;
  Json items = Json::array();
  for (const Item& item : report.items) {
    items.push_back(Json{{"group", item.group},
                         {"name", item.name},
                         {"outcome", OutcomeWord(item.outcome)},
                         {"detail", item.detail},
                         {"seconds", item.seconds}});
  }
  const Json all = {{"succeeded", Succeeded(report)},
                    {"interrupted", report.interrupted},
                    {"left_behind", report.left_behind},
                    {"facts", facts},
                    {"counts", counts},
                    {"items", items}};
  return all.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace zel::prove
