#include "tracking/last_cbt_directory.h"

#include "tests/integration/support/tracking_fixture.h"

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class LastCbtDirectoryTest : public test::TrackingFixture {
 protected:
  LastCbtDirectoryTest() { StartLogging(); }

  void Start(const std::wstring& directory) const {
    NoteCbtDirectory(key().Open().get(), directory);
  }
};

TEST_F(LastCbtDirectoryTest, FirstStartAndStartsOnTheSameDirectorySayNothing) {
  Start(L"\\\\?\\C:\\Agent\\cbt");
  Start(L"\\\\?\\C:\\Agent\\cbt");
  Start(L"\\\\?\\c:\\AGENT\\cbt");
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(LastCbtDirectoryTest, EachChangeOfTheDirectoryIsOneWarning) {
  Start(L"\\\\?\\C:\\Agent\\cbt");
  Start(L"\\\\?\\C:\\velmora");
  Start(L"\\\\?\\C:\\velmora");
  Start(L"\\\\?\\C:\\Agent\\cbt");
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(HasSubstr("WARN  The bitmaps are in \\\\?\\C:\\velmora, and were in "
                                    "\\\\?\\C:\\Agent\\cbt at the last start"),
                          HasSubstr("WARN  The bitmaps are in \\\\?\\C:\\Agent\\cbt, and were in "
                                    "\\\\?\\C:\\velmora at the last start")));
}

TEST_F(LastCbtDirectoryTest, ValueOfAnotherTypeIsLoggedAndReplaced) {
  key().Set(L"BitmapDirectory", "x", REG_BINARY);
  Start(L"\\\\?\\C:\\Agent\\cbt");
  Start(L"\\\\?\\C:\\Agent\\cbt");
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("WARN  RegGetValue(BitmapDirectory) failed: 1630"));
}

TEST_F(LastCbtDirectoryTest, ReaderOfTheListsTakesItForNoVolume) {
  Start(L"\\\\?\\C:\\Agent\\cbt");
  ASSERT_TRUE(OpenAndLoad());
  EXPECT_THAT(test::Collect(), IsEmpty());
  EXPECT_EQ(key().Values().size(), 1u);
}

}  // namespace
}  // namespace zel
