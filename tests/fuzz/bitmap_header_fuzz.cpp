// Any bytes as a bitmap file: loaded, refused or discarded, as LoadBitmap decides with the same
// functions. In a loaded one, writes set the bits of their blocks and nothing else of the file.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "bitmap/change/change_bitmap.h"
#include "bitmap/format/header_checks.h"
#include "bitmap/format/new_bitmap.h"
#include "files/layout.h"

namespace {

using Byte = unsigned char;

void Require(bool condition) {
  if (!condition) std::abort();
}

struct Free {
  void operator()(Byte* bytes) const { std::free(bytes); }
};

struct Range {
  std::uint32_t first;
  std::uint32_t count;
};

// Whether the header is accepted, after the edits that a load makes.
bool Accept(zel::BitmapFileHeader& header, const std::wstring& name) {
  const std::optional<std::uint32_t> block_size = zel::ParseNameBlockSize(name);
  const std::optional<zel::FileTime> time = zel::ParseNameCreationTime(name);
  for (int steps = 0; steps < 3; ++steps) {
    switch (zel::NextHeaderStep(header, block_size.value_or(0))) {
      case zel::HeaderStep::kAccept:
        return true;
      case zel::HeaderStep::kUpgradeVersion:
        zel::UpgradeVersion(header, 1, time.value_or(0));
        break;
      case zel::HeaderStep::kRepairHeaderSize:
        zel::RepairHeaderSize(header);
        break;
      default:
        return false;
    }
  }
  std::abort();  // there are two repairs at most
}

void RequireUsable(const zel::BitmapFileHeader& header) {
  Require(header.Magic == 0x624C455A && header.Version == 22 && header.HeaderSize == 512);
  Require(header.BlockSize != 0);
  Require(header.ClosedCleanly == 0);
}

// Sets the range in `bytes` by another way than the code under test: byte by byte.
void SetInModel(std::vector<Byte>& bytes, std::uint32_t bits, Range range) {
  const std::uint64_t end = std::min<std::uint64_t>(std::uint64_t{range.first} + range.count, bits);
  for (std::uint64_t bit = range.first; bit < end;) {
    if (bit % 8 == 0 && end - bit >= 8) {
      bytes[bit / 8] = 0xFF;
      bit += 8;
    } else {
      bytes[bit / 8] = static_cast<Byte>(bytes[bit / 8] | 1 << bit % 8);
      ++bit;
    }
  }
}

// Records writes of whole blocks, whose ranges are taken from the reserved part of the header.
void RecordWrites(Byte* file, std::size_t size) {
  auto& header = *reinterpret_cast<zel::BitmapFileHeader*>(file);
  const zel::RtlBitmap bits = {zel::CountBits(header.BitmapSize),
                               reinterpret_cast<std::uint32_t*>(file + sizeof header)};
  zel::ChangeBitmap bitmap(header, header.BlockSize, bits,
                           [](const zel::RtlBitmap* to, std::uint32_t first, std::uint32_t count) {
                             zel::SetBitsInRange(*to, first, count);
                           });
  std::vector<Byte> expected_header(file, file + sizeof header);
  std::vector<Byte> expected(file + sizeof header, file + size);
  bool passes_end = header.SizeChanged != 0;
  for (std::size_t at = 0; at < 64; at += sizeof(Range)) {
    Range range;
    std::memcpy(&range, header.reserved_60 + at, sizeof range);
    // Most numbers are far outside: fold half of them into the bitmap and a little past its end.
    if (range.first % 2 == 0) range.first = range.first / 2 % (bits.SizeOfBitMap + 9);
    if (range.count % 2 == 0) range.count = range.count / 2 % (bits.SizeOfBitMap + 9);
    range.count = std::min(range.count, 0xFFFFFFFF / header.BlockSize);
    bitmap.RecordWrite(std::uint64_t{range.first} * header.BlockSize,
                       range.count * header.BlockSize, 9);
    SetInModel(expected, bits.SizeOfBitMap, range);
    passes_end |= std::uint64_t{range.first} + range.count > bits.SizeOfBitMap;
  }
  // Of the header the stamp and the mark, nothing else.
  const std::uint64_t now = 9;
  std::memcpy(expected_header.data() + 0x30, &now, sizeof now);
  if (passes_end && expected_header[0x3E] == 0) expected_header[0x3E] = 1;
  Require(std::equal(expected_header.begin(), expected_header.end(), file));
  Require(std::equal(expected.begin(), expected.end(), file + sizeof header));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const Byte* data, std::size_t size) {
  // As a view shows it: a file shorter than a header reads as zeros behind its end.
  zel::BitmapFileHeader header = {};
  std::memcpy(&header, data, std::min(size, sizeof header));
  if (!zel::FitsBitmapFile(header.BitmapSize, static_cast<std::uint32_t>(size))) return 0;
  Require(size >= sizeof header);

  const bool was_clean = header.ClosedCleanly == 1;
  const auto mark = zel::MarkInUse(header, 1);
  Require((mark == zel::InUseMark::kWasClean) == was_clean);
  Require(was_clean || header.Unreliable != 0);
  // A reserved byte tells whether the name agrees with the header.
  const std::uint32_t named = header.reserved_3d % 8 == 7 ? ~header.BlockSize : header.BlockSize;
  if (!Accept(header, zel::FormatBitmapName(header.CreationTime, named))) return 0;
  RequireUsable(header);

  // A block that ends where the file does, for AddressSanitizer.
  const std::unique_ptr<Byte, Free> file(static_cast<Byte*>(std::malloc(size)));
  std::memcpy(file.get(), data, size);
  std::memcpy(file.get(), &header, sizeof header);
  RecordWrites(file.get(), size);
  return 0;
}
