#include "rpc/callers_path.h"

#include <windows.h>

#include <cwchar>
#include <string_view>

#include "files/path_check.h"
#include "logging/log_message.h"
#include "tracking/volume_list_format.h"

namespace zel {

namespace {

static_assert(kLongestPath == kMaxTrackedPath);

// At most one character more than any path has, whatever the length of `path`.
std::wstring_view Bounded(const wchar_t* path) {
  return {path, ::wcsnlen(path, kLongestPath + 1)};
}

// Whether the path is on a drive that is a share's. A letter for one is the administrator's work.
bool IsOnRemoteDrive(std::wstring_view path) {
  const std::size_t colon = path.find(L':');
  if (colon == std::wstring_view::npos || colon == 0) return false;
  const wchar_t root[] = {path[colon - 1], L':', L'\\', L'\0'};
  return ::GetDriveTypeW(root) == DRIVE_REMOTE;
}

PathFault Check(std::wstring_view path) {
  const PathFault fault = CheckPath(path);
  return fault == PathFault::kNone && IsOnRemoteDrive(path) ? PathFault::kNotLocal : fault;
}

const wchar_t* ReasonOf(PathFault fault) {
  switch (fault) {
    case PathFault::kTooLong:
      return L"it is too long";
    case PathFault::kControlCharacter:
      return L"it has control characters";
    default:
      return L"it is no file on a local drive";
  }
}

}  // namespace

std::uint32_t RefusePath(const wchar_t* operation, const wchar_t* path) {
  const std::wstring_view bounded = Bounded(path);
  const PathFault fault = Check(bounded);
  if (fault == PathFault::kNone) return ERROR_SUCCESS;
  LogMessage(kGeneralWarn, L"%ls refused the path %ls: %ls\n", operation,
             PrintableStart(bounded).c_str(), ReasonOf(fault));
  return fault == PathFault::kTooLong ? ERROR_FILENAME_EXCED_RANGE : ERROR_INVALID_NAME;
}

bool IsTooLong(const wchar_t* path) {
  return Bounded(path).size() > kLongestPath;
}

}  // namespace zel
