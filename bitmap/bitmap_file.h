// The files of bitmaps, as what is built upon them needs them: opened and mapped, flushed, deleted.
// bitmap/mapped_bitmap_file.cpp has them on Windows; tests have them in memory.
//
// Threads: one BitmapFile belongs to one thread at a time, but for its view. BitmapFiles: any.
// Errors: Win32 codes, 0 for success; nothing is logged here. Where a link stands for the file or
// one of its two directories, nothing behind it is touched: kLinkRefused (win32/no_links.h).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "bitmap/format/bitmap_header.h"

namespace zel {

// An open file with all of it in memory. Its end unmaps and closes; nothing is flushed then.
class BitmapFile {
 public:
  BitmapFile() = default;
  virtual ~BitmapFile() = default;
  BitmapFile(const BitmapFile&) = delete;
  BitmapFile& operator=(const BitmapFile&) = delete;

  // The file's first byte. A file shorter than a header is followed by zeros.
  [[nodiscard]] BitmapFileHeader* header() const { return header_; }

  // The low 32 bits of the file's length when it was opened.
  [[nodiscard]] std::uint32_t size() const { return size_; }

  // Hand what memory has to the file cache, and that to the device.
  [[nodiscard]] virtual std::uint32_t FlushBitmapHeader() = 0;
  [[nodiscard]] virtual std::uint32_t FlushView() = 0;
  [[nodiscard]] virtual std::uint32_t FlushToDevice() = 0;

 protected:
  BitmapFileHeader* header_ = nullptr;
  std::uint32_t size_ = 0;
};

enum class OpenStep { kOpen, kSize, kMapping, kView };

struct OpenError {
  OpenStep step = OpenStep::kOpen;  // the one that failed
  std::uint32_t code = 0;
};

class BitmapFiles {
 public:
  virtual ~BitmapFiles() = default;

  // Opens and maps a file, which then nobody else may write to. Null for a failure.
  [[nodiscard]] virtual std::unique_ptr<BitmapFile> Open(const std::wstring& path,
                                                         OpenError& error) = 0;

  [[nodiscard]] virtual std::uint32_t Delete(const std::wstring& path) = 0;

  // Marks a file Unreliable on the device, whoever else has it open and shares writing; one too
  // short for a header stays as it is, and is no failure.
  [[nodiscard]] virtual std::uint32_t Distrust(const std::wstring& path) = 0;

  // The mark beside a file that cannot be opened: changes are missing from it. On the device once
  // it is left; one that is there already is no failure, nor is one that is not there to be
  // removed.
  [[nodiscard]] virtual std::uint32_t LeaveMissedMark(const std::wstring& path) = 0;
  [[nodiscard]] virtual std::uint32_t RemoveMissedMark(const std::wstring& path) = 0;

  // True in doubt.
  [[nodiscard]] virtual bool HasMissedMark(const std::wstring& path) = 0;
};

// The files of this system. Lives as long as the process.
[[nodiscard]] BitmapFiles& SystemBitmapFiles();

}  // namespace zel
