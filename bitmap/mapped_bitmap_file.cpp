#include <windows.h>

#include <cstddef>

#include "bitmap/bitmap_file.h"
#include "files/layout.h"
#include "files/own_rights.h"
#include "win32/handles.h"
#include "win32/no_links.h"

namespace zel {

namespace {

// The file, its directory and the volume's: what is above them is the CBT directory.
constexpr int kOwnLevels = 3;

// FlushViewOfFile fails so while the system itself is writing the view's pages; a second is more
// than it takes, as a rule.
constexpr DWORD kLongestPauseMs = 512;

std::uint32_t FlushMappedView(const void* view, std::size_t bytes) {
  for (DWORD pause_ms = 1;; pause_ms *= 2) {
    if (::FlushViewOfFile(view, bytes)) return ERROR_SUCCESS;
    const DWORD error = ::GetLastError();
    if (error != ERROR_LOCK_VIOLATION || pause_ms > kLongestPauseMs) return error;
    ::Sleep(pause_ms);  // nobody tells when it is over
  }
}

class MappedBitmapFile : public BitmapFile {
 public:
  // False with the step that failed and its code.
  [[nodiscard]] bool Open(const std::wstring& path, OpenError& error) {
    error.step = OpenStep::kOpen;
    file_ = OpenWithoutLinks(path, kOwnLevels, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                             OPEN_EXISTING);
    if (file_ && Map(error)) return true;
    error.code = ::GetLastError();
    return false;
  }

  std::uint32_t FlushBitmapHeader() override { return FlushMappedView(header_, kBitmapHeaderSize); }
  std::uint32_t FlushView() override { return FlushMappedView(header_, 0); }
  std::uint32_t FlushToDevice() override {
    return ::FlushFileBuffers(file_.get()) ? ERROR_SUCCESS : ::GetLastError();
  }

 private:
  bool Map(OpenError& error) {
    error.step = OpenStep::kSize;
    LARGE_INTEGER size;
    if (!::GetFileSizeEx(file_.get(), &size)) return false;
    size_ = size.LowPart;
    error.step = OpenStep::kMapping;
    mapping_.reset(::CreateFileMappingW(file_.get(), nullptr, PAGE_READWRITE, 0, 0, nullptr));
    if (!mapping_) return false;
    error.step = OpenStep::kView;
    view_.reset(
        static_cast<BitmapFileHeader*>(::MapViewOfFile(mapping_.get(), FILE_MAP_WRITE, 0, 0, 0)));
    header_ = view_.get();
    return header_ != nullptr;
  }

  UniqueFile file_;                    // members are torn down from the last to the first: the
  UniqueMapping mapping_;              // view goes before the mapping, the mapping before the
  UniqueView<BitmapFileHeader> view_;  // file
};

std::uint32_t ErrorUnless(bool done) {
  return done ? ERROR_SUCCESS : ::GetLastError();
}

bool IsMissing(DWORD error) {
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

// For writing alone, whatever others do with it: they need not even share reading.
UniqueFile OpenShared(const std::wstring& path, int levels, DWORD flags) {
  return OpenWithoutLinks(path, levels, GENERIC_WRITE,
                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING,
                          flags);
}

UniqueFile OpenDirectoryOf(const std::wstring& path) {
  return OpenShared(path.substr(0, path.rfind(L'\\')), kOwnLevels - 1, FILE_FLAG_BACKUP_SEMANTICS);
}

class Win32BitmapFiles : public BitmapFiles {
 public:
  std::unique_ptr<BitmapFile> Open(const std::wstring& path, OpenError& error) override {
    auto file = std::make_unique<MappedBitmapFile>();
    if (!file->Open(path, error)) return nullptr;
    return file;
  }

  std::uint32_t Delete(const std::wstring& path) override {
    return DeleteInPlace(path, kOwnLevels);
  }

  std::uint32_t Distrust(const std::wstring& path) override {
    const UniqueFile file = OpenShared(path, kOwnLevels, FILE_ATTRIBUTE_NORMAL);
    LARGE_INTEGER length = {};
    if (!file || !::GetFileSizeEx(file.get(), &length)) return ::GetLastError();
    if (length.QuadPart < kBitmapHeaderSize) return ERROR_SUCCESS;
    OVERLAPPED place = {};
    place.Offset = offsetof(BitmapFileHeader, Unreliable);
    const std::uint8_t mark = 1;
    DWORD written = 0;
    return ErrorUnless(::WriteFile(file.get(), &mark, sizeof mark, &written, &place) &&
                       ::FlushFileBuffers(file.get()));
  }

  std::uint32_t LeaveMissedMark(const std::wstring& path) override {
    const UniqueFile directory = OpenDirectoryOf(path);
    if (!directory) return ::GetLastError();
    const std::uint32_t error =
        ErrorUnless(::CreateDirectoryW(MissedMarkPath(path).c_str(), RightsOfOwnDirectory()));
    if (error != ERROR_SUCCESS && error != ERROR_ALREADY_EXISTS) return error;
    return ErrorUnless(::FlushFileBuffers(directory.get()));  // has the device know of it
  }

  std::uint32_t RemoveMissedMark(const std::wstring& path) override {
    const std::uint32_t error = ErrorUnless(::RemoveDirectoryW(MissedMarkPath(path).c_str()));
    return IsMissing(error) ? ERROR_SUCCESS : error;
  }

  bool HasMissedMark(const std::wstring& path) override {
    return ::GetFileAttributesW(MissedMarkPath(path).c_str()) != INVALID_FILE_ATTRIBUTES ||
           !IsMissing(::GetLastError());
  }
};

}  // namespace

BitmapFiles& SystemBitmapFiles() {
  static Win32BitmapFiles files;
  return files;
}

}  // namespace zel
