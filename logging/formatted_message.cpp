#include "logging/formatted_message.h"

#include <cstdio>
#include <cwchar>

namespace zel {

// The _l functions are the run-time library's own: MinGW routes the plain names to C99 versions, in
// which a wide format's %s is narrow.
FormattedMessage::FormattedMessage(const wchar_t* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = ::_vsnwprintf_l(inline_, kInlineChars, format, nullptr, arguments);
  if (length >= 0) {
    text_ = {inline_, static_cast<std::size_t>(length)};
  } else {
    va_list measured;
    va_copy(measured, again);
    const int needed = ::_vscwprintf_l(format, nullptr, measured);
    va_end(measured);
    if (needed > 0) {
      heap_.resize(static_cast<std::size_t>(needed));
      ::_vsnwprintf_l(heap_.data(), heap_.size(), format, nullptr, again);
      text_ = heap_;
    }
  }
  va_end(again);
}

}  // namespace zel
