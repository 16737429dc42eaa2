// Any path: what the check lets through is of one of a few plain forms, said here once more by a
// regular expression; and what goes into the log is one line.
#include <cstdlib>
#include <regex>
#include <string>

#include "files/path_check.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

// The form of every path that is let through, a device's name apart.
bool HasALocalForm(const std::wstring& path) {
  static const std::wregex form(
      LR"re((?:\\\\\?\\(?:[A-Za-z]:|[Vv][Oo][Ll][Uu][Mm][Ee]\{[0-9A-Fa-f]{8}(?:-[0-9A-Fa-f]{4}){3}-[0-9A-Fa-f]{12}\})\\[^:]*|(?:[A-Za-z]:[^:]*)|(?![\\/][\\/?])[^:]*))re");
  return std::regex_match(path, form);
}

bool NamesADevice(const std::wstring& path) {
  static const std::wregex device(
      LR"re((?:.*[\\/:])?(?:con|prn|aux|nul|conin\$|conout\$|(?:com|lpt)[0-9)re"
      L"\u00b9\u00b2\u00b3"
      LR"re(]) *(?:\.[^\\/:]*)?)re",
      std::regex::icase);
  return !path.starts_with(LR"(\\?\)") && std::regex_match(path, device);
}

bool HasControls(const std::wstring& path) {
  for (const wchar_t c : path) {
    if (c <= 0x1f) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  // One byte a character: the check tells few apart. The expression's own depth is limited.
  const std::wstring path(data, data + (size < 500 ? size : 500));
  const bool is_allowed = zel::CheckPath(path) == zel::PathFault::kNone;
  Require(is_allowed == (!HasControls(path) && HasALocalForm(path) && !NamesADevice(path)));
  Require(!HasControls(zel::PrintablePath(path)));
  Require(zel::PrintablePath(path).size() == path.size());
  Require(zel::PrintableStart(path).size() <= 83);
  const std::wstring long_path(zel::kLongestPath + 1 + size, size == 0 ? L'a' : wchar_t{data[0]});
  Require(zel::CheckPath(long_path) == zel::PathFault::kTooLong);
  return 0;
}
