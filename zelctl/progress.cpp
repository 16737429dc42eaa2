#include "zelctl/progress.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "zelctl/size_text.h"

namespace zel::ctl {

namespace {

std::string FormatDuration(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::min(seconds + 0.5, 359'999.0));
  std::array<char, 32> text;
  std::snprintf(text.data(), text.size(), "%u:%02u:%02u", static_cast<unsigned>(whole / 3600),
                static_cast<unsigned>(whole / 60 % 60), static_cast<unsigned>(whole % 60));
  return text.data();
}

}  // namespace

std::optional<std::string> Progress::LineAt(std::uint64_t done_bytes, std::uint64_t now_ms) {
  const bool all = done_bytes >= total_bytes_;
  if (!all && drawn_ms_ && now_ms < *drawn_ms_ + interval_ms_) return std::nullopt;
  drawn_ms_ = now_ms;
  const double share =
      total_bytes_ == 0 ? 1.0 : static_cast<double>(done_bytes) / static_cast<double>(total_bytes_);
  std::array<char, 16> percent;
  std::snprintf(percent.data(), percent.size(), "%5.1f %%", 100 * share);
  std::string line = what_ + " " + percent.data() + "  " + FormatSize(done_bytes) + " of " +
                     FormatSize(total_bytes_);
  const double seconds = static_cast<double>(now_ms - begin_ms_) / 1000;
  if (seconds <= 0 || done_bytes == 0) return line;
  const double rate = static_cast<double>(done_bytes) / seconds;
  line += "  " + FormatSize(static_cast<std::uint64_t>(rate)) + "/s";
  if (all) return line;
  return line + "  " + FormatDuration(static_cast<double>(total_bytes_ - done_bytes) / rate) +
         " left";
}

}  // namespace zel::ctl
