#include "bitmap/bitmap_data.h"

#include <winioctl.h>

#include "tests/integration/support/bitmap_file.h"
#include "tests/integration/support/log_fixture.h"
#include "win32/handles.h"

namespace zel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class OpenAndMapBitmapTest : public test::LogFixture {
 protected:
  OpenAndMapBitmapTest() { data_.FileName = path().wstring(); }

  std::filesystem::path path() const { return directory() / test::BitmapFileName(); }
  std::string path_text() const { return path().string(); }

  // As the manager loads it, which logs.
  bool Load() {
    test::DescribeRecord(record_, path());
    return test::Load(record_);
  }

  BitmapData data_;
  BitmapRecord record_;
};

TEST_F(OpenAndMapBitmapTest, DescribesTheBitsBehindTheHeader) {
  StartLogging();
  test::WriteBitmapFile(path(), test::MakeHeader(3), 515);
  ASSERT_EQ(OpenAndMapBitmap(data_), LoadFailure{});
  EXPECT_EQ(data_.FileSize, 515u);
  EXPECT_EQ(data_.BitmapHeader.SizeOfBitMap, 24u);
  EXPECT_EQ(reinterpret_cast<char*>(data_.BitmapHeader.Buffer),
            reinterpret_cast<char*>(data_.header()) + 512);
  EXPECT_EQ(data_.header()->ClosedCleanly, 1);  // opening alone marks nothing
  EXPECT_THAT(StopLoggingAndGetMessages(), IsEmpty());
}

TEST_F(OpenAndMapBitmapTest, EmptyBitmapHasNoDescriptor) {
  test::WriteBitmapFile(path(), test::MakeHeader(0), 512);
  ASSERT_EQ(OpenAndMapBitmap(data_), LoadFailure{});
  EXPECT_EQ(data_.BitmapHeader.SizeOfBitMap, 0u);
  EXPECT_EQ(data_.BitmapHeader.Buffer, nullptr);
}

TEST_F(OpenAndMapBitmapTest, FileLongerThanItsBitsIsMapped) {
  test::WriteBitmapFile(path(), test::MakeHeader(3), 516);
  EXPECT_EQ(OpenAndMapBitmap(data_), LoadFailure{});
}

TEST_F(OpenAndMapBitmapTest, FileOneByteShortIsCorrupted) {
  StartLogging();
  test::WriteBitmapFile(path(), test::MakeHeader(3), 514);
  EXPECT_EQ(OpenAndMapBitmap(data_).fault, LoadFault::kCorrupted);
  EXPECT_EQ(data_.BitmapHeader.Buffer, nullptr);
  EXPECT_FALSE(Load());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Bitmap " + path_text() +
                          " is corrupted: header(512) + bitmap size(3) > file size (514)"));
}

TEST_F(OpenAndMapBitmapTest, SizeWhoseSumWithTheHeaderWrapsIsCorrupted) {
  test::WriteBitmapFile(path(), test::MakeHeader(0xFFFFFE00), 4096);
  EXPECT_EQ(OpenAndMapBitmap(data_).fault, LoadFault::kCorrupted);
}

TEST_F(OpenAndMapBitmapTest, EveryFileShorterThanAHeaderIsCorrupted) {
  const BitmapFileHeader header = test::MakeHeader(0xFFFFFFFF);
  for (const std::size_t length : {1, 63, 64, 65, 67, 68, 511}) {
    test::WriteBitmapFile(path(), header, length);
    BitmapData data;
    data.FileName = path().wstring();
    EXPECT_EQ(OpenAndMapBitmap(data).fault, LoadFault::kCorrupted) << length;
  }
}

TEST_F(OpenAndMapBitmapTest, FileOfNoBytesCannotBeMapped) {
  StartLogging();
  test::WriteFileBytes(path(), "");
  EXPECT_EQ(OpenAndMapBitmap(data_), (LoadFailure{LoadFault::kMapping, ERROR_FILE_INVALID}));
  EXPECT_FALSE(Load());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(StartsWith("ERROR CreateFileMapping(" + path_text() + ") failed: ")));
}

TEST_F(OpenAndMapBitmapTest, MissingFileCannotBeOpened) {
  StartLogging();
  EXPECT_EQ(OpenAndMapBitmap(data_), (LoadFailure{LoadFault::kOpen, ERROR_FILE_NOT_FOUND}));
  EXPECT_FALSE(data_.File);
  EXPECT_FALSE(Load());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(StartsWith("ERROR Failed to open bitmap " + path_text() + ": ")));
}

// Only the low 32 bits of the length count, so that such a file looks short; it is none of ours.
TEST_F(OpenAndMapBitmapTest, FileOverFourGigabytesIsJudgedByItsLowLength) {
  test::WriteBitmapFile(path(), test::MakeHeader(3), 515);
  {
    const UniqueFile file(::CreateFileW(path().c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD returned;  // a file system without sparse files needs no telling
    ::DeviceIoControl(file.get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
    LARGE_INTEGER length;
    length.QuadPart = (1LL << 32) + 514;
    ASSERT_TRUE(::SetFilePointerEx(file.get(), length, nullptr, FILE_BEGIN));
    ASSERT_TRUE(::SetEndOfFile(file.get()));
  }
  EXPECT_EQ(OpenAndMapBitmap(data_).fault, LoadFault::kCorrupted);
  EXPECT_EQ(data_.FileSize, 514u);
}

TEST_F(OpenAndMapBitmapTest, FileIsHeldAgainstOtherWritersUntilTheTeardown) {
  test::WriteBitmapFile(path(), test::MakeHeader(3), 515);
  const auto open_for_writing = [&] {
    return UniqueFile(::CreateFileW(path().c_str(), GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
  };
  {
    BitmapData data;
    data.FileName = path().wstring();
    ASSERT_EQ(OpenAndMapBitmap(data), LoadFailure{});
    EXPECT_FALSE(open_for_writing());
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
  }
  EXPECT_TRUE(open_for_writing());
  EXPECT_TRUE(std::filesystem::remove(path()));
}

// Another program that has the file mapped may change what it says; what was checked counts.
TEST_F(OpenAndMapBitmapTest, SizesAndBlocksAreThoseThatWereChecked) {
  test::WriteBitmapFile(path(), test::MakeHeader(3), 515);
  ASSERT_TRUE(Load());
  BitmapFileHeader& header = *record_.Data->header();
  header.BitmapSize = 1 << 20;
  header.BlockSize = 0;
  EXPECT_EQ(record_.Data->BitmapSize, 3u);
  const auto recorded = record_.Data->Changes->RecordWrite(23 * test::kBlockSize, 1 << 30, 5);
  EXPECT_EQ(recorded.owed, ChangeBitmap::Owed::kHeaderToDevice);
  EXPECT_EQ(test::ReadFileBytes(path()).substr(512), std::string("\0\0\x80", 3));
}

}  // namespace
}  // namespace zel
