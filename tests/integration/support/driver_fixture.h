// Bitmaps of a test's own and the driver's messages about their files.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "bitmap/create_bitmap.h"
#include "driver/driver_protocol.h"
#include "driver/message_handler.h"
#include "tests/integration/support/bitmap_fixture.h"

extern "C" {
extern void* __imp_WaitForSingleObject;
}

namespace zel::test {

inline constexpr std::uint32_t kOtherProcess = 4711;
inline constexpr FileTime kEventTime = 0x01DC92C3A1B2C3D4;  // 134143457843397588
inline constexpr std::size_t kAtSizeChanged = 0x3E;

inline constexpr std::string_view kDriverDebug =
    "zelservicelog=none\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=debug\n";
inline constexpr std::string_view kDriverErrors =
    "zelservicelog=none\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=error\n";

// A message about the file kKey by another process.
inline DriverMessage MakeMessage(DriverMessageType type, FileTime time = kEventTime) {
  DriverMessage message = {};
  message.Magic = kDriverMessageMagic;
  message.Type = type;
  message.ProcessId = kOtherProcess;
  message.Timestamp = time;
  message.FileId = kFile;
  message.VolumeGuid = kVolume;
  return message;
}

inline DriverMessage MakeWrite(std::uint64_t offset, std::uint32_t length,
                               FileTime time = kEventTime) {
  DriverMessage message = MakeMessage(DriverMessageType::kWrite, time);
  message.OffsetOrSize = offset;
  message.Length = length;
  return message;
}

inline DriverMessage MakeSizeChange(std::uint64_t size) {
  DriverMessage message = MakeMessage(DriverMessageType::kSizeChanged);
  message.OffsetOrSize = size;
  return message;
}

inline void Handle(const DriverMessage& message) {
  HandleDriverMessage(std::as_bytes(std::span(&message, 1)));
}

class DriverFixture : public BitmapFixture {
 protected:
  // A bitmap of the file kKey, made by the product, of `bits` bits.
  static BitmapId Create(std::uint32_t bits, std::uint32_t block_size = test::kBlockSize,
                         std::uint64_t file_size = 0) {
    ++FakeClock::now;  // if there is one: bitmaps of one moment have one name
    BitmapId id = 0;
    if (file_size == 0) file_size = std::uint64_t{bits} * block_size;
    EXPECT_TRUE(CreateNewBitmap(kVolume, kFile, bits / 8, block_size, file_size, id));
    return id;
  }

  // The numbers of the bits that are set.
  static std::vector<std::uint32_t> Bits(BitmapId id) {
    std::vector<std::uint32_t> set;
    const PinnedBitmap bitmap = GetBitmapById(id);
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(bitmap->header() + 1);
    for (std::uint32_t bit = 0; bit < bitmap->BitmapHeader.SizeOfBitMap; ++bit) {
      if ((bytes[bit / 8] >> bit % 8 & 1) != 0) set.push_back(bit);
    }
    return set;
  }
  static BitmapFileHeader Header(BitmapId id) { return *GetBitmapById(id)->header(); }
};

// Waits of this program with a limit end at once, as time-outs unless their object is signalled;
// the FakeClock moves on by as long as they would have taken.
class ShortWaits {
 public:
  ShortWaits() { real_ = reinterpret_cast<Wait>(hook_.original()); }

  // The limits of the waits so far, in order.
  std::vector<DWORD> Take() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(limits_ms_, {});
  }

  // Called by every such wait after it has been noted.
  static inline std::function<void()> on_wait = [] {};

 private:
  using Wait = decltype(&::WaitForSingleObject);

  static DWORD WINAPI Answer(HANDLE handle, DWORD limit_ms) {
    if (limit_ms == INFINITE || limit_ms == 0) return real_(handle, limit_ms);
    if (real_(handle, 0) == WAIT_OBJECT_0) return WAIT_OBJECT_0;  // nothing to wait for
    {
      const std::scoped_lock lock(mutex_);
      limits_ms_.push_back(limit_ms);
    }
    FakeClock::now += limit_ms * (kSecond / 1000);
    on_wait();
    return real_(handle, 1);
  }

  static inline std::mutex mutex_;
  static inline std::vector<DWORD> limits_ms_;
  static inline Wait real_ = nullptr;
  FakeClock clock_;
  ImportHook hook_{__imp_WaitForSingleObject, &Answer};
};

}  // namespace zel::test
