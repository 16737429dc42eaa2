#include "zelctl/unsealed_bitmap.h"

#include <gmock/gmock.h>

#include "tests/unit/support/copy_bench.h"

namespace zel::ctl {
namespace {

using test::Bytes;
using testing::HasSubstr;

// 512 blocks, which are 509 of a block size that needs as many bytes of bits.
constexpr std::uint64_t kSize = 2 << 20;
constexpr std::uint32_t kBlock = 4096;
constexpr std::uint32_t kDamaged = 4128;
constexpr char kOwnName[] = "C:\\cbt\\01dc92bf4c8a6d0000001000";

BitmapFile WithBlocksOf(std::uint32_t block_size, const std::vector<std::uint64_t>& changed = {}) {
  Bytes bytes = test::MakeBitmapBytes(kSize, kBlock);
  for (const std::uint64_t block : changed) test::SetBit(bytes, block);
  test::ChangeHeader(bytes, [=](BitmapFileHeader& header) { header.BlockSize = block_size; });
  return test::ToBitmap(bytes);
}

std::string FaultOf(const std::string& path, const BitmapFile& bitmap) {
  return FaultOfUnsealed(path, bitmap).value_or("");
}

TEST(UnsealedBitmapTest, NameThatTheServiceGaveTells) {
  EXPECT_EQ(FaultOf(kOwnName, WithBlocksOf(kBlock)), "");
  EXPECT_EQ(FaultOf("C:/cbt/01DC92BF4C8A6D0000001000", WithBlocksOf(kBlock)), "");
  EXPECT_THAT(FaultOf(kOwnName, WithBlocksOf(kDamaged)), HasSubstr("of 4128 bytes a block"));
  EXPECT_THAT(FaultOf("01dc92bf4c8a6d0100001000", WithBlocksOf(kBlock)), HasSubstr("begun when"));
  BitmapFile sent = WithBlocksOf(kDamaged);
  sent.origin = BitmapOrigin::kService;
  EXPECT_NE(FaultOf(kOwnName, sent), "");
}

TEST(UnsealedBitmapTest, OtherNamesTellNothing) {
  for (const char* name : {"C:\\01dc92bf4c8a6d000000100", "C:\\01dc92bf4c8a6d00000010000",
                           "C:\\01dc92bf4c8a6d00000010g0", "C:\\copy of bitmap", "bitmap"}) {
    EXPECT_EQ(FaultOf(name, WithBlocksOf(kDamaged)), "") << name;
  }
  BitmapFile exported = WithBlocksOf(kDamaged);
  MakeExport(exported, std::nullopt);
  EXPECT_EQ(FaultOf(kOwnName, exported), "") << "it is what was exported";
}

TEST(UnsealedBitmapTest, BitsBehindTheLastBlockTellUnlessTheSizeHasChanged) {
  EXPECT_EQ(FaultOf("b", WithBlocksOf(kDamaged, {508})), "");
  for (const std::uint64_t block : {509, 510, 511}) {
    BitmapFile bitmap = WithBlocksOf(kDamaged, {block});
    EXPECT_THAT(FaultOf("b", bitmap), HasSubstr("past its last block")) << block;
    bitmap.origin = BitmapOrigin::kService;
    EXPECT_EQ(FaultOf("b", bitmap), "") << "the size may be changing";
    bitmap.origin = BitmapOrigin::kFile;
    bitmap.header.SizeChanged = 1;
    EXPECT_EQ(FaultOf("b", bitmap), "");
  }
  EXPECT_EQ(FaultOf("b", WithBlocksOf(kBlock, {511})), "") << "all bits are blocks";
}

// 6400 bytes in blocks of 64; blocks of 65 need 13 bytes of bits, too.
class UnsealedBitmapOfACopyTest : public testing::Test, protected test::CopyBench {
 protected:
  UnsealedBitmapOfACopyTest() : bitmap(Track()) {
    ExpectGood(Full());
    Write(3000, 5);
    Close(bitmap, kClosed);
  }

  test::Words DamageAndApply(const std::string& path) {
    Bytes& bytes = machine.At(path).bytes = machine.At(kClosed).bytes;
    test::ChangeHeader(bytes, [](BitmapFileHeader& header) { header.BlockSize = 65; });
    return Apply(path);
  }

  static constexpr char kClosed[] = "X:\\closed";
  const std::string bitmap;
};

TEST_F(UnsealedBitmapOfACopyTest, ServiceTellsWhileItHasTheBitmap) {
  EXPECT_THAT(ExpectRefused(DamageAndApply("X:\\damaged"), "damaged"),
              HasSubstr("has 65 bytes a block, and the service's own 64: take it by its id"));
  ExpectGood(Apply(kClosed));
}

TEST_F(UnsealedBitmapOfACopyTest, NameTellsWithoutTheService) {
  BitmapFileHeader header;
  std::memcpy(&header, machine.At(kClosed).bytes.data(), sizeof header);
  const std::string path = "X:\\" + FormatId(header.NameCreationTime).substr(2) + "00000040";
  service.is_away = true;
  EXPECT_THAT(ExpectRefused(DamageAndApply(path), "damaged"), HasSubstr("its name is not"));
  machine.At(path) = machine.At(kClosed);
  ExpectGood(Apply(path));
}

}  // namespace
}  // namespace zel::ctl
