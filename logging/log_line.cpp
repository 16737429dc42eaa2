#include "logging/log_line.h"

#include <array>
#include <charconv>
#include <cstring>

#include "logging/log_selector.h"

namespace zel {

namespace {

// Appends to a buffer known to be large enough.
class Appender {
 public:
  explicit Appender(char* begin) : at_(begin) {}

  Appender& Text(std::string_view text) {
    std::memcpy(at_, text.data(), text.size());
    at_ += text.size();
    return *this;
  }

  // `value` in decimal, padded with zeros to `width`.
  Appender& Number(std::uint32_t value, std::size_t width) {
    std::array<char, 10> digits;
    const char* end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    const auto length = static_cast<std::size_t>(end - digits.data());
    for (std::size_t i = length; i < width; ++i) *at_++ = '0';
    return Text({digits.data(), length});
  }

  [[nodiscard]] char* end() const { return at_; }

 private:
  char* at_;
};

}  // namespace

std::string_view LevelWord(int selector) {
  constexpr std::array<std::string_view, kLogLevels> kWords = {"TRACE", "DEBUG", "INFO ", "WARN ",
                                                               "ERROR"};
  if (selector < 0 || selector >= kLogCategories * kLogLevels) return kWords[kInfo];
  return kWords[static_cast<std::size_t>(selector % kLogLevels)];
}

std::size_t FormatLogPrefix(std::span<char, kMaxLogPrefix> out, const LogTime& time, int selector,
                            std::uint32_t thread_id) {
  Appender line(out.data());
  line.Number(time.year, 4).Text("-").Number(time.month, 2).Text("-").Number(time.day, 2);
  line.Text(" ").Number(time.hour, 2).Text(":").Number(time.minute, 2);
  line.Text(":").Number(time.second, 2).Text(".").Number(time.millisecond, 3);
  line.Text(" ").Text(LevelWord(selector)).Text(" [").Number(thread_id, 1).Text("] ");
  return static_cast<std::size_t>(line.end() - out.data());
}

}  // namespace zel
