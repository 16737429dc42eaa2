// Compile-time check of a log format against its arguments, in the Windows meaning of wide printf
// formats: %s and %ls wide, %hs narrow, %I64d 64-bit, %Iu pointer-sized.
//
// A format that disagrees with its arguments does not compile. Not here: run-time formatting.
#pragma once

#include <cstddef>
#include <type_traits>

namespace zel {

namespace log_format_detail {

enum class ArgumentKind { kNone, kWideString, kNarrowString, kPointer, kInt32, kInt64, kOther };

template <class T>
constexpr ArgumentKind KindOf() {
  if constexpr (std::is_same_v<T, const wchar_t*> || std::is_same_v<T, wchar_t*>) {
    return ArgumentKind::kWideString;
  } else if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, char*>) {
    return ArgumentKind::kNarrowString;
  } else if constexpr (std::is_pointer_v<T>) {
    return ArgumentKind::kPointer;
  } else if constexpr (std::is_integral_v<T>) {
    return sizeof(T) == 8 ? ArgumentKind::kInt64 : ArgumentKind::kInt32;
  } else {
    return ArgumentKind::kOther;
  }
}

constexpr bool IsOneOf(wchar_t c, const wchar_t* set) {
  for (; *set != L'\0'; ++set) {
    if (*set == c) return true;
  }
  return false;
}

// The kind that the conversion `conversion` takes under the size prefix `prefix` (0 for none,
// 'h', 'l', '6' for ll and I64, 'I' for the pointer-sized prefix).
constexpr ArgumentKind KindOfConversion(wchar_t prefix, wchar_t conversion) {
  if (conversion == L's') {
    return prefix == L'h' ? ArgumentKind::kNarrowString : ArgumentKind::kWideString;
  }
  if (conversion == L'p') return ArgumentKind::kPointer;
  if (!IsOneOf(conversion, L"diuxXo")) return ArgumentKind::kOther;
  return prefix == L'6' || prefix == L'I' ? ArgumentKind::kInt64 : ArgumentKind::kInt32;
}

// Reads one conversion behind its '%', moving `format` past it. kNone for "%%".
constexpr ArgumentKind ReadConversion(const wchar_t*& format) {
  if (*format == L'%') {
    ++format;
    return ArgumentKind::kNone;
  }
  while (IsOneOf(*format, L"-+ #0123456789.")) ++format;
  wchar_t prefix = 0;
  if (format[0] == L'I' && format[1] == L'6' && format[2] == L'4') {
    prefix = L'6';
    format += 3;
  } else if (format[0] == L'l' && format[1] == L'l') {
    prefix = L'6';
    format += 2;
  } else if (IsOneOf(*format, L"hlI")) {
    prefix = *format++;
  }
  if (*format == L'\0') return ArgumentKind::kOther;
  return KindOfConversion(prefix, *format++);
}

}  // namespace log_format_detail

// True when the conversions of `format` take exactly arguments of the types Args, in order.
template <class... Args>
constexpr bool LogFormatMatches(const wchar_t* format) {
  using log_format_detail::ArgumentKind;
  constexpr ArgumentKind kArguments[] = {log_format_detail::KindOf<Args>()..., ArgumentKind::kNone};
  std::size_t used = 0;
  while (*format != L'\0') {
    if (*format++ != L'%') continue;
    const ArgumentKind wanted = log_format_detail::ReadConversion(format);
    if (wanted == ArgumentKind::kNone) continue;
    if (used == sizeof...(Args) || wanted == ArgumentKind::kOther || kArguments[used] != wanted) {
      return false;
    }
    ++used;
  }
  return used == sizeof...(Args);
}

// A format whose conversions are not checked, for the texts that stand misprinted on purpose.
struct UncheckedLogFormat {
  const wchar_t* text;
};

// A wide format that has been checked against Args while compiling.
template <class... Args>
class LogFormat {
 public:
  consteval LogFormat(const wchar_t* text) : text_(text) {  // NOLINT(google-explicit-constructor)
    if (!LogFormatMatches<Args...>(text)) FormatDisagreesWithArguments();
  }
  constexpr LogFormat(UncheckedLogFormat format) : text_(format.text) {}  // NOLINT

  [[nodiscard]] constexpr const wchar_t* text() const { return text_; }

 private:
  static void FormatDisagreesWithArguments() {}  // not constexpr: reaching it ends the compilation

  const wchar_t* text_;
};

}  // namespace zel
