#include "logging/log_format.h"

#include <string_view>

namespace zel {

namespace {

using Digits = Utf8Writer::Digits;

constexpr Digits DigitsOf(wchar_t type) {
  if (type == L'x') return Digits::kLowerHex;
  return type == L'X' ? Digits::kUpperHex : Digits::kDecimal;
}

void WriteInteger(Utf8Writer& out, const LogConversion& conversion, std::uint64_t value) {
  const Utf8Writer::NumberLayout layout{.digits = DigitsOf(conversion.type),
                                        .width = conversion.width,
                                        .fill = conversion.zero_fill ? '0' : ' '};
  const int unused = 64 - conversion.bits;
  const auto as_signed = static_cast<std::int64_t>(value << unused) >> unused;
  if (conversion.type == L'd' && as_signed < 0) {
    out.Number(0 - static_cast<std::uint64_t>(as_signed), true, layout);
  } else {
    out.Number(value << unused >> unused, false, layout);
  }
}

template <class Char>
std::basic_string_view<Char> StringOf(const LogArgument& argument,
                                      std::basic_string_view<Char> if_null) {
  const auto* text = reinterpret_cast<const Char*>(static_cast<std::uintptr_t>(argument.value));
  if (text == nullptr) return if_null;
  // Not read further than it is written: it may be somebody's hundred megabytes.
  std::size_t length = 0;
  while (length <= kMaxLoggedText && text[length] != 0) ++length;
  return {text, length};
}

// Ends a text that is too long in an ellipsis.
template <class Char>
void WriteText(Utf8Writer& out, std::basic_string_view<Char> text,
               void (Utf8Writer::*write)(std::basic_string_view<Char>)) {
  (out.*write)(text.substr(0, kMaxLoggedText));
  if (text.size() > kMaxLoggedText) out.Wide(L"\u2026");
}

void WriteArgument(Utf8Writer& out, const LogConversion& conversion, const LogArgument& argument) {
  using Kind = LogArgument::Kind;
  switch (conversion.kind) {
    case Kind::kWideString:
      return WriteText(out, StringOf<wchar_t>(argument, L"(null)"), &Utf8Writer::Wide);
    case Kind::kNarrowString:
      return WriteText(out, StringOf<char>(argument, "(null)"), &Utf8Writer::Narrow);
    case Kind::kPointer:
      return out.Number(argument.value, false,
                        {.digits = Digits::kUpperHex, .width = 16, .fill = '0'});
    case Kind::kInt32:
    case Kind::kInt64:
      return WriteInteger(out, conversion, argument.value);
  }
}

}  // namespace

void FormatLogMessage(Utf8Writer& out, const wchar_t* format,
                      std::span<const LogArgument> arguments) {
  for (;;) {
    const wchar_t* const plain = format;
    while (*format != L'%' && *format != L'\0') ++format;
    out.Wide({plain, static_cast<std::size_t>(format - plain)});
    if (*format == L'\0') return;
    ++format;  // the percent sign
    if (*format == L'%') {
      out.Wide(L"%");
      ++format;
      continue;
    }
    LogConversion conversion;
    if (!ReadLogConversion(format, conversion)) continue;
    if (arguments.empty() || arguments.front().kind != conversion.kind) {
      out.Wide(L"?");
    } else {
      WriteArgument(out, conversion, arguments.front());
    }
    if (!arguments.empty()) arguments = arguments.subspan(1);
  }
}

}  // namespace zel
