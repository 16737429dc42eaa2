#include "logging/utf8_writer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>

namespace zel {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

constexpr bool IsHighSurrogate(char32_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
constexpr bool IsLowSurrogate(char32_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

}  // namespace

// Nearly all text is ASCII, and this is the inner loop of every log line.
template <class Char>
std::size_t Utf8Writer::CopyAscii(std::basic_string_view<Char> text) {
  const std::size_t room = std::min(text.size(), kBufferBytes - used_);
  char* const out = buffer_.data() + used_;
  std::size_t copied = 0;
  for (; copied < room && static_cast<std::make_unsigned_t<Char>>(text[copied]) < 0x80; ++copied) {
    out[copied] = static_cast<char>(text[copied]);
  }
  used_ += copied;
  return copied;
}

void Utf8Writer::Wide(std::wstring_view text) {
  characters_ += text.size();
  for (std::size_t i = CopyAscii(text); i < text.size(); i += CopyAscii(text.substr(i))) {
    const auto unit = static_cast<char32_t>(text[i++]);
    if (IsHighSurrogate(unit) && i < text.size() &&
        IsLowSurrogate(static_cast<char32_t>(text[i]))) {
      const auto low = static_cast<char32_t>(text[i++]);
      CodePoint(0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
    } else {
      CodePoint(unit);
    }
  }
}

void Utf8Writer::Ascii(std::string_view text) {
  characters_ += text.size();
  if (used_ + text.size() > kBufferBytes) Flush();
  std::memcpy(buffer_.data() + used_, text.data(), text.size());
  used_ += text.size();
}

void Utf8Writer::Narrow(std::string_view text) {
  characters_ += text.size();
  for (std::size_t i = CopyAscii(text); i < text.size(); i += CopyAscii(text.substr(i))) {
    CodePoint(static_cast<unsigned char>(text[i++]));
  }
}

void Utf8Writer::Number(std::uint64_t magnitude, bool negative, const NumberLayout& layout) {
  std::array<char, kWidestNumber + 2> text;
  char* const end = text.data() + text.size();
  char* begin = end;
  if (layout.digits == Digits::kDecimal) {
    do *--begin = static_cast<char>('0' + magnitude % 10);
    while ((magnitude /= 10) != 0);
  } else {
    const char* digits =
        layout.digits == Digits::kLowerHex ? "0123456789abcdef" : "0123456789ABCDEF";
    do *--begin = digits[magnitude % 16];
    while ((magnitude /= 16) != 0);
  }
  char* const filled = end - std::min(layout.width, kWidestNumber);
  if (layout.fill == '0') {
    while (begin > filled + (negative ? 1 : 0)) *--begin = '0';
  }
  if (negative) *--begin = '-';
  while (begin > filled) *--begin = layout.fill;
  Ascii({begin, static_cast<std::size_t>(end - begin)});
}

void Utf8Writer::CodePoint(char32_t code_point) {
  if (used_ + kLongestCharacter > kBufferBytes) Flush();
  if (IsHighSurrogate(code_point) || IsLowSurrogate(code_point) || code_point > 0x10FFFF) {
    code_point = kReplacement;
  }
  if (code_point < 0x80) {
    Byte(code_point);
  } else if (code_point < 0x800) {
    Byte(0xC0 | code_point >> 6);
    Byte(0x80 | (code_point & 0x3F));
  } else if (code_point < 0x10000) {
    Byte(0xE0 | code_point >> 12);
    Byte(0x80 | (code_point >> 6 & 0x3F));
    Byte(0x80 | (code_point & 0x3F));
  } else {
    Byte(0xF0 | code_point >> 18);
    Byte(0x80 | (code_point >> 12 & 0x3F));
    Byte(0x80 | (code_point >> 6 & 0x3F));
    Byte(0x80 | (code_point & 0x3F));
  }
}

void Utf8Writer::Flush() {
  if (used_ == 0) return;
  take_(target_, buffer_.data(), used_);
  used_ = 0;
}

}  // namespace zel
