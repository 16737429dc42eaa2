// How far a long piece of work has come, in a line that is drawn over and over. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zel::ctl {

class Progress {
 public:
  // `what` stands before the numbers: "copying". Times are any clock's milliseconds.
  Progress(std::string_view what, std::uint64_t total_bytes, std::uint64_t now_ms,
           std::uint64_t interval_ms)
      : what_(what), total_bytes_(total_bytes), begin_ms_(now_ms), interval_ms_(interval_ms) {}

  // The line, when the interval has gone by since the last one or all is done; otherwise none.
  // "copying  45.2 %  115.7 MiB of 256.0 MiB  180.3 MiB/s  0:00:01 left"
  [[nodiscard]] std::optional<std::string> LineAt(std::uint64_t done_bytes, std::uint64_t now_ms);

 private:
  std::string what_;
  std::uint64_t total_bytes_;
  std::uint64_t begin_ms_;
  std::uint64_t interval_ms_;
  std::optional<std::uint64_t> drawn_ms_;
};

}  // namespace zel::ctl
