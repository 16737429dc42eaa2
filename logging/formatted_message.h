// One message's text, formatted with the run-time library's Windows conventions. Inside logging/.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

namespace zel {

// Lifetime: meant for the stack (68 KiB); the heap serves only messages over kInlineChars.
class FormattedMessage {
 public:
  // The longest path (32,767) and any message around it.
  static constexpr std::size_t kInlineChars = 34000;

  FormattedMessage(const wchar_t* format, va_list arguments);
  FormattedMessage(const FormattedMessage&) = delete;
  FormattedMessage& operator=(const FormattedMessage&) = delete;

  [[nodiscard]] std::wstring_view text() const { return text_; }

 private:
  wchar_t inline_[kInlineChars];
  std::wstring heap_;
  std::wstring_view text_;
};

}  // namespace zel
