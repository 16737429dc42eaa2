#include "files/directory_listing.h"

#include <string_view>
#include <utility>

#include "errors/error_info.h"
#include "files/layout.h"
#include "logging/log_message.h"
#include "win32/no_links.h"

namespace zel {

namespace {

bool IsDirectoryItselfOrParent(std::wstring_view name) {
  return name == L"." || name == L"..";
}

}  // namespace

bool IsEndOfListing(DWORD error) {
  return error == ERROR_NO_MORE_FILES || error == ERROR_FILE_NOT_FOUND ||
         error == ERROR_PATH_NOT_FOUND;
}

void LogFailedListing(const std::wstring& directory, DWORD error) {
  LogMessage(kBitmapError, L"Listing directory %s failed: %hs\n", directory.c_str(),
             ErrorInfo(error).text());
}

DirectoryListing::DirectoryListing(std::wstring directory) : directory_(std::move(directory)) {
  if (IsLink(directory_)) {
    ::SetLastError(kLinkRefused);
    Finish();
    return;
  }
  const std::wstring pattern = directory_ + (directory_.ends_with(L'\\') ? L"*" : L"\\*");
  find_.reset(::FindFirstFileW(pattern.c_str(), &entry_));
  entry_is_new_ = static_cast<bool>(find_);
  if (!find_) Finish();
}

const WIN32_FIND_DATAW* DirectoryListing::Next() {
  while (Advance()) {
    if (!IsDirectoryItselfOrParent(entry_.cFileName)) return &entry_;
  }
  return nullptr;
}

bool DirectoryListing::Advance() {
  if (!find_) return false;
  if (std::exchange(entry_is_new_, false) || ::FindNextFileW(find_.get(), &entry_)) return true;
  Finish();
  return false;
}

// Called right after the search's failure.
void DirectoryListing::Finish() {
  const DWORD error = ::GetLastError();
  has_failed_ = !IsEndOfListing(error);
  if (has_failed_) LogFailedListing(directory_, error);
  find_.reset();
}

std::optional<FileId> FileIdOfDirectory(const WIN32_FIND_DATAW& entry) {
  if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return std::nullopt;
  return ParseFileIdDirectory(entry.cFileName);
}

}  // namespace zel
