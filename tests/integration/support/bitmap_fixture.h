// Bitmap files made byte by byte in a CBT directory of the test's own, and a clock that the test
// sets.
#pragma once

#include <windows.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "bitmap/bitmap_manager.h"
#include "bitmap/record_changes.h"
#include "files/file_identity.h"
#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/log_fixture.h"

extern "C" {
extern void* __imp_GetSystemTimeAsFileTime;
}

namespace zel::test {

inline constexpr VolumeGuid kVolume = {
    0x01234567, 0x89AB, 0xCDEF, {1, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
inline constexpr wchar_t kVolumeText[] = L"01234567-89ab-cdef-0123-456789abcdef";
inline constexpr FileId kFile = 0x0001000000000123;
inline constexpr FileKey kKey = {kVolume, kFile};

inline constexpr std::uint32_t kBlockSize = 0x10000;
inline constexpr FileTime kCreated = 0x01D2A3B4C5D6E7F8;
inline constexpr FileTime kSecond = 10'000'000;

inline constexpr std::string_view kBitmapErrors =
    "zelservicelog=none\nzelservicelog:bitmap=error\nzelservicelog:drivercomm=none\n";
inline constexpr std::string_view kBitmapWarnings =
    "zelservicelog=none\nzelservicelog:bitmap=warn\nzelservicelog:drivercomm=none\n";

// Offsets in a bitmap file.
inline constexpr std::size_t kAtLastUpdateTime = 0x30;
inline constexpr std::size_t kAtClosedCleanly = 0x3C;
inline constexpr std::size_t kAtUnreliable = 0x3F;
inline constexpr std::size_t kAtBitmapSize = 0x40;
inline constexpr std::size_t kHeaderBytes = 512;

inline void Put(std::string& bytes, std::size_t offset, std::uint64_t value, std::size_t size) {
  std::memcpy(bytes.data() + offset, &value, size);
}

inline std::uint64_t Get(const std::string& bytes, std::size_t offset, std::size_t size) {
  std::uint64_t value = 0;
  if (offset + size <= bytes.size()) std::memcpy(&value, bytes.data() + offset, size);
  return value;
}

// A bitmap file that was closed cleanly, with `bits` behind its header.
inline std::string GoodBitmap(const FileKey& file, const std::string& bits,
                              FileTime created = kCreated) {
  std::string bytes(kHeaderBytes, '\0');
  Put(bytes, 0x00, 0x624C455A, 4);
  Put(bytes, 0x04, 512, 2);
  Put(bytes, 0x06, 22, 2);
  std::memcpy(bytes.data() + 0x08, &file.volume, 16);
  Put(bytes, 0x18, file.file_id, 8);
  for (const std::size_t time : {0x20, 0x28, 0x30, 0x58}) Put(bytes, time, created, 8);
  Put(bytes, 0x38, kBlockSize, 4);
  Put(bytes, kAtClosedCleanly, 1, 1);
  Put(bytes, kAtBitmapSize, bits.size(), 4);
  Put(bytes, 0x48, bits.size() * 8 * kBlockSize, 8);
  return bytes + bits;
}

inline std::wstring Hex(std::uint64_t value, int digits) {
  wchar_t text[17];
  ::swprintf(text, 17, L"%0*llx", digits, static_cast<unsigned long long>(value));
  return text;
}

inline std::wstring BitmapName(FileTime created) {
  return Hex(created, 16) + Hex(kBlockSize, 8);
}

inline BitmapId IdOf(const std::filesystem::path& path) {
  BitmapId id = 0;
  EXPECT_EQ(GetFileIdAndSize(path.c_str(), &id, nullptr), 0u) << path;
  return id;
}

// What GetSystemTimeAsFileTime answers while a FakeClock lives.
class FakeClock {
 public:
  static inline std::atomic<FileTime> now;

 private:
  static void WINAPI Answer(FILETIME* time) {
    const FileTime value = now;
    *time = {static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
  }
  ImportHook hook_{__imp_GetSystemTimeAsFileTime, &Answer};
};

// Each test needs a process of its own, as ctest gives it.
class BitmapFixture : public LogFixture {
 protected:
  BitmapFixture() : cbt_(UseCbtDirectoryOf(directory().wstring())) {
    EXPECT_EQ(cbt_.wstring(), L"\\\\?\\" + directory().wstring() + L"\\cbt");
    std::filesystem::create_directories(cbt_);
  }
  ~BitmapFixture() override { ShutdownBitmapManager(); }

  [[nodiscard]] const std::filesystem::path& cbt() const { return cbt_; }

  [[nodiscard]] std::filesystem::path DirectoryOf(const FileKey& file) const {
    return cbt_ / GuidToString(file.volume) / Hex(file.file_id, 16);
  }

  // Writes a bitmap file without telling the manager.
  std::filesystem::path Write(const FileKey& file, FileTime created, const std::string& bytes) {
    const std::filesystem::path path = DirectoryOf(file) / BitmapName(created);
    WriteFileBytes(path, bytes);
    return path;
  }

  // Writes a bitmap file and adds it.
  std::filesystem::path Add(const FileKey& file, FileTime created, const std::string& bytes) {
    const std::filesystem::path path = Write(file, created, bytes);
    AddBitmap(file.volume, file.file_id, IdOf(path), path.wstring(),
              static_cast<std::uint32_t>(bytes.size()));
    return path;
  }
  std::filesystem::path AddGood(const FileKey& file = kKey, FileTime created = kCreated) {
    return Add(file, created, GoodBitmap(file, std::string(16, '\0'), created));
  }

  // A write of the file's first byte, as the driver reports it.
  static void Report(const FileKey& file = kKey) {
    UpdateBitmapsForFile(file.file_id, file.volume, 0, 1);
  }

  // Deletes a bitmap by its id and returns the outputs, which start as something else.
  static FileKey Delete(BitmapId id) {
    FileKey file = {{1, 2, 3, {4}}, 5};
    DeleteBitmapById(id, file.volume, file.file_id);
    return file;
  }

  static std::vector<BitmapId> IdsListed(const FileKey& file = kKey) {
    std::vector<BitmapId> ids;
    const auto listed = ListAllBitmaps();
    if (const auto entry = listed.find(file); entry != listed.end()) {
      for (const BitmapInfo& info : entry->second) ids.push_back(info.BitmapId);
    }
    return ids;
  }

  // Whether a bitmap that was written clean is loaded now: its file then says so.
  static bool IsLoaded(const std::filesystem::path& path) {
    return Get(ReadFileBytes(path), kAtClosedCleanly, 1) == 0;
  }
  // Whether a bitmap's file says that it cannot be trusted.
  static bool IsUnreliable(const std::filesystem::path& path) {
    return Get(ReadFileBytes(path), kAtUnreliable, 1) == 1;
  }

 private:
  std::filesystem::path cbt_;
};

}  // namespace zel::test
