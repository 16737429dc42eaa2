#include "simulator/orders.h"

#include <algorithm>
#include <iterator>

#include "simulator/text.h"

namespace zel::sim {

namespace {

// One letter an argument; those behind '?' may be missing.
//   V volume   F file id   O offset or size   L length   P process id   T time
//   N number   C burst     R result           B bytes
//   D kind of damage       S what is refused
struct Grammar {
  std::string_view word;
  Verb verb;
  std::string_view arguments;
};

constexpr Grammar kGrammar[] = {
    {"write", Verb::kWrite, "VFOL?PT"},
    {"burst", Verb::kBurst, "VFOLC?P"},
    {"size", Verb::kSize, "VFO?PT"},
    {"open", Verb::kOpen, "VF?PT"},
    {"close", Verb::kClose, "VF?PT"},
    {"rename", Verb::kRename, "VF?PT"},
    {"verify", Verb::kVerify, "VF?PT"},
    {"unreported", Verb::kUnreported, "VF"},
    {"read", Verb::kRead, "VFOL"},
    {"raw", Verb::kRaw, "B"},
    {"connect", Verb::kConnect, ""},
    {"send", Verb::kSend, "BN"},
    {"forget", Verb::kForget, ""},
    {"redeliver", Verb::kRedeliver, ""},
    {"hold", Verb::kHold, ""},
    {"release", Verb::kRelease, ""},
    {"delay", Verb::kDelay, "N"},
    {"drop", Verb::kDrop, "?N"},
    {"duplicate", Verb::kDuplicate, "?N"},
    {"reorder", Verb::kReorder, ""},
    {"corrupt", Verb::kCorrupt, "D?N"},
    {"refuse", Verb::kRefuse, "S?R"},
    {"accept", Verb::kAccept, "S"},
    {"limit", Verb::kLimit, "N"},
    {"reads", Verb::kReads, "VF"},
    {"counters", Verb::kCounters, ""},
    {"stop", Verb::kStop, ""},
};

// Cuts the first word off `rest`; empty when there is none.
std::string_view TakeWord(std::string_view& rest) {
  constexpr std::string_view kBlanks = " \t\r\n";
  rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));
  const std::string_view word = rest.substr(0, rest.find_first_of(kBlanks));
  rest.remove_prefix(word.size());
  return word;
}

bool IsOneOf(std::string_view word, std::initializer_list<std::string_view> words) {
  return std::ranges::find(words, word) != words.end();
}

bool TakeChoice(std::string_view word, std::initializer_list<std::string_view> words,
                std::string& choice) {
  choice = word;
  return IsOneOf(word, words);
}

bool ReadArgument(char kind, std::string_view word, Order& order) {
  switch (kind) {
    case 'V':
      return ParseVolume(word, order.file.volume);
    case 'F':
      return ParseNumber(word, order.file.file_id);
    case 'O':
      return ParseNumber(word, order.offset);
    case 'L':
      return ParseNumber(word, order.length);
    case 'P':
      return ParseNumber(word, order.process_id);
    case 'T':
      return ParseNumber(word, order.time.emplace());
    case 'N':
      return ParseNumber(word, order.number);
    case 'C':
      return ParseNumber(word, order.number) && order.number <= kMaxBurst;
    case 'R':
      return ParseNumber(word, order.result);
    case 'B':
      return ParseBytes(word, order.bytes);
    case 'D':
      return TakeChoice(word, {"magic", "type", "short"}, order.what);
    case 'S':
      return TakeChoice(word, {"connects", "sends"}, order.what);
    default:
      return false;
  }
}

bool ReadArguments(std::string_view kinds, std::string_view rest, Order& order,
                   std::string& fault) {
  bool optional = false;
  for (const char kind : kinds) {
    if (kind == '?') {
      optional = true;
      continue;
    }
    const std::string_view word = TakeWord(rest);
    if (word.empty()) {
      if (!optional) fault = "an argument is missing";
      return optional;
    }
    if (!ReadArgument(kind, word, order)) {
      fault = "cannot read " + std::string(word);
      return false;
    }
  }
  if (TakeWord(rest).empty()) return true;
  fault = "too many arguments";
  return false;
}

}  // namespace

bool ParseOrder(std::string_view line, Order& order, std::string& fault) {
  order = {};
  const std::string_view word = TakeWord(line);
  const auto* const grammar = std::ranges::find(kGrammar, word, &Grammar::word);
  if (grammar == std::end(kGrammar)) {
    fault = "no such order";
    return false;
  }
  order.verb = grammar->verb;
  return ReadArguments(grammar->arguments, line, order, fault);
}

}  // namespace zel::sim
