// Random histories of tracked files against a model that knows nothing of how bits are computed:
// an array of booleans for each bitmap. A change that the driver reported is in every bitmap of its
// file, or that bitmap says that it cannot be trusted; and no other bit is set.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bitmap/change/change_bitmap.h"
#include "bitmap/format/header_checks.h"
#include "bitmap/format/new_bitmap.h"
#include "driver/driver_protocol.h"
#include "tests/unit/support/change_model.h"

namespace zel {
namespace {

using test::Agrees;
using test::Expected;
using test::k4G;
using test::kModelBlockSizes;
using test::ModelBitmap;

// A bitmap as the service keeps it: a ChangeBitmap over a header and bits of its own.
class RealBitmap {
 public:
  RealBitmap(std::uint64_t file_size, std::uint32_t block_size, std::uint32_t bytes)
      : words_(std::make_unique<std::uint64_t[]>(bytes / 8 + 1)),
        header_(MakeHeader(file_size, block_size, bytes)),
        changes_(*header_, block_size, {bytes * 8, Bits()},
                 [](const RtlBitmap* bitmap, std::uint32_t first, std::uint32_t count) {
                   SetBitsInRange(*bitmap, first, count);
                 }) {}

  void Load() { MarkInUse(*header_, 3); }
  void Unload() { header_->ClosedCleanly = 1; }

  void Apply(const DriverMessage& message) {
    if (message.UnreportedChanges != 0) changes_.Distrust(4);
    if (message.Type == DriverMessageType::kWrite) {
      changes_.RecordWrite(message.OffsetOrSize, message.Length, 4);
    } else if (message.Type == DriverMessageType::kSizeChanged) {
      changes_.RecordSize(message.OffsetOrSize, 4);
    }
  }

  [[nodiscard]] bool Bit(std::size_t bit) const { return (Bits()[bit / 32] >> bit % 32 & 1) != 0; }
  [[nodiscard]] const BitmapFileHeader& header() const { return *header_; }

 private:
  static std::unique_ptr<BitmapFileHeader> MakeHeader(std::uint64_t file_size,
                                                      std::uint32_t block_size,
                                                      std::uint32_t bytes) {
    const NewBitmap bitmap = {.volume_guid = {},
                              .file_id = 1,
                              .creation_time = 1,
                              .bitmap_size = bytes,
                              .block_size = block_size,
                              .file_size = file_size};
    return std::make_unique<BitmapFileHeader>(ComposeNewBitmapBytes(bitmap, 2).header);
  }
  [[nodiscard]] std::uint32_t* Bits() const {
    return reinterpret_cast<std::uint32_t*>(words_.get());
  }

  std::unique_ptr<std::uint64_t[]> words_;
  std::unique_ptr<BitmapFileHeader> header_;
  ChangeBitmap changes_;
};

struct TrackedBitmap {
  ModelBitmap model;
  RealBitmap real;
  bool loaded = false;
  bool left_behind = false;
};

// A message on its way: bytes, as the driver makes them.
std::string Encode(DriverMessageType type, std::uint64_t offset, std::uint32_t length,
                   bool unreported_changes) {
  std::string bytes(80, '\0');
  const auto put = [&](std::size_t at, std::uint64_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) bytes[at + i] = static_cast<char>(value >> 8 * i);
  };
  put(16, 0x092ABB38, 4);
  put(20, static_cast<std::uint16_t>(type), 2);
  put(22, unreported_changes ? 1 : 0, 1);
  put(64, offset, 8);
  put(72, length, 4);
  return bytes;
}

// One tracked file, its driver and its service.
class History {
 public:
  explicit History(unsigned seed) : random_(seed), file_size_(random_.Size()) {}

  void AddBitmap(std::uint32_t block_size, std::uint32_t bytes) {
    const std::size_t bits = std::size_t{bytes} * 8;
    bitmaps_.push_back({{file_size_, block_size, bits}, RealBitmap(file_size_, block_size, bytes)});
  }

  // One random event.
  void Step() {
    switch (random_() % 16) {
      case 0:
        if (bitmaps_.size() < 3) AddBitmap(random_.BlockSize(), random_() % 9);
        break;
      case 1:
        if (random_() % 4 == 0) bitmaps_.clear();  // tracking is stopped
        break;
      case 2:
        Restart();
        break;
      case 3:
        Kill();
        break;
      case 4:
        drops_ = true;  // the driver runs out of room
        break;
      case 5:
      case 6:
      case 7:
        Resize(random_.Size());
        break;
      default:
        Write(random_.Offset(), random_.Length());
    }
  }

  void Write(std::uint64_t offset, std::uint32_t length) {
    Report(DriverMessageType::kWrite, offset, length);
  }
  void Resize(std::uint64_t size) {
    file_size_ = size;
    Report(DriverMessageType::kSizeChanged, size, 0);
  }

  void Restart() {
    for (TrackedBitmap& bitmap : bitmaps_) {
      if (std::exchange(bitmap.loaded, false)) bitmap.real.Unload();
    }
  }

  // What is in the mapped files outlives the process; a bitmap that was loaded is found so.
  void Kill() {
    for (TrackedBitmap& bitmap : bitmaps_) {
      if (std::exchange(bitmap.loaded, false)) bitmap.left_behind = true;
    }
  }

  void Check() const {
    for (const TrackedBitmap& bitmap : bitmaps_) {
      const ModelBitmap& model = bitmap.model;
      const RealBitmap& real = bitmap.real;
      ASSERT_TRUE(Agrees(model.size_changed, real.header().SizeChanged != 0));
      ASSERT_TRUE(Agrees(model.unreliable, real.header().Unreliable != 0));
      ASSERT_EQ(FirstWrongBit(model, real), model.bits());
    }
  }

  [[nodiscard]] const std::vector<TrackedBitmap>& bitmaps() const { return bitmaps_; }

 private:
  static std::size_t FirstWrongBit(const ModelBitmap& model, const RealBitmap& real) {
    std::size_t bit = 0;
    while (bit < model.bits() && Agrees(model.bit(bit), real.Bit(bit))) ++bit;
    return bit;
  }

  // The driver reports, or loses the message and says so with the next one.
  void Report(DriverMessageType type, std::uint64_t offset, std::uint32_t length) {
    if (std::exchange(drops_, false)) {
      lost_ = true;
      return;
    }
    const bool unreported_changes = std::exchange(lost_, false);
    const std::string bytes = Encode(type, offset, length, unreported_changes);
    DriverMessage message;
    ASSERT_EQ(ParseDriverMessage(std::as_bytes(std::span(bytes)), message),
              DriverMessageFault::kNone);
    for (TrackedBitmap& bitmap : bitmaps_) {
      Load(bitmap);
      bitmap.real.Apply(message);
      if (unreported_changes) bitmap.model.unreliable = Expected::kSet;
      if (type == DriverMessageType::kWrite) {
        bitmap.model.Write(offset, length);
      } else {
        bitmap.model.Resize(offset);
      }
    }
  }

  static void Load(TrackedBitmap& bitmap) {
    if (std::exchange(bitmap.loaded, true)) return;
    bitmap.real.Load();
    if (std::exchange(bitmap.left_behind, false)) bitmap.model.unreliable = Expected::kSet;
  }

  test::RandomReports random_;
  std::uint64_t file_size_;
  bool drops_ = false;  // the next report
  bool lost_ = false;
  std::vector<TrackedBitmap> bitmaps_;
};

TEST(ChangeModelTest, TenThousandRandomHistoriesAgreeWithTheModelAfterEveryStep) {
  std::size_t with_bits = 0;
  for (unsigned seed = 0; seed < 10'000; ++seed) {
    SCOPED_TRACE(seed);
    History history(seed);
    history.AddBitmap(kModelBlockSizes[seed % std::size(kModelBlockSizes)], seed % 9);
    for (int step = 0; step < 40; ++step) {
      history.Step();
      history.Check();
      if (::testing::Test::HasFatalFailure()) return;
    }
    with_bits += history.bitmaps().empty() ? 0 : 1;
  }
  EXPECT_GT(with_bits, 5'000u);  // else the histories would prove little
}

class GrowingFileTest : public ::testing::TestWithParam<std::uint32_t> {
 protected:
  GrowingFileTest() { history_.Resize(kBits * block_size()); }

  static constexpr std::uint64_t kBits = 64;
  static std::uint64_t block_size() { return GetParam(); }

  void Write(std::uint64_t offset, std::uint32_t length) {
    history_.Write(offset, length);
    history_.Check();
  }
  void Resize(std::uint64_t size) {
    history_.Resize(size);
    history_.Check();
  }
  [[nodiscard]] const RealBitmap& bitmap() const { return history_.bitmaps()[0].real; }
  [[nodiscard]] std::string Bits() const {
    std::string bits;
    for (std::size_t bit = 0; bit < kBits; ++bit) bits += bitmap().Bit(bit) ? '1' : '.';
    return bits;
  }

  History history_{1};
};

TEST_P(GrowingFileTest, AppendsAreTheLastBlockAndThenSizeChanged) {
  history_.AddBitmap(GetParam(), kBits / 8);
  Write(kBits * block_size() - 1, 1);
  EXPECT_EQ(Bits(), std::string(63, '.') + "1");
  EXPECT_EQ(bitmap().header().SizeChanged, 0);
  Write(kBits * block_size() - 1, 2);
  EXPECT_EQ(bitmap().header().SizeChanged, 1);
  EXPECT_EQ(Bits(), std::string(63, '.') + "1");
}

TEST_P(GrowingFileTest, WritesBehindTheLastBlockAndBehindFourGigabytesSetNoWrongBit) {
  history_.AddBitmap(GetParam(), kBits / 8);
  for (const std::uint64_t offset :
       {kBits * block_size(), k4G - 1, k4G, k4G + block_size(), k4G * 64, ~std::uint64_t{0} - 9}) {
    Write(offset, 10);
  }
  EXPECT_EQ(bitmap().header().SizeChanged, 1);
}

TEST_P(GrowingFileTest, FileThatShrinksAndGrowsKeepsWhatItLost) {
  history_.AddBitmap(GetParam(), kBits / 8);
  Resize(60 * block_size());
  EXPECT_EQ(Bits(), std::string(60, '.') + "1111");
  Resize(kBits * block_size());
  EXPECT_EQ(Bits(), std::string(60, '.') + "1111");
  Resize(kBits * block_size() + k4G);
  Write(kBits * block_size(), 4096);
  Resize(60 * block_size() - 1);
  EXPECT_EQ(Bits(), std::string(59, '.') + "11111");
  EXPECT_EQ(bitmap().header().SizeChanged, 1);
  EXPECT_EQ(bitmap().header().Unreliable, 0);
}

TEST_P(GrowingFileTest, ShrinkToNothingSetsEveryBit) {
  history_.AddBitmap(GetParam(), kBits / 8);
  Resize(0);
  EXPECT_EQ(Bits(), std::string(64, '1'));
}

INSTANTIATE_TEST_SUITE_P(BlockSizes, GrowingFileTest, ::testing::ValuesIn(kModelBlockSizes));

}  // namespace
}  // namespace zel
