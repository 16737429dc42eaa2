#include "zelctl/failure.h"

namespace zel::ctl {

std::string FailureText(const Failure& failure) {
  if (failure.code == 0) return failure.message;
  // A code that has no name, and one that is written in hexadecimal, is its own name.
  const std::string number = std::to_string(failure.code);
  const bool has_name = failure.name != number && !failure.name.starts_with("0x");
  return failure.name + (has_name ? " (" + number + ")" : "") + ": " + failure.message;
}

}  // namespace zel::ctl
