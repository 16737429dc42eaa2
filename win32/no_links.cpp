#include "win32/no_links.h"

#include <cstddef>
#include <string_view>

namespace zel {

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Against the process's own directory, if it is relative. Empty for a failure.
std::wstring FullPath(const std::wstring& path) {
  std::wstring full(::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
  const DWORD length =
      ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
  full.resize(length < full.size() ? length : 0);
  return full;
}

// The directory that is so many levels up, or the drive where there are fewer.
std::wstring_view DirectoryAbove(std::wstring_view path, int levels) {
  for (; levels > 0; --levels) {
    const std::size_t end = path.rfind(L'\\');
    if (end == std::wstring_view::npos) break;
    path = path.substr(0, end);
  }
  return path;
}

UniqueFile OpenToLook(std::wstring path, DWORD flags) {
  // Without it a drive's name means the process's own directory on that drive.
  if (path.ends_with(L':')) path.push_back(L'\\');
  return UniqueFile(::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | flags, nullptr));
}

// Where an open file lies, every link followed: the name that its file system knows it by. Empty
// for a failure.
std::wstring PlaceOf(HANDLE file) {
  constexpr DWORD kForm = FILE_NAME_OPENED | VOLUME_NAME_NT;
  std::wstring place(MAX_PATH, L'\0');
  for (;;) {
    const DWORD needed =
        ::GetFinalPathNameByHandleW(file, place.data(), static_cast<DWORD>(place.size()), kForm);
    const bool fits = needed < place.size();
    place.resize(needed);
    if (fits) return place;
  }
}

bool IsSamePlace(std::wstring_view a, std::wstring_view b) {
  return ::CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(),
                                static_cast<int>(b.size()), TRUE) == CSTR_EQUAL;
}

// 0 when the open file lies where the directory above says.
DWORD CheckPlaceOf(HANDLE file, const std::wstring& path, int levels) {
  const std::wstring full = FullPath(path);
  const std::wstring_view above = DirectoryAbove(full, levels);
  const UniqueFile directory = OpenToLook(std::wstring(above), 0);
  if (!directory) return ::GetLastError();
  std::wstring expected = PlaceOf(directory.get());
  const std::wstring place = PlaceOf(file);
  if (expected.empty() || place.empty()) return kLinkRefused;
  if (expected.ends_with(L'\\')) expected.pop_back();  // a drive's root
  expected.append(full, above.size());
  return IsSamePlace(place, expected) ? ERROR_SUCCESS : kLinkRefused;
}

DWORD CheckOpened(HANDLE file, const std::wstring& path, int levels) {
  BY_HANDLE_FILE_INFORMATION information;
  if (!::GetFileInformationByHandle(file, &information)) return ::GetLastError();
  if ((information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) return kLinkRefused;
  return CheckPlaceOf(file, path, levels);
}

}  // namespace

UniqueFile OpenWithoutLinks(const std::wstring& path, int levels, DWORD access, DWORD sharing,
                            DWORD disposition, DWORD flags) {
  UniqueFile file(::CreateFileW(path.c_str(), access | FILE_READ_ATTRIBUTES, sharing, nullptr,
                                disposition, flags | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!file) return file;
  if (const DWORD error = CheckOpened(file.get(), path, levels)) {
    file.reset();
    ::SetLastError(error);
  }
  return file;
}

DWORD CheckPlace(const std::wstring& path, int levels) {
  const UniqueFile file = OpenToLook(path, FILE_FLAG_OPEN_REPARSE_POINT);
  return file ? CheckPlaceOf(file.get(), path, levels) : ::GetLastError();
}

bool IsLink(const std::wstring& path) {
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

DWORD DeleteInPlace(const std::wstring& path, int levels) {
  if (const DWORD error = CheckPlace(path, levels)) return error;
  return ::DeleteFileW(path.c_str()) ? ERROR_SUCCESS : ::GetLastError();
}

}  // namespace zel
