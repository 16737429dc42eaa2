// How long to wait between two looks: twice as long every time, at most 5 s. Pure.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

namespace zel {

class WaitBackoff {
 public:
  explicit WaitBackoff(std::uint32_t first_ms) : next_ms_(first_ms) {}

  // Milliseconds of the next wait.
  [[nodiscard]] std::uint32_t Next() {
    return std::exchange(next_ms_, std::min(2 * next_ms_, kLongestMs));
  }

 private:
  static constexpr std::uint32_t kLongestMs = 5000;
  std::uint32_t next_ms_;
};

}  // namespace zel
