#include "prove/steps.h"

namespace zel::prove {

namespace {

// What became of a step that was run.
void RunStep(const Step& step, Item& item) {
  try {
    step.run();
    item.outcome = Outcome::kPassed;
  } catch (const Interrupted&) {
    item.outcome = Outcome::kNotRun;
    item.detail = "interrupted";
  } catch (const std::exception& failure) {
    item.outcome = Outcome::kFailed;
    item.detail = failure.what();
  }
}

}  // namespace

void Require(bool holds, const std::string& what) {
  if (!holds) throw StepFailure(what);
}

void RunSteps(const std::string& group, std::span<const Step> steps, const StepSetting& setting,
              std::vector<Item>& items) {
  std::string stopped_by;
  for (const Step& step : steps) {
    Item item = {group, step.name, Outcome::kNotRun, {}, 0};
    if (!step.not_on_wine.empty() && setting.on_wine) {
      item.outcome = Outcome::kNotHere;
      item.detail = step.not_on_wine;
    } else if (!stopped_by.empty()) {
      item.detail = stopped_by;
    } else if (setting.interrupted()) {
      item.detail = "interrupted";
    } else {
      const double began = setting.seconds();
      RunStep(step, item);
      item.seconds = setting.seconds() - began;
      if (item.outcome != Outcome::kPassed) stopped_by = "after: " + step.name;
    }
    setting.told(item);
    items.push_back(std::move(item));
  }
}

}  // namespace zel::prove
