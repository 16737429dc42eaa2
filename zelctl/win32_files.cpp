#include "zelctl/win32_files.h"

#include <algorithm>

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

class SystemSource : public SourceFile {
 public:
  explicit SystemSource(UniqueFile file) : file_(std::move(file)) {}
  std::uint32_t GetSize(std::uint64_t& size) override { return SizeOf(file_, size); }
  std::uint32_t Read(std::uint64_t offset, std::span<std::byte> buffer) override {
    return ReadAt(file_, offset, buffer);
  }

 private:
  UniqueFile file_;
};

// A file that is written, in its own place or for another one.
class SystemTarget : public ReplacementFile {
 public:
  // `place` and `beside` are empty for a file in its own place.
  SystemTarget(UniqueFile file, std::wstring place, std::wstring beside)
      : file_(std::move(file)), place_(std::move(place)), beside_(std::move(beside)) {}
  ~SystemTarget() override {
    file_.reset();
    if (!beside_.empty()) ::DeleteFileW(beside_.c_str());
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
  std::uint32_t Flush() override { return CodeOf(::FlushFileBuffers(file_.get())); }

  std::uint32_t Commit() override {
    file_.reset();
    const std::uint32_t code = CodeOf(::MoveFileExW(
        beside_.c_str(), place_.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH));
    if (code == ERROR_SUCCESS) beside_.clear();
    return code;
  }

 private:
  UniqueFile file_;
  std::wstring place_;
  std::wstring beside_;  // to be deleted; empty for nothing
};

std::uint32_t Open(const std::wstring& path, DWORD access, DWORD share, DWORD disposition,
                   UniqueFile& file) {
  file.reset(::CreateFileW(path.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                           nullptr));
  return file ? ERROR_SUCCESS : ::GetLastError();
}

}  // namespace

std::uint32_t OpenSystemSource(const std::wstring& path, std::unique_ptr<SourceFile>& file) {
  UniqueFile handle;
  const std::uint32_t code = Open(path, GENERIC_READ, kShareAll, OPEN_EXISTING, handle);
  if (code == ERROR_SUCCESS) file = std::make_unique<SystemSource>(std::move(handle));
  return code;
}

std::uint32_t OpenSystemTarget(const std::wstring& path, std::unique_ptr<TargetFile>& file) {
  UniqueFile handle;
  const std::uint32_t code =
      Open(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING, handle);
  if (code == ERROR_SUCCESS) {
    file = std::make_unique<SystemTarget>(std::move(handle), std::wstring(), std::wstring());
  }
  return code;
}

std::uint32_t CreateSystemReplacement(const std::wstring& path,
                                      std::unique_ptr<ReplacementFile>& file) {
  std::wstring beside = path + L".zelctl-new";
  UniqueFile handle;
  const std::uint32_t code = Open(beside, GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS, handle);
  if (code == ERROR_SUCCESS) {
    file = std::make_unique<SystemTarget>(std::move(handle), path, std::move(beside));
  }
  return code;
}

}  // namespace zel::ctl
