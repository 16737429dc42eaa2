// The program whose file activity the tests of driversim run look at.
//
//   file_worker random SEED FILE      writes, appends and truncates by every way there is
//   file_worker random SEED REACH FILE  the same up to about REACH bytes, 200000 unless told
//   file_worker scatter SEED FILE     writes about every second page of the file, in random order
//   file_worker child SEED FILE       the same in a child process
//   file_worker overlapped FILE       one overlapped write of 3 bytes at 5, one through a port
//   file_worker gather FILE           one write of a page at 8192, past the cache
//   file_worker read FILE             reads 10 bytes at 100, 20 behind them from the file pointer,
//                                     30 at 200 overlapped and a page at 8192 past the cache
//   file_worker rename FILE NEWNAME
//   file_worker map FILE              writes through a mapped section
//   file_worker recreate FILE         truncates the file by creating it anew
//   file_worker late FILE             sets the event zel_file_worker_waits, waits for
//                                     zel_file_worker_goes_on and writes
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "win32/handles.h"

namespace zel::test {
namespace {

UniqueFile Open(const wchar_t* path, DWORD access = GENERIC_READ | GENERIC_WRITE, DWORD flags = 0) {
  UniqueFile file(::CreateFileW(path, access, 7, nullptr, OPEN_EXISTING, flags, nullptr));
  if (!file) ::ExitProcess(10);
  return file;
}

void Check(bool done) {
  if (!done) ::ExitProcess(11);
}

OVERLAPPED At(std::uint64_t offset, HANDLE event = nullptr) {
  OVERLAPPED overlapped = {};
  overlapped.Offset = static_cast<DWORD>(offset);
  overlapped.OffsetHigh = static_cast<DWORD>(offset >> 32);
  overlapped.hEvent = event;
  return overlapped;
}

void MoveTo(HANDLE file, std::uint64_t offset) {
  LARGE_INTEGER distance;
  distance.QuadPart = static_cast<LONGLONG>(offset);
  Check(::SetFilePointerEx(file, distance, nullptr, FILE_BEGIN));
}

// What is written differs from all that was there before.
class Writer {
 public:
  Writer(unsigned seed, std::uint64_t reach, const wchar_t* path)
      : random_(seed), reach_(reach), path_(path), file_(Open(path)) {}

  void Step() {
    switch (Random(10)) {
      case 0:
        return AtPointer();
      case 1:
        return AtOffset();
      case 2:
        return Overlapped();
      case 3:
        return AppendOnly();
      case 4:
        return ToEnd();
      case 5:
        return Truncate();
      case 6:
        return SetSize();
      case 7:
        return ThroughDuplicate();
      case 8:
        return ThroughRuntime();
      default:
        return OnwardFromPointer();
    }
  }

 private:
  std::uint64_t Random(std::uint64_t limit) { return random_() % limit; }
  std::uint64_t Place() { return Random(reach_); }
  const std::string& Data() {
    data_.assign(1 + Random(9'000), static_cast<char>(++generation_));
    return data_;
  }

  void Write(HANDLE file, OVERLAPPED* overlapped = nullptr) {
    const std::string& data = Data();
    DWORD written = 0;
    const auto size = static_cast<DWORD>(data.size());
    Check(::WriteFile(file, data.data(), size, &written, overlapped) && written == size);
  }

  void AtPointer() {
    MoveTo(file_.get(), Place());
    Write(file_.get());
  }
  void OnwardFromPointer() { Write(file_.get()); }
  void AtOffset() {
    OVERLAPPED overlapped = At(Place());
    Write(file_.get(), &overlapped);
  }
  void ToEnd() {
    OVERLAPPED overlapped = At(UINT64_MAX);
    Write(file_.get(), &overlapped);
  }
  void AppendOnly() { Write(Open(path_, FILE_APPEND_DATA).get()); }
  void ThroughDuplicate() {
    UniqueFile duplicate;
    Check(::DuplicateHandle(::GetCurrentProcess(), file_.get(), ::GetCurrentProcess(),
                            duplicate.put(), 0, FALSE, DUPLICATE_SAME_ACCESS));
    MoveTo(duplicate.get(), Place());
    Write(duplicate.get());
  }
  void ThroughRuntime() {
    std::FILE* const stream = ::_wfopen(path_, L"r+b");
    Check(stream != nullptr && std::fseek(stream, static_cast<long>(Place()), SEEK_SET) == 0);
    const std::string& data = Data();
    Check(std::fwrite(data.data(), 1, data.size(), stream) == data.size());
    Check(std::fclose(stream) == 0);
  }
  void Overlapped() {
    const UniqueFile file = Open(path_, GENERIC_WRITE, FILE_FLAG_OVERLAPPED);
    const UniqueEvent event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED overlapped = At(Place(), event.get());
    const std::string& data = Data();
    const auto size = static_cast<DWORD>(data.size());
    DWORD written = 0;
    Check(::WriteFile(file.get(), data.data(), size, nullptr, &overlapped) ||
          ::GetLastError() == ERROR_IO_PENDING);
    Check(::WaitForSingleObject(event.get(), INFINITE) == WAIT_OBJECT_0);
    Check(::GetOverlappedResult(file.get(), &overlapped, &written, FALSE) && written == size);
  }
  void Truncate() {
    MoveTo(file_.get(), Place());
    Check(::SetEndOfFile(file_.get()));
  }
  void SetSize() {
    FILE_END_OF_FILE_INFO size;
    size.EndOfFile.QuadPart = static_cast<LONGLONG>(Place());
    Check(::SetFileInformationByHandle(file_.get(), FileEndOfFileInfo, &size, sizeof size));
  }

  std::mt19937 random_;
  std::uint64_t reach_;
  const wchar_t* path_;
  UniqueFile file_;
  std::string data_;
  unsigned char generation_ = 0;
};

unsigned Number(const wchar_t* text) {
  return static_cast<unsigned>(std::wcstoul(text, nullptr, 10));
}

void WriteAtRandom(unsigned seed, std::uint64_t reach, const wchar_t* path) {
  Writer writer(seed, reach, path);
  for (int step = 0; step < 40; ++step) writer.Step();
}

void Scatter(unsigned seed, const wchar_t* path) {
  constexpr std::uint64_t kPage = 4096;
  std::mt19937 random(seed);
  const UniqueFile file = Open(path);
  LARGE_INTEGER size;
  Check(::GetFileSizeEx(file.get(), &size));
  std::vector<std::uint64_t> pages(static_cast<std::uint64_t>(size.QuadPart) / kPage);
  std::iota(pages.begin(), pages.end(), 0);
  std::shuffle(pages.begin(), pages.end(), random);
  pages.resize(pages.size() / 2);
  std::vector<std::uint32_t> data(kPage / sizeof(std::uint32_t));
  for (const std::uint64_t page : pages) {
    std::generate(data.begin(), data.end(), std::ref(random));
    OVERLAPPED place = At(page * kPage);
    DWORD written = 0;
    Check(::WriteFile(file.get(), data.data(), kPage, &written, &place) && written == kPage);
  }
}

int RunChild(const wchar_t* seed, const wchar_t* path) {
  wchar_t self[MAX_PATH];
  ::GetModuleFileNameW(nullptr, self, MAX_PATH);
  std::wstring command_line =
      L"\"" + std::wstring(self) + L"\" random " + seed + L" \"" + path + L"\"";
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION made;
  Check(::CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                         &startup, &made));
  ::WaitForSingleObject(made.hProcess, INFINITE);
  DWORD code = 12;
  ::GetExitCodeProcess(made.hProcess, &code);
  return static_cast<int>(code);
}

void WriteOverlapped(const wchar_t* path) {
  const UniqueFile file = Open(path, GENERIC_WRITE, FILE_FLAG_OVERLAPPED);
  const UniqueEvent event(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
  OVERLAPPED overlapped = At(5, event.get());
  Check(::WriteFile(file.get(), "xyz", 3, nullptr, &overlapped) ||
        ::GetLastError() == ERROR_IO_PENDING);
  Check(::WaitForSingleObject(event.get(), 5'000) == WAIT_OBJECT_0);

  const UniqueEvent port(::CreateIoCompletionPort(file.get(), nullptr, 7, 1));
  OVERLAPPED queued = At(9);
  Check(::WriteFile(file.get(), "xyz", 3, nullptr, &queued) ||
        ::GetLastError() == ERROR_IO_PENDING);
  DWORD written = 0;
  ULONG_PTR key = 0;
  OVERLAPPED* completed = nullptr;
  Check(::GetQueuedCompletionStatus(port.get(), &written, &key, &completed, 5'000));
  Check(written == 3 && key == 7 && completed == &queued);
}

void WriteGathered(const wchar_t* path) {
  const UniqueFile file = Open(path, GENERIC_WRITE, FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING);
  void* const page = ::VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READWRITE);
  FILE_SEGMENT_ELEMENT segments[2] = {};
  segments[0].Buffer = page;
  const UniqueEvent event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED overlapped = At(8192, event.get());
  Check(::WriteFileGather(file.get(), segments, 4096, nullptr, &overlapped) ||
        ::GetLastError() == ERROR_IO_PENDING);
  Check(::WaitForSingleObject(event.get(), 5'000) == WAIT_OBJECT_0);
}

void Read(const wchar_t* path) {
  char buffer[30];
  DWORD count = 0;
  OVERLAPPED first = At(100);
  const UniqueFile file = Open(path, GENERIC_READ);
  Check(::ReadFile(file.get(), buffer, 10, &count, &first) && count == 10);
  Check(::ReadFile(file.get(), buffer, 20, &count, nullptr) && count == 20);

  const UniqueFile other = Open(path, GENERIC_READ, FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING);
  const UniqueEvent event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED overlapped = At(200, event.get());
  const auto completes = [&](BOOL done) {
    Check((done || ::GetLastError() == ERROR_IO_PENDING) &&
          ::GetOverlappedResult(other.get(), &overlapped, &count, TRUE));
  };
  completes(::ReadFile(other.get(), buffer, 30, nullptr, &overlapped));
  FILE_SEGMENT_ELEMENT segments[2] = {};
  segments[0].Buffer = ::VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READWRITE);
  overlapped = At(8192, event.get());
  completes(::ReadFileScatter(other.get(), segments, 4096, nullptr, &overlapped));
}

void WriteMapped(const wchar_t* path) {
  const UniqueFile file = Open(path);
  const UniqueMapping mapping(
      ::CreateFileMappingW(file.get(), nullptr, PAGE_READWRITE, 0, 0, nullptr));
  const UniqueView<char> view(
      static_cast<char*>(::MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, 1)));
  Check(static_cast<bool>(view));
  *view.get() = 'm';
}

void Recreate(const wchar_t* path) {
  const UniqueFile file(::CreateFileW(path, GENERIC_WRITE, 7, nullptr, CREATE_ALWAYS, 0, nullptr));
  Check(static_cast<bool>(file));
}

void WriteLate(const wchar_t* path) {
  const UniqueFile file = Open(path);
  const UniqueEvent waits(::CreateEventW(nullptr, TRUE, FALSE, L"zel_file_worker_waits"));
  const UniqueEvent goes_on(::CreateEventW(nullptr, TRUE, FALSE, L"zel_file_worker_goes_on"));
  ::SetEvent(waits.get());
  ::WaitForSingleObject(goes_on.get(), INFINITE);
  DWORD written;
  Check(::WriteFile(file.get(), "late", 4, &written, nullptr));
}

int Run(const std::vector<const wchar_t*>& arguments) {
  const std::wstring_view task = arguments[0];
  const wchar_t* const path = arguments.back();
  if (task == L"random") {
    const std::uint64_t reach = arguments.size() > 3 ? Number(arguments[2]) : 200'000;
    return WriteAtRandom(Number(arguments[1]), reach, path), 0;
  }
  if (task == L"scatter") return Scatter(Number(arguments[1]), path), 0;
  if (task == L"child") return RunChild(arguments[1], path);
  if (task == L"overlapped") return WriteOverlapped(path), 0;
  if (task == L"gather") return WriteGathered(path), 0;
  if (task == L"read") return Read(path), 0;
  if (task == L"rename") return ::MoveFileW(arguments[1], path) ? 0 : 1;
  if (task == L"map") return WriteMapped(path), 0;
  if (task == L"recreate") return Recreate(path), 0;
  if (task == L"late") return WriteLate(path), 0;
  return 2;
}

}  // namespace
}  // namespace zel::test

int wmain(int count, wchar_t** arguments) {
  if (count < 3) return 2;
  return zel::test::Run({arguments + 1, arguments + count});
}
