#include "zelctl/bitmap_file.h"

#include <gmock/gmock.h>

#include "tests/unit/support/bitmap_bytes.h"
#include "zelctl/checksum.h"

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

TEST(ReadBitmapTest, OnlyOldFilesMayHaveBytesAfterTheBits) {
  for (const std::size_t more : {1, 7, 8, 9}) {
    Bytes bytes = MakeBitmapBytes(1'114'113, 65'536);
    bytes.resize(bytes.size() + more);
    EXPECT_THAT(FaultOf(bytes), HasSubstr("bytes, not 515"));
    ChangeHeader(bytes, [](BitmapFileHeader& header) { header.HeaderSize = 520; });
    EXPECT_EQ(FaultOf(bytes) == "", more == 8) << more;
  }
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
              HasSubstr("bytes of bits are not those of"));
  for (const int size : {2, 4}) {
    Bytes bytes = MakeBitmapBytes(1'114'113, 65'536);
    ChangeHeader(bytes, [size](BitmapFileHeader& header) { header.BitmapSize = size; });
    bytes.resize(512 + size);
    EXPECT_THAT(FaultOf(bytes), HasSubstr("bytes of bits are not those of"));
  }
  EXPECT_THAT(FaultOf(WithHeader([](BitmapFileHeader& header) { header.FileSize = ~0ull; })),
              HasSubstr("bytes of bits are not those of"));
  for (const auto change : {+[](BitmapFileHeader& header) { ++header.CreationTime; },
                            +[](BitmapFileHeader& header) { ++header.InitialTime; },
                            +[](BitmapFileHeader& header) { ++header.NameCreationTime; }}) {
    EXPECT_THAT(FaultOf(WithHeader(change)), HasSubstr("do not agree"));
  }
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

TEST(MakeExportTest, ExportReadsAsAClosedFileThatKnowsUntilWhen) {
  BitmapFile bitmap;
  Bytes bytes = WithHeader([](BitmapFileHeader& header) { header.ClosedCleanly = 0; });
  test::SetBit(bytes, 3);
  ASSERT_EQ(ReadBitmap(bytes, BitmapOrigin::kService, bitmap), std::nullopt);
  MakeExport(bitmap, 77);
  BitmapFile exported;
  ASSERT_EQ(ReadBitmap(bitmap.bytes, BitmapOrigin::kFile, exported), std::nullopt);
  EXPECT_EQ(TrustOf(exported), Trust::kTrusted);
  EXPECT_EQ(exported.known_until, 77u);
  // Nothing but the mark and its own reserved bytes is another.
  bytes[0x3C] = std::byte{1};
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + 0x60, exported.bytes.begin()));
  EXPECT_TRUE(std::equal(bytes.begin() + 0x78, bytes.end(), exported.bytes.begin() + 0x78));
  MakeExport(bitmap, std::nullopt);
  ASSERT_EQ(ReadBitmap(bitmap.bytes, BitmapOrigin::kFile, exported), std::nullopt);
  EXPECT_EQ(exported.known_until, std::nullopt);
}

TEST(MakeExportTest, EveryDamageOfAnExportIsFound) {
  BitmapFile bitmap = test::MakeBitmap(1'114'113, 65'536, {0, 7, 17});
  MakeExport(bitmap, 77);
  for (std::size_t at = 0; at < bitmap.bytes.size(); ++at) {
    for (const int flip : {0x01, 0x80, 0xFF}) {
      Bytes bytes = bitmap.bytes;
      bytes[at] ^= static_cast<std::byte>(flip);
      EXPECT_NE(FaultOf(bytes), "") << at << " ^ " << flip;
    }
  }
}

TEST(ChecksumTest, IsTheOneThatItsNameSays) {
  EXPECT_EQ(Checksum(std::as_bytes(std::span("123456789", 9))), 0x995DC9BBDF1939FAu);
  EXPECT_EQ(Checksum({}), 0u);
}

}  // namespace
}  // namespace zel::ctl
