#include <windows.h>

#include <cstddef>

#include "bitmap/bitmap_file.h"
#include "win32/handles.h"

namespace zel {

namespace {

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
    file_.reset(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file_ && Map(error)) return true;
    error.code = ::GetLastError();
    return false;
  }

  std::uint32_t FlushHeader() override { return FlushMappedView(header_, kBitmapHeaderSize); }
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

class Win32BitmapFiles : public BitmapFiles {
 public:
  std::unique_ptr<BitmapFile> Open(const std::wstring& path, OpenError& error) override {
    auto file = std::make_unique<MappedBitmapFile>();
    if (!file->Open(path, error)) return nullptr;
    return file;
  }

  std::uint32_t Delete(const std::wstring& path) override {
    return ::DeleteFileW(path.c_str()) ? ERROR_SUCCESS : ::GetLastError();
  }

  std::uint32_t Distrust(const std::wstring& path) override {
    const UniqueFile file(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    LARGE_INTEGER length = {};
    if (!file || !::GetFileSizeEx(file.get(), &length)) return ::GetLastError();
    if (length.QuadPart < kBitmapHeaderSize) return ERROR_SUCCESS;
    OVERLAPPED place = {};
    place.Offset = offsetof(BitmapFileHeader, Unreliable);
    const std::uint8_t mark = 1;
    DWORD written = 0;
    return ::WriteFile(file.get(), &mark, sizeof mark, &written, &place) &&
                   ::FlushFileBuffers(file.get())
               ? ERROR_SUCCESS
               : ::GetLastError();
  }
};

}  // namespace

BitmapFiles& SystemBitmapFiles() {
  static Win32BitmapFiles files;
  return files;
}

}  // namespace zel
