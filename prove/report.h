// What a run of the proving kit found, and how it is told: as text for whoever reads it, as JSON
// for whoever collects it. Pure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zel::prove {

enum class Outcome {
  kPassed,
  kFailed,
  kNotHere,  // this system cannot show it; the detail says why
  kLeftOut,  // nobody asked for it: the short form, or another choice
  kNotRun,   // it was to be run and was not: something before it failed, or the run was interrupted
};

struct Item {
  std::string group;
  std::string name;
  Outcome outcome = Outcome::kNotRun;
  std::string detail;  // UTF-8, of any number of lines; empty where there is nothing to say
  double seconds = 0;
};

struct Fact {
  std::string name;
  std::string value;
};

struct Report {
  std::vector<Fact>
      facts;  // of the machine and of the programs, in the order in which they are told
  std::vector<Item> items;
  bool interrupted = false;
  std::string left_behind;  // what could not be cleaned up; empty when nothing of the run is left
};

// How a report spells an outcome: "passed", "FAILED", "not here", "left out", "not run".
[[nodiscard]] std::string_view OutcomeWord(Outcome outcome);

[[nodiscard]] std::size_t CountOf(const Report& report, Outcome outcome);

// Whether everything that was to be run here was run and passed, and nothing is left behind. A run
// that showed nothing at all is none.
[[nodiscard]] bool Succeeded(const Report& report);

// A line for each fact, a table of the groups, then every item that did not pass with its reason,
// and the sentence that OneLine gives. Lines end in LF.
[[nodiscard]] std::string TextOf(const Report& report);

// One object: succeeded, interrupted, left_behind, facts, counts, items (group, name, outcome,
// detail, seconds). Every item is there, those that passed too. Bytes of a detail that are no UTF-8
// become U+FFFD.
[[nodiscard]] std::string JsonOf(const Report& report);

// "12 passed, 0 failed, 3 not here, 2 left out, 0 not run".
[[nodiscard]] std::string OneLine(const Report& report);

}  // namespace zel::prove
