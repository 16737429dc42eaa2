// Bringing a copy up to date: what is copied, what is read, and what interruptions do.
#include "zelctl/block_copy.h"

#include <gmock/gmock.h>

#include <random>

#include "tests/unit/support/bitmap_bytes.h"
#include "tests/unit/support/memory_files.h"
#include "zelctl/progress.h"

namespace zel::ctl {
namespace {

using test::Bytes;
using test::MakeBitmap;
using test::MemoryFile;

void Ignore(std::uint64_t) {}

// A file that is tracked as the service does it: a bit for each block that is written or cut off.
class TrackedModel {
 public:
  TrackedModel(std::mt19937& random, std::uint64_t size) : random_(random) {
    file_->bytes.resize(size);
    for (std::byte& byte : file_->bytes) byte = static_cast<std::byte>(random_());
  }

  std::size_t StartBitmap(std::uint32_t block_size) {
    bitmaps_.push_back(test::MakeBitmapBytes(file_->bytes.size(), block_size));
    return bitmaps_.size() - 1;
  }
  BitmapFile bitmap(std::size_t index) const { return test::ToBitmap(bitmaps_[index]); }
  const std::shared_ptr<MemoryFile>& file() const { return file_; }

  void Write(std::uint64_t offset, std::uint64_t length) {
    if (length == 0) return;
    if (offset + length > file_->bytes.size()) {
      file_->bytes.resize(offset + length);
      ReportSize();
    }
    for (std::uint64_t at = offset; at < offset + length; ++at) {
      file_->bytes[at] = static_cast<std::byte>(random_());
    }
    for (Bytes& bitmap : bitmaps_) {
      const std::uint64_t block_size = test::ToBitmap(bitmap).header.BlockSize;
      Mark(bitmap, offset / block_size, (offset + length - 1) / block_size + 1);
    }
  }
  void Resize(std::uint64_t size) {
    file_->bytes.resize(size);
    ReportSize();
  }

 private:
  void ReportSize() {
    const std::uint64_t size = file_->bytes.size();
    for (Bytes& bitmap : bitmaps_) {
      const BitmapFileHeader header = test::ToBitmap(bitmap).header;
      if (header.FileSize == size) continue;
      test::ChangeHeader(bitmap, [](BitmapFileHeader& changed) { changed.SizeChanged = 1; });
      if (size < header.FileSize) Mark(bitmap, size / header.BlockSize, ~std::uint64_t{0});
    }
  }
  static void Mark(Bytes& bitmap, std::uint64_t first, std::uint64_t end) {
    const std::uint64_t bits = (bitmap.size() - kBitmapHeaderSize) * 8;
    if (end > bits) {
      test::ChangeHeader(bitmap, [](BitmapFileHeader& changed) { changed.SizeChanged = 1; });
    }
    for (std::uint64_t block = first; block < std::min(end, bits); ++block) {
      test::SetBit(bitmap, block);
    }
  }

  std::mt19937& random_;
  std::shared_ptr<MemoryFile> file_ = std::make_shared<MemoryFile>();
  std::vector<Bytes> bitmaps_;
};

void DoSomething(TrackedModel& model, std::mt19937& random) {
  const std::uint64_t size = model.file()->bytes.size();
  switch (random() % 8) {
    case 0:
      model.Resize(random() % (size + 1));
      break;
    case 1:
      model.Resize(size + random() % 3000);
      break;
    case 2:
      model.Write(size, random() % 2000);
      break;
    case 3:
      model.Write(size + random() % 1000, random() % 1000);
      break;
    default:
      model.Write(random() % (size + 1), random() % 600);
  }
}

bool IsSet(const BitmapFile& bitmap, std::uint64_t block) {
  return (bitmap.bits()[block / 8] >> block % 8 & std::byte{1}) != std::byte{0};
}

// No byte of a block whose bit is clear was read, as far as the bitmap reaches.
void ExpectOnlyChangedBlocksRead(const MemoryFile& source, const BitmapFile& bitmap) {
  for (const auto& [offset, length] : source.reads) {
    const std::uint64_t end = std::min(offset + length, bitmap.header.FileSize);
    for (std::uint64_t at = offset; at < end; ++at) {
      ASSERT_TRUE(IsSet(bitmap, at / bitmap.header.BlockSize)) << at;
    }
  }
}

// Copies with the bitmap; dies at the change `fail_at`, when that is not negative.
bool RunCopy(const BitmapFile& bitmap, const std::shared_ptr<MemoryFile>& source,
             const std::shared_ptr<MemoryFile>& copy, int fail_at = -1) {
  test::Death alive;
  test::Death death = {.changes = 0, .fail_at = fail_at};
  test::OpenMemoryFile from(source, alive);
  test::OpenMemoryFile to(copy, death);
  source->reads.clear();
  EXPECT_TRUE(HasAllUnchanged(bitmap, source->bytes.size(), copy->bytes.size()));
  return !CopyChanges(bitmap, source->bytes.size(), from, to, Ignore);
}

TEST(CopyChangesTest, RandomWorkloadsLeaveTheCopyEqualAndNothingElseRead) {
  std::mt19937 random(20'260'201);
  for (int round = 0; round < 600; ++round) {
    TrackedModel model(random, random() % 20'000);
    const std::size_t bitmaps = 1 + random() % 3;
    std::vector<std::shared_ptr<MemoryFile>> copies;
    for (std::size_t i = 0; i < bitmaps; ++i) {
      for (auto actions = random() % 6; actions > 0; --actions) DoSomething(model, random);
      model.StartBitmap(1 + random() % (random() % 2 == 0 ? 64 : 9000));
      copies.push_back(std::make_shared<MemoryFile>(*model.file()));
    }
    // Several passes with the same bitmap, each on what the one before has left.
    for (int pass = 0; pass < 3; ++pass) {
      for (auto actions = random() % 12; actions > 0; --actions) DoSomething(model, random);
      for (std::size_t i = 0; i < bitmaps; ++i) {
        const BitmapFile bitmap = model.bitmap(i);
        ASSERT_TRUE(RunCopy(bitmap, model.file(), copies[i]));
        ASSERT_EQ(copies[i]->bytes, model.file()->bytes) << "round " << round;
        ExpectOnlyChangedBlocksRead(*model.file(), bitmap);
      }
    }
  }
}

TEST(CopyChangesTest, RunAfterAnyInterruptionsCompletesTheCopy) {
  std::mt19937 random(20'260'202);
  int interrupted = 0;
  for (int round = 0; round < 400; ++round) {
    TrackedModel model(random, random() % 20'000);
    model.StartBitmap(1 + random() % 700);
    const auto copy = std::make_shared<MemoryFile>(*model.file());
    for (int death = 0; death < 4; ++death) {
      for (auto actions = random() % 8; actions > 0; --actions) DoSomething(model, random);
      if (!RunCopy(model.bitmap(0), model.file(), copy, static_cast<int>(random() % 8))) {
        ++interrupted;
      }
    }
    ASSERT_TRUE(RunCopy(model.bitmap(0), model.file(), copy));
    ASSERT_EQ(copy->bytes, model.file()->bytes) << "round " << round;
  }
  EXPECT_GT(interrupted, 400);
}

TEST(CopyChangesTest, LongRangeIsCopiedInPiecesAndCounted) {
  std::mt19937 random(1);
  TrackedModel model(random, 3'500'000);
  model.StartBitmap(65'536);
  const auto copy = std::make_shared<MemoryFile>(*model.file());
  model.Write(0, 3'500'000);
  test::Death alive;
  test::OpenMemoryFile from(model.file(), alive);
  test::OpenMemoryFile to(copy, alive);
  std::vector<std::uint64_t> counts;
  ASSERT_EQ(CopyChanges(model.bitmap(0), 3'500'000, from, to,
                        [&](std::uint64_t done) { counts.push_back(done); }),
            std::nullopt);
  EXPECT_THAT(counts, testing::ElementsAre(1u << 20, 2u << 20, 3u << 20, 3'500'000));
  EXPECT_EQ(copy->bytes, model.file()->bytes);
}

TEST(CopyChangesTest, SourceThatBecameShorterIsTold) {
  std::mt19937 random(1);
  TrackedModel model(random, 10'000);
  test::Death alive;
  test::OpenMemoryFile from(model.file(), alive);
  const auto copy = std::make_shared<MemoryFile>(*model.file());
  test::OpenMemoryFile to(copy, alive);
  EXPECT_EQ(CopyChanges(MakeBitmap(20'000, 4096, {2}), 20'000, from, to, Ignore),
            (CopyFault{.step = CopyFault::Step::kReadSource, .code = kEndOfFile}));
}

TEST(CopyChangesTest, EachFailingChangeIsTold) {
  std::mt19937 random(1);
  TrackedModel model(random, 10'000);
  const BitmapFile bitmap = MakeBitmap(10'000, 4096, {1});
  const CopyFault::Step steps[] = {CopyFault::Step::kResizeCopy, CopyFault::Step::kWriteCopy,
                                   CopyFault::Step::kFlushCopy};
  for (int change = 0; change < 3; ++change) {
    test::Death death = {.changes = 0, .fail_at = change};
    test::OpenMemoryFile from(model.file(), death);
    test::OpenMemoryFile to(std::make_shared<MemoryFile>(*model.file()), death);
    EXPECT_EQ(CopyChanges(bitmap, 10'000, from, to, Ignore),
              (CopyFault{.step = steps[change], .code = test::kDied}));
  }
}

TEST(CopyWholeTest, ZerosOfAFileWithHolesAreNotWrittenWhereTheCopyCanHaveThem) {
  constexpr std::uint64_t kUnit = 65'536;
  const auto source = std::make_shared<MemoryFile>();
  source->bytes.resize(50 * kUnit + 5);
  // The first unit, one in the midst, the two about the end of a piece, and a single byte.
  for (const std::uint64_t at :
       {0 * kUnit, 7 * kUnit + 9, 15 * kUnit, 16 * kUnit, 40 * kUnit - 1}) {
    source->bytes[at] = std::byte{1};
  }
  for (const auto& [has, can] : {std::pair(true, true), {true, false}, {false, true}}) {
    const auto copy = std::make_shared<MemoryFile>();
    source->has_holes = has;
    copy->can_have_holes = can;
    test::Death alive;
    test::OpenMemoryFile from(source, alive);
    test::OpenMemoryFile to(copy, alive);
    std::uint64_t counted = 0;
    EXPECT_EQ(CopyWhole(source->bytes.size(), from, to, [&](std::uint64_t n) { counted = n; }),
              std::nullopt);
    EXPECT_EQ(copy->bytes, source->bytes);
    EXPECT_EQ(copy->bytes_written, has && can ? 5 * kUnit : source->bytes.size());
    EXPECT_EQ(counted, source->bytes.size());
    EXPECT_EQ(copy->has_holes, has && can) << "a dense file is copied as one";
  }
}

TEST(CopyWholeTest, EmptyAndLongFilesAreCopied) {
  std::mt19937 random(1);
  for (const std::uint64_t size : {0, 1, 1 << 20, (1 << 20) + 1}) {
    TrackedModel model(random, size);
    test::Death alive;
    const auto copy = std::make_shared<MemoryFile>();
    test::OpenMemoryFile from(model.file(), alive);
    test::OpenMemoryFile to(copy, alive);
    EXPECT_EQ(CopyWhole(size, from, to, Ignore), std::nullopt);
    EXPECT_EQ(copy->bytes, model.file()->bytes);
  }
}

std::optional<std::uint64_t> Compare(const Bytes& a, const Bytes& b) {
  test::Death alive;
  test::OpenMemoryFile first(std::make_shared<MemoryFile>(MemoryFile{.bytes = a}), alive);
  test::OpenMemoryFile second(std::make_shared<MemoryFile>(MemoryFile{.bytes = b}), alive);
  std::optional<std::uint64_t> difference;
  EXPECT_EQ(CompareFrom(0, first, second, difference, Ignore), std::nullopt);
  return difference;
}

TEST(CompareFromTest, FirstDifferenceIsFoundWhereverItIs) {
  const Bytes whole((2 << 20) + 5, std::byte{7});
  EXPECT_EQ(Compare(whole, whole), std::nullopt);
  EXPECT_EQ(Compare({}, {}), std::nullopt);
  for (const std::size_t at : {0, 1, (1 << 20) - 1, 1 << 20, (2 << 20) + 4}) {
    Bytes other = whole;
    other[at] = std::byte{8};
    EXPECT_EQ(Compare(whole, other), at);
    EXPECT_EQ(Compare(other, whole), at);
  }
}

TEST(CompareFromTest, ShorterFileDiffersAtItsEnd) {
  EXPECT_EQ(Compare(Bytes(10), Bytes(11)), 10u);
  EXPECT_EQ(Compare(Bytes(1), {}), 0u);
}

TEST(HasAllUnchangedTest, CopyMayLackOnlyWhatChanged) {
  const BitmapFile bitmap = MakeBitmap(5 * 100, 100, {3, 4});
  EXPECT_TRUE(HasAllUnchanged(bitmap, 500, 500));
  EXPECT_TRUE(HasAllUnchanged(bitmap, 500, 300));
  EXPECT_FALSE(HasAllUnchanged(bitmap, 500, 299));
  EXPECT_FALSE(HasAllUnchanged(bitmap, 500, 0));
  EXPECT_TRUE(HasAllUnchanged(bitmap, 299, 299)) << "what is cut off is not missed";
  EXPECT_TRUE(HasAllUnchanged(bitmap, 900, 300)) << "what the file grew by is changed";
  EXPECT_FALSE(HasAllUnchanged(MakeBitmap(500, 100, {0, 3}), 500, 450));
  EXPECT_TRUE(HasAllUnchanged(MakeBitmap(0, 100, {}), 0, 0));
}

TEST(ProgressTest, LineTellsShareRateAndTheTimeLeft) {
  Progress progress("copying", std::uint64_t{256} << 20, 1000, 100);
  EXPECT_EQ(progress.LineAt(0, 1000), "copying   0.0 %  0 bytes of 256.0 MiB");
  EXPECT_EQ(progress.LineAt(std::uint64_t{64} << 20, 2000),
            "copying  25.0 %  64.0 MiB of 256.0 MiB  64.0 MiB/s  0:00:03 left");
  EXPECT_EQ(progress.LineAt(std::uint64_t{256} << 20, 3000),
            "copying 100.0 %  256.0 MiB of 256.0 MiB  128.0 MiB/s");
}

TEST(ProgressTest, LinesComeTenTimesASecondAndAtTheEnd) {
  Progress progress("copying", 1000, 0, 100);
  EXPECT_TRUE(progress.LineAt(1, 5));
  EXPECT_FALSE(progress.LineAt(2, 104));
  EXPECT_TRUE(progress.LineAt(3, 105));
  EXPECT_TRUE(progress.LineAt(1000, 106));
}

TEST(ProgressTest, NothingToDoAndNoTimeDivideByNothing) {
  Progress progress("copying", 0, 0, 100);
  EXPECT_EQ(progress.LineAt(0, 0), "copying 100.0 %  0 bytes of 0 bytes");
  Progress slow("copying", ~std::uint64_t{0}, 0, 100);
  EXPECT_THAT(slow.LineAt(1, 100'000).value_or(""), testing::HasSubstr("99:59:59 left"));
}

}  // namespace
}  // namespace zel::ctl
