// How a command ends, and why it could not do its work. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zel::ctl {

enum class ExitCode {
  kDone = 0,
  kRefused = 1,    // the service, the system or a check of this program said no
  kUsage = 2,      // the command line means nothing
  kNoService = 3,  // no answer from the service
  kNeedsFull = 4,  // a full copy is needed
};

// What a script can tell refusals apart by.
enum class Reason {
  kNone,
  kUnreliable,  // the bitmap may lack changes
  kInUse,       // the bitmap file was not closed
  kHalfWay,     // another run has to be completed first
  kTooLate,     // the bitmap began after the copy's time, or the times do not fit otherwise
  kIdentity,    // these are not the files that belong together
  kNotACopy,    // nothing is known of the copy
  kDiffers,     // the comparison found a difference
  kDamaged,     // the bitmap's bytes are no bitmap
  kBusy,        // another run or another program has the copy
  kExists,      // something else would be overwritten
};
// "unreliable", "in_use", "half_way", ...; nothing for kNone.
[[nodiscard]] std::string_view ReasonWord(Reason reason);

struct Failure {
  ExitCode exit_code = ExitCode::kRefused;
  std::uint32_t code = 0;    // of the service or the system; 0 for a check of this program
  std::string name = {};     // of the code; empty without one
  std::string message = {};  // a sentence without the code and without a full stop
  Reason reason = Reason::kNone;
};

// What can fail answers this; none means that it was done.
using MaybeFailure = std::optional<Failure>;

// A check of this program that says no.
[[nodiscard]] inline Failure Refuse(Reason reason, std::string message) {
  return {.message = std::move(message), .reason = reason};
}

// The same, where a full copy is what helps.
[[nodiscard]] inline Failure NeedFull(Reason reason, std::string message) {
  return {.exit_code = ExitCode::kNeedsFull, .message = std::move(message), .reason = reason};
}

// "ERROR_MEDIA_CHANGED (1110): the sentence", or the sentence alone where there is no code.
[[nodiscard]] std::string FailureText(const Failure& failure);

}  // namespace zel::ctl
