// A scenario as a table of named steps, run in their order. Pure.
//
// Errors: a step that fails throws StepFailure; the steps after it are not run, since each stands
// on those before it.
#pragma once

#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "prove/report.h"

namespace zel::prove {

class StepFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Somebody wants the run to end.
class Interrupted : public std::exception {};

struct Step {
  std::string name;
  std::function<void()> run;
  // Why the stand-in for Windows cannot show this; empty when it can.
  std::string not_on_wine = {};
};

struct StepSetting {
  bool on_wine;
  std::function<bool()> interrupted;      // asked before each step
  std::function<double()> seconds;        // a clock
  std::function<void(const Item&)> told;  // of each item as soon as it is known
};

// Throws StepFailure with `what` unless `holds`.
void Require(bool holds, const std::string& what);

// Adds an item to `items` for each step. Whatever a step throws is its failure, and no step throws
// on.
void RunSteps(const std::string& group, std::span<const Step> steps, const StepSetting& setting,
              std::vector<Item>& items);

}  // namespace zel::prove
