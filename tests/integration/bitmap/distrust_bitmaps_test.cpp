// Marking the bitmaps of a file that was not tracked.
#include "bitmap/bitmap_manager.h"
#include "tests/integration/support/bitmap_fixture.h"
#include "tests/integration/support/flush_hooks.h"
#include "tests/integration/support/held_file.h"

namespace zel {
namespace {

using test::IdOf;
using test::kCreated;
using test::kKey;
using ::testing::ElementsAre;

class DistrustBitmapsTest : public test::BitmapFixture {};

TEST_F(DistrustBitmapsTest, MarksLoadedAndUnloadedBitmapsOnTheDeviceAndNoOthers) {
  const auto loaded = AddGood(kKey, kCreated);
  const auto unloaded = AddGood(kKey, kCreated + 1);
  const auto other = AddGood(kKey, kCreated + 2);
  ASSERT_TRUE(GetBitmapById(IdOf(loaded)));
  StartLogging(test::kBitmapWarnings);
  test::FlushHooks flushes;
  EXPECT_TRUE(DistrustBitmapsOfFile(kKey, {IdOf(loaded), IdOf(unloaded)}));
  EXPECT_THAT(flushes.Take(), ElementsAre("header u", "file",  // the loaded one's mark
                                          "header", "file", "header u", "file"));  // load and mark
  EXPECT_TRUE(IsUnreliable(loaded));
  EXPECT_TRUE(IsUnreliable(unloaded));
  EXPECT_FALSE(IsUnreliable(other));
  EXPECT_TRUE(DistrustBitmapsOfFile(kKey, BitmapIdsOfFile(kKey)));
  EXPECT_TRUE(IsUnreliable(other));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ::testing::AllOf(::testing::SizeIs(3),
                               ::testing::Each(::testing::EndsWith(
                                   " for Volume 01234567-89ab-cdef-0123-456789abcdef, FileId "
                                   "0x0001000000000123 unreliable because its file was not "
                                   "tracked"))));
}

TEST_F(DistrustBitmapsTest, BitmapThatIsHeldIsMarkedWhenItCanBeOpened) {
  const auto path = AddGood();
  const BitmapId id = IdOf(path);
  {
    const UniqueFile holder = test::HoldFile(path, GENERIC_READ, FILE_SHARE_READ);
    EXPECT_TRUE(DistrustBitmapsOfFile(kKey, {id}));
  }
  EXPECT_EQ(GetBitmapById(id)->header()->Unreliable, 1);
}

TEST_F(DistrustBitmapsTest, NothingIsMarkedOnceTheManagerIsShutDownAndTheCallerIsTold) {
  const auto path = AddGood();
  ShutdownBitmapManager();
  EXPECT_FALSE(DistrustBitmapsOfFile(kKey, {IdOf(path)}));
  EXPECT_FALSE(IsUnreliable(path));
  EXPECT_TRUE(DistrustBitmapsOfFile(kKey, {}));
}

}  // namespace
}  // namespace zel
