#include "zelctl/failure.h"

namespace zel::ctl {

std::string_view ReasonWord(Reason reason) {
  switch (reason) {
    case Reason::kNone:
      break;
    case Reason::kUnreliable:
      return "unreliable";
    case Reason::kInUse:
      return "in_use";
    case Reason::kHalfWay:
      return "half_way";
    case Reason::kTooLate:
      return "too_late";
    case Reason::kIdentity:
      return "identity";
    case Reason::kNotACopy:
      return "not_a_copy";
    case Reason::kDiffers:
      return "differs";
    case Reason::kDamaged:
      return "damaged";
    case Reason::kBusy:
      return "busy";
    case Reason::kExists:
      return "exists";
  }
  return "";
}

std::string FailureText(const Failure& failure) {
  if (failure.code == 0) return failure.message;
  // A code that has no name, and one that is written in hexadecimal, is its own name.
  const std::string number = std::to_string(failure.code);
  const bool has_name = failure.name != number && !failure.name.starts_with("0x");
  return failure.name + (has_name ? " (" + number + ")" : "") + ": " + failure.message;
}

}  // namespace zel::ctl
