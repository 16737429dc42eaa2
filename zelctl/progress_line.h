// Progress where somebody looks at it: a line that is drawn over and over on a terminal, and lines
// one below the other where they are asked for. Pure.
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

}  // namespace zel::ctl
