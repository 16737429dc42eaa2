#include "zelctl/progress_line.h"

namespace zel::ctl {

namespace {

constexpr std::uint64_t kDrawnEveryMs = 100;
constexpr std::uint64_t kNotedEveryMs = 10'000;

}  // namespace

ProgressLine::ProgressLine(Surroundings& with, const Request& request, std::string_view what,
                           std::uint64_t total_bytes)
    : with_(with),
      draws_(with.terminal.notes_to_person()),
      notes_(!draws_ && request.progress),
      progress_(what, total_bytes, with.machine.Milliseconds(),
                draws_ ? kDrawnEveryMs : kNotedEveryMs) {}

ProgressLine::~ProgressLine() {
  if (draws_) with_.terminal.DrawProgress({});
}

ByteCounter ProgressLine::counter() {
  return [this](std::uint64_t done) {
    if (!draws_ && !notes_) return;
    const auto line = progress_.LineAt(done, with_.machine.Milliseconds());
    if (!line) return;
    if (draws_) {
      with_.terminal.DrawProgress(*line);
    } else {
      with_.terminal.Note("zelctl: " + *line);
    }
  };
}

WaitingLine::WaitingLine(Surroundings& with, std::string_view what) : with_(with) {
  if (with_.terminal.notes_to_person()) with_.terminal.DrawProgress(what);
}

WaitingLine::~WaitingLine() {
  if (with_.terminal.notes_to_person()) with_.terminal.DrawProgress({});
}

}  // namespace zel::ctl
