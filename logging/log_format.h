// The language of log formats: the part of the Windows wide printf that the system uses.
//
//   %s %ls   wide string        %d %i %u %x %X   with a zero fill and a width, and the sizes
//   %hs      narrow string        none, l: 32 bits   h: 16 bits   ll, I64, I: 64 bits
//   %p       pointer, 16 upper-case hexadecimal digits          %%   a percent sign
//
// A format that disagrees with its arguments does not compile. Pure; no allocation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

#include "logging/utf8_writer.h"

namespace zel {

// One argument of a log call. Strings are borrowed for the call.
struct LogArgument {
  enum class Kind { kWideString, kNarrowString, kPointer, kInt32, kInt64 };

  template <class T>
  static constexpr bool kSupported = std::is_pointer_v<T> || std::is_integral_v<T>;

  template <class T>
  static constexpr Kind KindOf() {
    static_assert(kSupported<T>, "log arguments are integers, C strings and pointers");
    if constexpr (std::is_convertible_v<T, const wchar_t*>) {
      return Kind::kWideString;
    } else if constexpr (std::is_convertible_v<T, const char*>) {
      return Kind::kNarrowString;
    } else if constexpr (std::is_pointer_v<T>) {
      return Kind::kPointer;
    } else {
      return sizeof(T) == 8 ? Kind::kInt64 : Kind::kInt32;
    }
  }

  template <class T>
  static LogArgument Of(T value) {
    if constexpr (std::is_pointer_v<T>) {
      return {KindOf<T>(), reinterpret_cast<std::uintptr_t>(value)};
    } else {
      return {KindOf<T>(), static_cast<std::uint64_t>(static_cast<std::int64_t>(value))};
    }
  }

  Kind kind;
  std::uint64_t value;  // the address for strings and pointers; integers sign-extended
};

// One conversion of a format.
struct LogConversion {
  LogArgument::Kind kind = LogArgument::Kind::kInt32;
  wchar_t type = L'u';  // d, u, x, X, s, p
  int bits = 32;        // of an integer
  std::size_t width = 0;
  bool zero_fill = false;
};

// Reads the conversion behind a '%' that is not "%%" and moves `format` past it. False when it is
// none: `format` then stands behind the flags and the width, and the rest is plain text, as the
// run-time library of Windows prints it.
constexpr bool ReadLogConversion(const wchar_t*& format, LogConversion& conversion) {
  if (*format == L'0') {
    conversion.zero_fill = true;
    ++format;
  }
  for (; *format >= L'0' && *format <= L'9'; ++format) {
    conversion.width = conversion.width * 10 + static_cast<std::size_t>(*format - L'0');
  }
  if (conversion.width > Utf8Writer::kWidestNumber) return false;
  const wchar_t* at = format;
  if (at[0] == L'I' && at[1] == L'6' && at[2] == L'4') {
    conversion.bits = 64;
    at += 3;
  } else if (at[0] == L'l' && at[1] == L'l') {
    conversion.bits = 64;
    at += 2;
  } else if (at[0] == L'I') {
    conversion.bits = 64;
    at += 1;
  } else if (at[0] == L'h' || at[0] == L'l') {
    conversion.bits = at[0] == L'h' ? 16 : 32;
    at += 1;
  }
  conversion.type = *at == L'i' ? L'd' : *at;
  switch (conversion.type) {
    case L's':
      conversion.kind =
          conversion.bits == 16 ? LogArgument::Kind::kNarrowString : LogArgument::Kind::kWideString;
      break;
    case L'p':
      conversion.kind = LogArgument::Kind::kPointer;
      break;
    case L'd':
    case L'u':
    case L'x':
    case L'X':
      conversion.kind =
          conversion.bits == 64 ? LogArgument::Kind::kInt64 : LogArgument::Kind::kInt32;
      break;
    default:
      return false;
  }
  format = at + 1;
  return true;
}

// True when the conversions of `format` take exactly arguments of the types Args, in order.
template <class... Args>
constexpr bool LogFormatMatches(const wchar_t* format) {
  constexpr std::size_t kCount = sizeof...(Args);
  constexpr LogArgument::Kind kKinds[kCount + 1] = {LogArgument::KindOf<Args>()...};
  std::size_t used = 0;
  while (*format != L'\0') {
    if (*format++ != L'%') continue;
    if (*format == L'%') {
      ++format;
      continue;
    }
    LogConversion conversion;
    if (!ReadLogConversion(format, conversion)) return false;
    if (used == kCount || kKinds[used] != conversion.kind) return false;
    ++used;
  }
  return used == kCount;
}

// A format whose conversions are not checked, for the text that stands misprinted on purpose.
struct UncheckedLogFormat {
  const wchar_t* text;
};

// A format that has been checked against Args while compiling.
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

// Characters of a text argument that are written; "…" stands for the rest. More than the longest
// path has, so that only what is no file's name is cut.
inline constexpr std::size_t kMaxLoggedText = 32'768;

// Writes `format` with its arguments. A missing argument, or one of another kind (an unchecked
// format's fault), prints as "?"; surplus ones are ignored; a null string prints as "(null)".
void FormatLogMessage(Utf8Writer& out, const wchar_t* format,
                      std::span<const LogArgument> arguments);

}  // namespace zel
