// Progress where somebody looks at it: a line that is drawn over and over on a terminal, and lines
// one below the other where they are asked for; and that something is waited for. Pure.
#pragma once

#include <string_view>

#include "zelctl/block_copy.h"
#include "zelctl/commands.h"
#include "zelctl/progress.h"

namespace zel::ctl {

class ProgressLine {
 public:
  ProgressLine(Surroundings& with, const Request& request, std::string_view what,
               std::uint64_t total_bytes);
  // Clears a line that was drawn.
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // Lifetime: borrows this object.
  [[nodiscard]] ByteCounter counter();

 private:
  Surroundings& with_;
  const bool draws_;
  const bool notes_;
  Progress progress_;
};

// Tells a terminal, for as long as it lives, what is waited for.
class WaitingLine {
 public:
  WaitingLine(Surroundings& with, std::string_view what);
  ~WaitingLine();
  WaitingLine(const WaitingLine&) = delete;
  WaitingLine& operator=(const WaitingLine&) = delete;

 private:
  Surroundings& with_;
};

}  // namespace zel::ctl
