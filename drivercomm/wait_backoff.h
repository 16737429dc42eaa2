// How long to wait between two looks: 50 ms at first, twice as long every time, at most 5 s. Pure.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

namespace zel {

class WaitBackoff {
 public:
  // Milliseconds of the next wait.
  [[nodiscard]] std::uint32_t Next() {
    return std::exchange(next_ms_, std::min(2 * next_ms_, kLongestMs));
  }

 private:
  static constexpr std::uint32_t kLongestMs = 5000;
  std::uint32_t next_ms_ = 50;
};

}  // namespace zel
