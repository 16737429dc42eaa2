#include "files/path_check.h"

#include <algorithm>

namespace zel {

namespace {

constexpr std::wstring_view kVerbatim = LR"(\\?\)";

bool IsControl(wchar_t c) {
  return c < L' ';
}

bool IsSeparator(wchar_t c) {
  return c == L'\\' || c == L'/';
}

wchar_t Upper(wchar_t c) {
  return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c;
}

bool IsHexDigit(wchar_t c) {
  return (c >= L'0' && c <= L'9') || (Upper(c) >= L'A' && Upper(c) <= L'F');
}

bool HasDrive(std::wstring_view path) {
  return path.size() >= 2 && path[1] == L':' && Upper(path[0]) >= L'A' && Upper(path[0]) <= L'Z';
}

bool EqualsInCapitals(std::wstring_view text, std::wstring_view capitals) {
  return std::ranges::equal(text, capitals, {}, Upper);
}

// The digits that go with COM and LPT: the superscript ones count for Windows, too.
bool IsPortNumber(wchar_t c) {
  return (c >= L'0' && c <= L'9') || c == L'\u00b9' || c == L'\u00b2' || c == L'\u00b3';
}

// Whether Windows takes the last component of a path for a device, in whatever directory.
bool IsDeviceName(std::wstring_view component) {
  std::wstring_view name = component.substr(0, component.find(L'.'));
  name = name.substr(0, name.find_last_not_of(L' ') + 1);  // npos + 1 is 0
  for (const std::wstring_view device : {L"CON", L"PRN", L"AUX", L"NUL", L"CONIN$", L"CONOUT$"}) {
    if (EqualsInCapitals(name, device)) return true;
  }
  const std::wstring_view port = name.substr(0, 3);
  return name.size() == 4 && IsPortNumber(name[3]) &&
         (EqualsInCapitals(port, L"COM") || EqualsInCapitals(port, L"LPT"));
}

std::wstring_view LastComponent(std::wstring_view path) {
  return path.substr(path.find_last_of(L"\\/") + 1);  // npos + 1 is 0
}

// "Volume{01234567-89ab-cdef-0123-456789abcdef}"
bool IsVolumeName(std::wstring_view name) {
  constexpr std::wstring_view kShape = L"VOLUME{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}";
  return std::ranges::equal(name, kShape, [](wchar_t c, wchar_t shape) {
    return shape == L'x' ? IsHexDigit(c) : Upper(c) == shape;
  });
}

// What Windows hands on as it stands: a drive or a volume, then a backslash.
bool IsLocalVerbatim(std::wstring_view rest) {
  const std::size_t root = rest.find(L'\\');
  if (root == std::wstring_view::npos) return false;
  const std::wstring_view device = rest.substr(0, root);
  const bool is_local = (device.size() == 2 && HasDrive(device)) || IsVolumeName(device);
  return is_local && rest.substr(root).find(L':') == std::wstring_view::npos;
}

bool IsLocal(std::wstring_view path) {
  if (path.starts_with(kVerbatim)) return IsLocalVerbatim(path.substr(kVerbatim.size()));
  // \\server, \\.\device, //?/..., and \??\, which Windows knows as well.
  if (path.size() >= 2 && IsSeparator(path[0]) && (IsSeparator(path[1]) || path[1] == L'?')) {
    return false;
  }
  const std::wstring_view rest = HasDrive(path) ? path.substr(2) : path;
  return rest.find(L':') == std::wstring_view::npos && !IsDeviceName(LastComponent(rest));
}

}  // namespace

PathFault CheckPath(std::wstring_view path) {
  if (path.size() > kLongestPath) return PathFault::kTooLong;
  if (std::ranges::any_of(path, IsControl)) return PathFault::kControlCharacter;
  return IsLocal(path) ? PathFault::kNone : PathFault::kNotLocal;
}

std::wstring PrintablePath(std::wstring_view path) {
  std::wstring printable(path);
  std::ranges::replace_if(printable, IsControl, L'?');
  return printable;
}

std::wstring PrintableStart(std::wstring_view path) {
  constexpr std::size_t kShown = 80;
  std::wstring start = PrintablePath(path.substr(0, kShown));
  return path.size() > kShown ? start.append(L"...") : start;
}

}  // namespace zel
