// Real faults in the view of a bitmap, in each thread that meets them.
#include "bitmap/bitmap_manager.h"
#include "bitmap/record_changes.h"
#include "config/settings.h"
#include "files/layout.h"
#include "tests/integration/support/bitmap_fixture.h"
#include "tests/integration/support/failing_view.h"

namespace zel {
namespace {

using test::FailingView;
using test::Get;
using test::kFile;
using test::kVolume;
using test::ReadFileBytes;
using ::testing::Contains;
using ::testing::StartsWith;

constexpr FileKey kOther = {kVolume, kFile + 1};

class ViewFaultsTest : public test::BitmapFixture {
 protected:
  ViewFaultsTest() { BitmapIdleTimeout = 0; }

  // The view of the bitmap, which is loaded for that.
  [[nodiscard]] void* View() const {
    const PinnedBitmap bitmap = GetBitmapById(id_);
    EXPECT_TRUE(bitmap);
    return bitmap->header();
  }

  [[nodiscard]] bool IsTrusted(const std::filesystem::path& path) const {
    const std::string bytes = ReadFileBytes(path);
    return Get(bytes, test::kAtClosedCleanly, 1) == 1 && Get(bytes, test::kAtUnreliable, 1) == 0 &&
           !std::filesystem::exists(MissedMarkPath(path.wstring()));
  }

  // The others go on, and the stop comes to its end.
  void ExpectOnlyThisOneFailed() {
    Report(kOther);
    ShutdownBitmapManager();
    EXPECT_FALSE(IsTrusted(path_));
    EXPECT_TRUE(IsTrusted(other_path_));
    EXPECT_EQ(ReadFileBytes(other_path_)[test::kHeaderBytes] & 1, 1);
  }

  const std::filesystem::path path_ = AddGood();
  const BitmapId id_ = test::IdOf(path_);
  const std::filesystem::path other_path_ = AddGood(kOther);
};

TEST_F(ViewFaultsTest, ReportFailsItsBitmapAlone) {
  StartLogging();
  const FailingView failing(View(), test::kHeaderBytes);
  Report();
  ExpectOnlyThisOneFailed();
  EXPECT_THAT(StopLoggingAndGetMessages(),
              Contains(StartsWith("ERROR Reading or writing bitmap " + path_.string())));
}

TEST_F(ViewFaultsTest, SizeChangeFailsItsBitmapAlone) {
  const FailingView failing(View(), test::kHeaderBytes);
  ApplySizeChange(kFile, kVolume, 1);
  ExpectOnlyThisOneFailed();
}

TEST_F(ViewFaultsTest, UnreportedChangesFailTheirBitmapAlone) {
  const FailingView failing(View(), test::kHeaderBytes);
  MarkUnreportedChanges(kFile, kVolume);
  ExpectOnlyThisOneFailed();
}

TEST_F(ViewFaultsTest, ReadingFailsItsBitmapAlone) {
  {
    const PinnedBitmap bitmap = GetBitmapById(id_);
    const FailingView failing(bitmap->header(), test::kHeaderBytes);
    std::byte bytes[16];
    EXPECT_EQ(ReadBitmap(bitmap, 0, bytes), ERROR_NOACCESS);
  }
  ExpectOnlyThisOneFailed();
}

TEST_F(ViewFaultsTest, IdleScanFailsItsBitmapAlone) {
  Report(kOther);
  const FailingView failing(View(), test::kHeaderBytes);
  UnloadIdleBitmaps();
  EXPECT_TRUE(IsTrusted(other_path_));
  ExpectOnlyThisOneFailed();
}

TEST_F(ViewFaultsTest, StopFailsItsBitmapAlone) {
  Report();
  const FailingView failing(View(), test::kHeaderBytes);
  ExpectOnlyThisOneFailed();
}

TEST_F(ViewFaultsTest, FailedBitmapIsGivenAgainUnreliable) {
  {
    FailingView failing(View(), test::kHeaderBytes);
    Report();
  }
  const PinnedBitmap bitmap = GetBitmapById(id_);
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->header()->Unreliable, 1);
}

}  // namespace
}  // namespace zel
