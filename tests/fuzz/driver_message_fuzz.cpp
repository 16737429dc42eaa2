// Any bytes as an event message, up to a whole receive buffer: told to be faulty, or read as what
// their bytes say. The written range then stays inside every bitmap.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bitmap/change/change_bitmap.h"
#include "driver/driver_protocol.h"

namespace {

using Byte = unsigned char;

void Require(bool condition) {
  if (!condition) std::abort();
}

// The little-endian number of `size` bytes at `at`; 0 for what lies behind the end.
std::uint64_t Number(const Byte* data, std::size_t length, std::size_t at, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t i = size; i-- > 0;) number = number << 8 | (at + i < length ? data[at + i] : 0);
  return number;
}

void RequireFields(const zel::DriverMessage& message, const Byte* data, std::size_t size) {
  Require(message.ReplyLength == Number(data, size, 0, 4));
  Require(message.MessageId == Number(data, size, 8, 8));
  Require(message.Magic == Number(data, size, 16, 4));
  Require(static_cast<std::uint16_t>(message.Type) == Number(data, size, 20, 2));
  Require(message.UnreportedChanges == Number(data, size, 22, 1));
  Require(message.ProcessId == Number(data, size, 24, 4));
  Require(message.Timestamp == Number(data, size, 32, 8));
  Require(message.FileId == Number(data, size, 40, 8));
  Require(message.VolumeGuid.Data1 == Number(data, size, 48, 4));
  Require(message.VolumeGuid.Data4[7] == Number(data, size, 63, 1));
  Require(message.OffsetOrSize == Number(data, size, 64, 8));
  Require(message.Length == Number(data, size, 72, 4));
}

// What was set last, and the bitmap's size, for the setter that notes instead of setting.
struct Noted {
  std::uint32_t bit_count;
  bool sets;
};
thread_local Noted noted;

void RequireInside(const zel::RtlBitmap* bitmap, std::uint32_t first, std::uint32_t count) {
  Require(bitmap->SizeOfBitMap == noted.bit_count);
  Require(std::uint64_t{first} + count <= noted.bit_count);
  noted.sets = true;
}

// The message's numbers as a write and as a size change of files with all kinds of bitmaps.
void ApplyToBitmaps(const zel::DriverMessage& message) {
  using Owed = zel::ChangeBitmap::Owed;
  for (const std::uint32_t block_size : {1u, 3u, 4096u, 65'536u, 0xFFFFFFFFu}) {
    for (const std::uint32_t bit_count : {0u, 1u, 8u, 1000u, 0xFFFFFFFFu}) {
      noted = {bit_count, false};
      zel::BitmapFileHeader header = {};
      header.FileSize = message.FileId;
      zel::ChangeBitmap bitmap(header, block_size, {bit_count, nullptr}, RequireInside);
      const auto recorded = bitmap.RecordWrite(message.OffsetOrSize, message.Length, 1);
      const std::uint64_t first = message.OffsetOrSize / block_size;
      Require(recorded.block_number_cut == first > 0xFFFFFFFF);
      Require((header.SizeChanged != 0) == (recorded.owed == Owed::kHeaderToDevice));
      // A write of something is in a bit, or the bitmap says that it is not.
      Require(message.Length == 0 || noted.sets || header.SizeChanged != 0);
      const Owed owed = bitmap.RecordSize(message.OffsetOrSize, 2);
      Require(message.OffsetOrSize == header.FileSize || header.SizeChanged != 0);
      Require(owed == Owed::kNothing || recorded.owed == Owed::kNothing);
      Require(header.Unreliable == 0);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const Byte* data, std::size_t size) {
  // A block that ends where the transfer does, for AddressSanitizer.
  const std::unique_ptr<std::byte[]> bytes(new std::byte[size]);
  if (size != 0) std::memcpy(bytes.get(), data, size);
  zel::DriverMessage message;
  std::memset(&message, 0xA5, sizeof message);
  const zel::DriverMessageFault fault = zel::ParseDriverMessage({bytes.get(), size}, message);
  RequireFields(message, data, size);
  if (size < 80) {
    Require(fault == zel::DriverMessageFault::kTooSmall);
  } else if (Number(data, size, 16, 4) != 0x092ABB38) {
    Require(fault == zel::DriverMessageFault::kWrongMagic);
  } else {
    Require(fault == zel::DriverMessageFault::kNone);
    ApplyToBitmaps(message);
  }
  return 0;
}
