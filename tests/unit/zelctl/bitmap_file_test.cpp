#include "zelctl/bitmap_file.h"

#include <gmock/gmock.h>

#include "tests/unit/support/bitmap_bytes.h"

namespace zel::ctl {
namespace {

using test::ChangeHeader;
using test::MakeBitmapBytes;
using testing::HasSubstr;
using Bytes = std::vector<std::byte>;

std::string FaultOf(Bytes bytes) {
  BitmapFile bitmap;
  return ReadBitmap(std::move(bytes), BitmapOrigin::kFile, bitmap).value_or("");
}

Bytes WithHeader(void (*change)(BitmapFileHeader&)) {
  Bytes bytes = MakeBitmapBytes(1'114'113, 65'536);
  ChangeHeader(bytes, change);
  return bytes;
}

TEST(ReadBitmapTest, HeaderAndBitsOfAGoodFileAreRead) {
  Bytes bytes = MakeBitmapBytes(1'114'113, 65'536);
  test::SetBit(bytes, 17);
  BitmapFile bitmap;
  ASSERT_EQ(ReadBitmap(bytes, BitmapOrigin::kFile, bitmap), std::nullopt);
  EXPECT_EQ(bitmap.header.FileId, test::kFile);
  EXPECT_EQ(bitmap.header.FileSize, 1'114'113u);
  EXPECT_THAT(bitmap.bits(), testing::ElementsAre(std::byte{0}, std::byte{0}, std::byte{2}));
}

TEST(ReadBitmapTest, EveryTruncationIsRefused) {
  const Bytes whole = MakeBitmapBytes(1'114'113, 65'536);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_NE(FaultOf(Bytes(whole.begin(), whole.begin() + static_cast<long>(length))), "")
        << length;
  }
}

TEST(ReadBitmapTest, BytesBehindTheBitsAreLeftAlone) {
  Bytes bytes = MakeBitmapBytes(1'114'113, 65'536);
  bytes.resize(bytes.size() + 8, std::byte{0xFF});
  BitmapFile bitmap;
  ASSERT_EQ(ReadBitmap(bytes, BitmapOrigin::kFile, bitmap), std::nullopt);
  EXPECT_EQ(bitmap.bits().size(), 3u);
}

TEST(ReadBitmapTest, EachWrongFieldIsNamed) {
  EXPECT_THAT(FaultOf(WithHeader([](BitmapFileHeader& header) { header.Magic = 0x4D5A; })),
              HasSubstr("begins with 0x00004d5a"));
  EXPECT_THAT(FaultOf(WithHeader([](BitmapFileHeader& header) { header.Version = 23; })),
              HasSubstr("version is 23"));
  EXPECT_THAT(FaultOf(WithHeader([](BitmapFileHeader& header) { header.HeaderSize = 513; })),
              HasSubstr("header size is 513"));
  EXPECT_THAT(FaultOf(WithHeader([](BitmapFileHeader& header) { header.BlockSize = 0; })),
              HasSubstr("block size is 0"));
  EXPECT_THAT(FaultOf(WithHeader([](BitmapFileHeader& header) { header.BitmapSize = 0xFFFFFFFF; })),
              HasSubstr("cut off"));
  EXPECT_THAT(FaultOf(WithHeader([](BitmapFileHeader& header) { header.BitmapSize = 2; })),
              HasSubstr("too few"));
  EXPECT_THAT(FaultOf(WithHeader([](BitmapFileHeader& header) { header.FileSize = ~0ull; })),
              HasSubstr("too few"));
}

TEST(ReadBitmapTest, RefusedBytesLeaveTheBitmapAsItWas) {
  BitmapFile bitmap = test::MakeBitmap(4096, 4096, {});
  EXPECT_NE(ReadBitmap(Bytes(512), BitmapOrigin::kService, bitmap), std::nullopt);
  EXPECT_EQ(bitmap.header.FileSize, 4096u);
  EXPECT_EQ(bitmap.origin, BitmapOrigin::kFile);
}

TEST(ReadBitmapTest, OldVersionGetsItsTimeFromTheCreation) {
  BitmapFile bitmap;
  ASSERT_EQ(ReadBitmap(WithHeader([](BitmapFileHeader& header) {
                         header.Version = 21;
                         header.HeaderSize = 520;
                         header.NameCreationTime = 0;
                       }),
                       BitmapOrigin::kFile, bitmap),
            std::nullopt);
  EXPECT_EQ(bitmap.header.NameCreationTime, test::kCreated);
}

TEST(TrustTest, UnreliableIsNeverTrusted) {
  BitmapFile bitmap = test::MakeBitmap(4096, 4096, {});
  bitmap.header.Unreliable = 1;
  for (const auto origin : {BitmapOrigin::kFile, BitmapOrigin::kService}) {
    bitmap.origin = origin;
    EXPECT_EQ(TrustOf(bitmap), Trust::kUnreliable);
  }
}

TEST(TrustTest, FileThatWasNotClosedIsTrustedFromTheServiceAlone) {
  BitmapFile bitmap = test::MakeBitmap(4096, 4096, {});
  EXPECT_EQ(TrustOf(bitmap), Trust::kTrusted);
  bitmap.header.ClosedCleanly = 0;
  EXPECT_EQ(TrustOf(bitmap), Trust::kInUse);
  bitmap.origin = BitmapOrigin::kService;
  EXPECT_EQ(TrustOf(bitmap), Trust::kTrusted);
}

TEST(MarkClosedTest, BytesReadAsAClosedFile) {
  BitmapFile bitmap;
  ASSERT_EQ(ReadBitmap(WithHeader([](BitmapFileHeader& header) { header.ClosedCleanly = 0; }),
                       BitmapOrigin::kService, bitmap),
            std::nullopt);
  MarkClosed(bitmap);
  EXPECT_EQ(bitmap.bytes, MakeBitmapBytes(1'114'113, 65'536));
}

}  // namespace
}  // namespace zel::ctl
