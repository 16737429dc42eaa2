#include "errors/error_text.h"

#include <array>
#include <cstdio>

namespace zel {

namespace {

std::string_view TrimEnd(std::string_view text) {
  return text.substr(0, text.find_last_not_of(" \t\n\v\f\r.") + 1);
}

std::string HexadecimalCode(std::uint32_t code) {
  std::array<char, 11> digits;  // "0x", eight digits, terminator
  std::snprintf(digits.data(), digits.size(), "0x%08x", static_cast<unsigned>(code));
  return digits.data();
}

}  // namespace

std::string AssembleErrorText(std::string_view system_text, std::uint32_t code,
                              std::string_view name) {
  const bool negative = code >> 31 != 0;
  std::string text(TrimEnd(system_text));
  if (text.empty()) text = "Unknown error code";
  text.append(" [").append(negative ? HexadecimalCode(code) : name).append("]");
  if (text.size() >= kErrorTextSize) text.resize(kErrorTextSize - 1);
  return text;
}

}  // namespace zel
