// A bitmap that the service sends, written into a file of its own as it arrives: however large it
// is, it takes the memory of its header. Pure.
#pragma once

#include "zelctl/bitmap_file.h"
#include "zelctl/checksum.h"
#include "zelctl/commands.h"

namespace zel::ctl {

// Writes the bitmap that `request` names to its output, whole or not at all. Lifetime: borrows both
// arguments.
class BitmapExport {
 public:
  BitmapExport(Surroundings& with, const Request& request, std::optional<FileTime> known_until)
      : with_(with), request_(request), known_until_(known_until) {}
  BitmapExport(const BitmapExport&) = delete;
  BitmapExport& operator=(const BitmapExport&) = delete;

  // The sink that the service's answer goes into. Another code than 0 once there is a failure.
  [[nodiscard]] std::uint32_t Take(std::span<const std::byte> bytes);
  [[nodiscard]] const MaybeFailure& failure() const { return failure_; }

  // Puts the file in its place. Called once, when all has come.
  [[nodiscard]] MaybeFailure Finish();

  [[nodiscard]] std::uint64_t size() const { return size_; }
  [[nodiscard]] Trust trust() const;

 private:
  [[nodiscard]] MaybeFailure TakeHeader();
  [[nodiscard]] MaybeFailure TakeBits(std::span<const std::byte> bytes);
  [[nodiscard]] MaybeFailure CheckWritten(std::uint32_t code);
  [[nodiscard]] MaybeFailure Damaged(const std::string& fault) const;

  Surroundings& with_;
  const Request& request_;
  const std::optional<FileTime> known_until_;
  MaybeFailure failure_;
  std::vector<std::byte> header_bytes_;
  BitmapFileHeader header_ = {};  // once all of it has come
  std::unique_ptr<ReplacementFile> file_;
  RunningChecksum checksum_;
  std::uint64_t size_ = 0;  // of what has come
};

}  // namespace zel::ctl
