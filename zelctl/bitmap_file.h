// A bitmap's header and bits, read from a file or from the service. Pure.
//
// Format: docs/file-format.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bitmap/format/bitmap_header.h"

namespace zel::ctl {

// Who the bytes come from.
enum class BitmapOrigin {
  kFile,     // a bitmap file that nobody may be using
  kService,  // the service, in whose use it was
};

enum class Trust {
  kTrusted,     // every block that was written has its bit
  kUnreliable,  // changes may be missing
  kInUse,       // a file that the service is using, or that it left behind when it died
};

struct BitmapFile {
  BitmapFileHeader header;
  std::vector<std::byte> bytes;  // header and bits
  BitmapOrigin origin = BitmapOrigin::kFile;
  bool has_checksum = false;  // an exported file, which is as it was written
  // Of an exported file: every write up to here is in it. None where nobody knows.
  std::optional<FileTime> known_until = {};

  [[nodiscard]] std::span<const std::byte> bits() const {
    return std::span(bytes).subspan(kBitmapHeaderSize, header.BitmapSize);
  }
};

// None for success; otherwise what is wrong with the bytes, and `bitmap` is unchanged then. A
// bitmap that was read has a block size and a bit for each block of its file size; what old
// versions write differently in the header reads as in new ones. The bytes of an exported file
// are those that were exported.
[[nodiscard]] std::optional<std::string> ReadBitmap(std::vector<std::byte> bytes,
                                                    BitmapOrigin origin, BitmapFile& bitmap);

// The same in two steps, of a bitmap that the service sends: what is wrong with its header, of
// kBitmapHeaderSize bytes, and with the whole file's length.
[[nodiscard]] std::optional<std::string> ReadSentHeader(std::span<const std::byte> bytes,
                                                        BitmapFileHeader& header);
[[nodiscard]] std::optional<std::string> CheckLength(const BitmapFileHeader& header,
                                                     std::uint64_t length);

// Whether the bytes that a file begins with are a bitmap's.
[[nodiscard]] bool BeginsLikeBitmap(std::span<const std::byte> bytes);

[[nodiscard]] Trust TrustOf(const BitmapFile& bitmap);

// The bitmap as a file of its own, for somebody who got it from the service: nobody uses that file,
// a checksum is in it, and until when it knows of every write, where that is known.
void MakeExport(BitmapFile& bitmap, std::optional<FileTime> known_until);

// The same of a header's bytes alone: with a checksum of 0, which is what the checksum of the whole
// file is taken of, and then with that one.
void BeginExport(std::span<std::byte> header, std::optional<FileTime> known_until);
void FinishExport(std::span<std::byte> header, std::uint64_t checksum);

}  // namespace zel::ctl
