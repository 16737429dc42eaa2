#include "zelctl/bitmap_file.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "bitmap/format/new_bitmap.h"
#include "zelctl/checksum.h"

namespace zel::ctl {

namespace {

// What an export has in the reserved bytes of the header, which everybody else leaves 0.
struct ExportMark {        // offset
  std::uint32_t magic;     // 0x60  the bytes "ZELx"
  std::uint32_t version;   // 0x64  1
  FileTime known_until;    // 0x68  0 for unknown
  std::uint64_t checksum;  // 0x70  of the whole file, with 0 in its place
};
constexpr std::size_t kMarkOffset = offsetof(BitmapFileHeader, reserved_60);
constexpr std::uint32_t kMarkMagic = 0x784C455A;
constexpr std::uint32_t kMarkVersion = 1;
static_assert(sizeof(ExportMark) == 24 && kMarkOffset == 0x60);
static_assert(offsetof(ExportMark, known_until) == 8 && offsetof(ExportMark, checksum) == 16);

ExportMark MarkOf(std::span<const std::byte> bytes) {
  ExportMark mark;
  std::memcpy(&mark, bytes.data() + kMarkOffset, sizeof mark);
  return mark;
}

void PutMark(std::span<std::byte> bytes, const ExportMark& mark) {
  std::memcpy(bytes.data() + kMarkOffset, &mark, sizeof mark);
}

bool IsEmpty(const ExportMark& mark) {
  return mark.magic == 0 && mark.version == 0 && mark.known_until == 0 && mark.checksum == 0;
}

constexpr char kUnknownMark[] = "its reserved bytes hold what no known version writes";

std::string Hex(std::uint32_t value) {
  std::array<char, 11> text;
  std::snprintf(text.data(), text.size(), "0x%08x", static_cast<unsigned>(value));
  return text.data();
}

std::string Number(std::uint64_t value) {
  return std::to_string(value);
}

std::optional<std::string> CheckHeader(const BitmapFileHeader& header) {
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
  if (header.InitialTime != header.CreationTime ||
      (header.Version == kBitmapVersion && header.NameCreationTime != header.CreationTime)) {
    return "its times of creation do not agree";
  }
  const std::optional<std::uint32_t> needed = ComputeBitmapSize(header.FileSize, header.BlockSize);
  if (!needed || header.BitmapSize != *needed) {
    return "its " + Number(header.BitmapSize) + " bytes of bits are not those of " +
           Number(header.FileSize) + " bytes in blocks of " + Number(header.BlockSize);
  }
  return std::nullopt;
}

// Reads the mark, where there is one.
std::optional<std::string> CheckMark(std::span<std::byte> bytes, bool& has_checksum,
                                     std::optional<FileTime>& known_until) {
  const ExportMark mark = MarkOf(bytes);
  if (IsEmpty(mark)) return std::nullopt;
  if (mark.magic != kMarkMagic || mark.version != kMarkVersion) return kUnknownMark;
  FinishExport(bytes, 0);
  const bool is_whole = Checksum(bytes) == mark.checksum;
  PutMark(bytes, mark);
  if (!is_whole) return "it is damaged: its checksum is wrong";
  has_checksum = true;
  if (mark.known_until != 0) known_until = mark.known_until;
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
  if (auto fault = CheckHeader(header)) return fault;
  if (auto fault = CheckLength(header, bytes.size())) return fault;
  bool has_checksum = false;
  std::optional<FileTime> known_until;
  if (auto fault = CheckMark(bytes, has_checksum, known_until)) return fault;
  if (header.Version == kOldBitmapVersion) header.NameCreationTime = header.CreationTime;
  bitmap = {.header = header,
            .bytes = std::move(bytes),
            .origin = origin,
            .has_checksum = has_checksum,
            .known_until = known_until};
  return std::nullopt;
}

std::optional<std::string> ReadSentHeader(std::span<const std::byte> bytes,
                                          BitmapFileHeader& header) {
  std::memcpy(&header, bytes.data(), sizeof header);
  if (auto fault = CheckHeader(header)) return fault;
  if (!IsEmpty(MarkOf(bytes))) return kUnknownMark;
  return std::nullopt;
}

std::optional<std::string> CheckLength(const BitmapFileHeader& header, std::uint64_t length) {
  // Some old files are as much longer as the size of their header says.
  const std::uint64_t whole = kBitmapHeaderSize + std::uint64_t{header.BitmapSize};
  if (length == whole || length == header.HeaderSize + std::uint64_t{header.BitmapSize}) {
    return std::nullopt;
  }
  return "it has " + Number(length) + " bytes, not " + Number(whole);
}

bool BeginsLikeBitmap(std::span<const std::byte> bytes) {
  std::uint32_t magic = 0;
  if (bytes.size() < sizeof magic) return false;
  std::memcpy(&magic, bytes.data(), sizeof magic);
  return magic == kBitmapMagic;
}

Trust TrustOf(const BitmapFile& bitmap) {
  if (bitmap.header.Unreliable != 0) return Trust::kUnreliable;
  // The service marks what it uses and checks what it finds: its word counts.
  if (bitmap.origin == BitmapOrigin::kService) return Trust::kTrusted;
  return bitmap.header.ClosedCleanly == 1 ? Trust::kTrusted : Trust::kInUse;
}

void MakeExport(BitmapFile& bitmap, std::optional<FileTime> known_until) {
  bitmap.header.ClosedCleanly = 1;
  bitmap.has_checksum = true;
  bitmap.known_until = known_until;
  BeginExport(bitmap.bytes, known_until);
  FinishExport(bitmap.bytes, Checksum(bitmap.bytes));
}

void BeginExport(std::span<std::byte> header, std::optional<FileTime> known_until) {
  header[offsetof(BitmapFileHeader, ClosedCleanly)] = std::byte{1};
  PutMark(header, {.magic = kMarkMagic,
                   .version = kMarkVersion,
                   .known_until = known_until.value_or(0),
                   .checksum = 0});
}

void FinishExport(std::span<std::byte> header, std::uint64_t checksum) {
  ExportMark mark = MarkOf(header);
  mark.checksum = checksum;
  PutMark(header, mark);
}

}  // namespace zel::ctl
