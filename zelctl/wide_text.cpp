#include "zelctl/wide_text.h"

#include <windows.h>

#include "logging/utf8_writer.h"

namespace zel::ctl {

std::string ToUtf8(std::wstring_view text) {
  std::string bytes;
  const auto append = [](void* target, const char* part, std::size_t count) {
    static_cast<std::string*>(target)->append(part, count);
  };
  {
    Utf8Writer writer(append, &bytes);
    writer.Wide(text);
  }
  return bytes;
}

std::wstring ToWide(std::string_view text) {
  const int length = static_cast<int>(text.size());
  std::wstring wide(text.size(), L'\0');  // never more units than bytes
  const int units = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), length);
  wide.resize(static_cast<std::size_t>(units));
  return wide;
}

}  // namespace zel::ctl
