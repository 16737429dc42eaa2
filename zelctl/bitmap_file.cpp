#include "zelctl/bitmap_file.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "bitmap/format/new_bitmap.h"

namespace zel::ctl {

namespace {

std::string Hex(std::uint32_t value) {
  std::array<char, 11> text;
  std::snprintf(text.data(), text.size(), "0x%08x", static_cast<unsigned>(value));
  return text.data();
}

std::string Number(std::uint64_t value) {
  return std::to_string(value);
}

std::optional<std::string> CheckHeader(const BitmapFileHeader& header, std::uint64_t length) {
  if (header.Magic != kBitmapMagic) {
    return "it is no bitmap file: it begins with " + Hex(header.Magic) + ", not with " +
           Hex(kBitmapMagic);
  }
  if (header.Version != kBitmapVersion && header.Version != kOldBitmapVersion) {
    return "its version is " + Number(header.Version) + "; known are 21 and 22";
  }
  if (header.HeaderSize != kBitmapHeaderSize && header.HeaderSize != kOldBitmapHeaderSize) {
    return "its header size is " + Number(header.HeaderSize) + "; known are 512 and 520";
  }
  if (header.BlockSize == 0) return "its block size is 0";
  if (kBitmapHeaderSize + std::uint64_t{header.BitmapSize} > length) {
    return "it is cut off: " + Number(header.BitmapSize) + " bytes of bits do not fit " +
           Number(length) + " bytes";
  }
  const std::optional<std::uint32_t> needed = ComputeBitmapSize(header.FileSize, header.BlockSize);
  if (!needed || header.BitmapSize < *needed) {
    return "its " + Number(header.BitmapSize) + " bytes of bits are too few for " +
           Number(header.FileSize) + " bytes in blocks of " + Number(header.BlockSize);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> ReadBitmap(std::vector<std::byte> bytes, BitmapOrigin origin,
                                      BitmapFile& bitmap) {
  BitmapFileHeader header;
  if (bytes.size() < sizeof header) {
    return "it has " + Number(bytes.size()) + " bytes, fewer than a header's 512";
  }
  std::memcpy(&header, bytes.data(), sizeof header);
  if (auto fault = CheckHeader(header, bytes.size())) return fault;
  if (header.Version == kOldBitmapVersion) header.NameCreationTime = header.CreationTime;
  bitmap = {.header = header, .bytes = std::move(bytes), .origin = origin};
  return std::nullopt;
}

Trust TrustOf(const BitmapFile& bitmap) {
  if (bitmap.header.Unreliable != 0) return Trust::kUnreliable;
  // The service marks what it uses and checks what it finds: its word counts.
  if (bitmap.origin == BitmapOrigin::kService) return Trust::kTrusted;
  return bitmap.header.ClosedCleanly == 1 ? Trust::kTrusted : Trust::kInUse;
}

void MarkClosed(BitmapFile& bitmap) {
  bitmap.header.ClosedCleanly = 1;
  bitmap.bytes[offsetof(BitmapFileHeader, ClosedCleanly)] = std::byte{1};
}

}  // namespace zel::ctl
