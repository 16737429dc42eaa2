#include "logging/log_line.h"

#include <array>

#include "logging/log_selector.h"

namespace zel {

std::string_view LevelWord(int selector) {
  constexpr std::array<std::string_view, kLogLevels> kWords = {"TRACE", "DEBUG", "INFO ", "WARN ",
                                                               "ERROR"};
  if (selector < 0 || selector >= kLogCategories * kLogLevels) return kWords[kInfo];
  return kWords[static_cast<std::size_t>(selector % kLogLevels)];
}

void WriteLogPrefix(Utf8Writer& out, const LogTime& time, int selector, std::uint32_t thread_id) {
  std::array<char, 80> line;  // 70 with every number at its widest
  char* end = line.data();
  const auto number = [&end](std::uint32_t value, int width, char behind) {
    std::array<char, 10> digits;
    int count = 0;
    for (; value != 0 || count < width; value /= 10) {
      digits[static_cast<std::size_t>(count++)] = static_cast<char>('0' + value % 10);
    }
    while (count > 0) *end++ = digits[static_cast<std::size_t>(--count)];
    *end++ = behind;
  };
  number(time.year, 4, '-');
  number(time.month, 2, '-');
  number(time.day, 2, ' ');
  number(time.hour, 2, ':');
  number(time.minute, 2, ':');
  number(time.second, 2, '.');
  number(time.millisecond, 3, ' ');
  end += LevelWord(selector).copy(end, 5);
  *end++ = ' ';
  *end++ = '[';
  number(thread_id, 1, ']');
  *end++ = ' ';
  out.Ascii({line.data(), static_cast<std::size_t>(end - line.data())});
}

}  // namespace zel
