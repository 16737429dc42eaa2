#include "zelctl/win32_files.h"

#include <winioctl.h>

#include <algorithm>

#include "files/file_identity.h"
#include "files/layout.h"

namespace zel::ctl {

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

std::uint32_t CodeOf(BOOL succeeded) {
  return succeeded ? ERROR_SUCCESS : ::GetLastError();
}

// Where a synchronous read or write of a file begins.
OVERLAPPED At(std::uint64_t offset) {
  OVERLAPPED at = {};
  at.Offset = static_cast<DWORD>(offset);
  at.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return at;
}

// A piece that one system call takes.
DWORD PieceOf(std::size_t size) {
  constexpr std::size_t kLargestPiece = std::size_t{64} << 20;
  return static_cast<DWORD>(std::min(size, kLargestPiece));
}

std::uint32_t SizeOf(const UniqueFile& file, std::uint64_t& size) {
  LARGE_INTEGER value = {};
  const std::uint32_t code = CodeOf(::GetFileSizeEx(file.get(), &value));
  size = static_cast<std::uint64_t>(value.QuadPart);
  return code;
}

bool TakesLessThanItsSize(const UniqueFile& file) {
  FILE_STANDARD_INFO information = {};
  return ::GetFileInformationByHandleEx(file.get(), FileStandardInfo, &information,
                                        sizeof information) &&
         information.AllocationSize.QuadPart < information.EndOfFile.QuadPart;
}

std::uint32_t ReadAt(const UniqueFile& file, std::uint64_t offset, std::span<std::byte> buffer) {
  while (!buffer.empty()) {
    OVERLAPPED at = At(offset);
    DWORD count = 0;
    if (!::ReadFile(file.get(), buffer.data(), PieceOf(buffer.size()), &count, &at)) {
      return ::GetLastError();
    }
    if (count == 0) return kEndOfFile;
    buffer = buffer.subspan(count);
    offset += count;
  }
  return ERROR_SUCCESS;
}

std::uint32_t WriteAt(const UniqueFile& file, std::uint64_t offset,
                      std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    OVERLAPPED at = At(offset);
    DWORD count = 0;
    if (!::WriteFile(file.get(), bytes.data(), PieceOf(bytes.size()), &count, &at)) {
      return ::GetLastError();
    }
    bytes = bytes.subspan(count);
    offset += count;
  }
  return ERROR_SUCCESS;
}

// Of an open file; its volume is that of the path by which it was opened.
std::uint32_t IdentifyOpen(const UniqueFile& file, const std::wstring& path,
                           FileIdentity& identity) {
  BY_HANDLE_FILE_INFORMATION information;
  if (!::GetFileInformationByHandle(file.get(), &information)) return ::GetLastError();
  identity = {.volume = VolumeOf(path),
              .file_id = JoinHalves(information.nFileIndexHigh, information.nFileIndexLow)};
  return ERROR_SUCCESS;
}

std::uint32_t WriteTimeOf(const UniqueFile& file, FileTime& written) {
  FILETIME time = {};
  const std::uint32_t code = CodeOf(::GetFileTime(file.get(), nullptr, nullptr, &time));
  written = JoinHalves(time.dwHighDateTime, time.dwLowDateTime);
  return code;
}

class SystemSource : public SourceFile {
 public:
  SystemSource(UniqueFile file, std::wstring path)
      : file_(std::move(file)), path_(std::move(path)) {}
  std::uint32_t Identify(FileIdentity& identity) override {
    return IdentifyOpen(file_, path_, identity);
  }
  std::uint32_t GetSize(std::uint64_t& size) override { return SizeOf(file_, size); }
  bool HasHoles() override { return TakesLessThanItsSize(file_); }
  std::uint32_t Read(std::uint64_t offset, std::span<std::byte> buffer) override {
    return ReadAt(file_, offset, buffer);
  }

 private:
  UniqueFile file_;
  const std::wstring path_;
};

// A file that is written, in its own place or for another one.
class SystemTarget : public ReplacementFile {
 public:
  // `place` is empty for a file in its own place, which `path` is then.
  SystemTarget(UniqueFile file, std::wstring path, std::wstring place)
      : file_(std::move(file)), path_(std::move(path)), place_(std::move(place)) {}
  ~SystemTarget() override {
    file_.reset();
    if (!place_.empty()) ::DeleteFileW(path_.c_str());
  }

  std::uint32_t Identify(FileIdentity& identity) override {
    return IdentifyOpen(file_, path_, identity);
  }
  std::uint32_t GetSize(std::uint64_t& size) override { return SizeOf(file_, size); }
  std::uint32_t Read(std::uint64_t offset, std::span<std::byte> buffer) override {
    return ReadAt(file_, offset, buffer);
  }
  std::uint32_t SetSize(std::uint64_t size) override {
    FILE_END_OF_FILE_INFO end = {};
    end.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
    return CodeOf(::SetFileInformationByHandle(file_.get(), FileEndOfFileInfo, &end, sizeof end));
  }
  std::uint32_t Write(std::uint64_t offset, std::span<const std::byte> bytes) override {
    return WriteAt(file_, offset, bytes);
  }
  bool HasHoles() override { return TakesLessThanItsSize(file_); }
  bool KeepHoles() override {
    DWORD returned = 0;
    return ::DeviceIoControl(file_.get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned,
                             nullptr) != 0;
  }
  std::uint32_t Flush() override { return CodeOf(::FlushFileBuffers(file_.get())); }
  std::uint32_t GetWriteTime(FileTime& written) override { return WriteTimeOf(file_, written); }

  // A time that was set is not moved by the closing of the file.
  std::uint32_t Stamp(FileTime now, FileTime& written) override {
    const FILETIME time = {static_cast<DWORD>(now), static_cast<DWORD>(now >> 32)};
    std::uint32_t code = CodeOf(::SetFileTime(file_.get(), nullptr, nullptr, &time));
    if (code == ERROR_SUCCESS) code = Flush();
    return code == ERROR_SUCCESS ? WriteTimeOf(file_, written) : code;
  }

  // Others who look at the old file for a moment, as virus scanners do, are waited for.
  std::uint32_t Commit() override {
    constexpr int kTries = 20;
    constexpr DWORD kPauseMs = 100;
    file_.reset();
    std::uint32_t code = Move();
    for (int i = 1; i < kTries && (code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION);
         ++i) {
      ::Sleep(kPauseMs);
      code = Move();
    }
    if (code == ERROR_SUCCESS) place_.clear();
    return code;
  }

 private:
  [[nodiscard]] std::uint32_t Move() {
    return CodeOf(::MoveFileExW(path_.c_str(), place_.c_str(),
                                MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH));
  }

  UniqueFile file_;
  std::wstring path_;
  std::wstring place_;
};

class SystemLock : public HeldLock {
 public:
  explicit SystemLock(UniqueFile file) : file_(std::move(file)) {}

 private:
  UniqueFile file_;
};

std::uint32_t Open(const std::wstring& path, DWORD access, DWORD share, DWORD disposition,
                   UniqueFile& file, DWORD flags = FILE_ATTRIBUTE_NORMAL) {
  file.reset(::CreateFileW(path.c_str(), access, share, nullptr, disposition, flags, nullptr));
  return file ? ERROR_SUCCESS : ::GetLastError();
}

// A new file under a name that nobody has.
std::uint32_t CreateUnnamed(const std::wstring& path, std::wstring& beside, UniqueFile& file) {
  constexpr int kTries = 1000;
  std::uint32_t code = ERROR_FILE_EXISTS;
  for (int i = 1; i <= kTries && code == ERROR_FILE_EXISTS; ++i) {
    beside = path + L".zelctl-new";
    if (i > 1) beside.append(L"-").append(std::to_wstring(i));
    code = Open(beside, GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW, file);
  }
  return code;
}

}  // namespace

// From the first of the volume's names, which the system tells when it is asked for the name of a
// name; where it does not, from the one it knows.
std::optional<VolumeGuid> VolumeOf(const std::wstring& path) {
  constexpr std::wstring_view kLongPath = L"\\\\?\\";
  // Volumes are not looked up by that form of a path with a drive letter everywhere.
  if (path.starts_with(kLongPath) && path.substr(kLongPath.size()).find(L':') == 1) {
    return VolumeOf(path.substr(kLongPath.size()));
  }
  wchar_t mount_point[MAX_PATH];
  wchar_t name[128];
  wchar_t first_name[128];
  if (!::GetVolumePathNameW(path.c_str(), mount_point, MAX_PATH) ||
      !::GetVolumeNameForVolumeMountPointW(mount_point, name, 128)) {
    return std::nullopt;
  }
  const bool has_first = ::GetVolumeNameForVolumeMountPointW(name, first_name, 128);
  return ParseVolumeGuid(GuidTextInVolumeName(has_first ? first_name : name));
}

std::uint32_t OpenSystemSource(const std::wstring& path, std::unique_ptr<SourceFile>& file) {
  UniqueFile handle;
  const std::uint32_t code = Open(path, GENERIC_READ, kShareAll, OPEN_EXISTING, handle);
  if (code == ERROR_SUCCESS) file = std::make_unique<SystemSource>(std::move(handle), path);
  return code;
}

std::uint32_t OpenSystemTarget(const std::wstring& path, std::unique_ptr<TargetFile>& file) {
  UniqueFile handle;
  const std::uint32_t code =
      Open(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING, handle);
  if (code == ERROR_SUCCESS) {
    file = std::make_unique<SystemTarget>(std::move(handle), path, std::wstring());
  }
  return code;
}

std::uint32_t CreateSystemReplacement(const std::wstring& path, const std::wstring& beside,
                                      std::unique_ptr<ReplacementFile>& file) {
  UniqueFile handle;
  std::wstring made = beside;
  const std::uint32_t code =
      beside.empty() ? CreateUnnamed(path, made, handle)
                     : Open(beside, GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS, handle);
  if (code == ERROR_SUCCESS) {
    file = std::make_unique<SystemTarget>(std::move(handle), std::move(made), path);
  }
  return code;
}

std::uint32_t LockSystemFile(const std::wstring& path, std::unique_ptr<HeldLock>& lock) {
  UniqueFile handle;
  const std::uint32_t code = Open(path, GENERIC_READ | GENERIC_WRITE | DELETE, 0, OPEN_ALWAYS,
                                  handle, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_DELETE_ON_CLOSE);
  if (code == ERROR_SUCCESS) lock = std::make_unique<SystemLock>(std::move(handle));
  return code;
}

}  // namespace zel::ctl
