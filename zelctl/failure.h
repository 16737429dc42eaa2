// How a command ends, and why it could not do its work. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zel::ctl {

enum class ExitCode {
  kDone = 0,
  kRefused = 1,    // the service, the system or a check of this program said no
  kUsage = 2,      // the command line means nothing
  kNoService = 3,  // no answer from the service
};

struct Failure {
  ExitCode exit_code = ExitCode::kRefused;
  std::uint32_t code = 0;    // of the service or the system; 0 for a check of this program
  std::string name = {};     // of the code; empty without one
  std::string message = {};  // a sentence without the code and without a full stop
};

// What can fail answers this; none means that it was done.
using MaybeFailure = std::optional<Failure>;

// A check of this program that says no.
[[nodiscard]] inline Failure Refuse(std::string message) {
  return {.message = std::move(message)};
}

// "ERROR_MEDIA_CHANGED (1110): the sentence", or the sentence alone where there is no code.
[[nodiscard]] std::string FailureText(const Failure& failure);

}  // namespace zel::ctl
