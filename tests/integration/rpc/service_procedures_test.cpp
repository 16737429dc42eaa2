// Ping, DeleteBitmap, SynchronizeBitmaps and GetDriverStatus, called by a client.
#include "tests/integration/support/rpc_fixture.h"

namespace zel {
namespace {

using test::FakeDriver;
using test::kKey;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kGeneralOnly[] =
    "zelservicelog=trace\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=none\n";

class ServiceProceduresTest : public test::RpcFixture {};

TEST_F(ServiceProceduresTest, PingAnswers0AndDoesNothingElse) {
  StartLogging();
  EXPECT_EQ(client.Ping(), (CallResult{0, 0}));
  EXPECT_THAT(StopLogging(), IsEmpty());
  EXPECT_THAT(FakeDriver::Take(), IsEmpty());
}

TEST_F(ServiceProceduresTest, DeleteBitmapDeletesItAndTellsWhoseItWas) {
  const auto path = AddGood();
  const BitmapId id = test::IdOf(path);
  StartLogging(kGeneralOnly);
  EXPECT_EQ(client.DeleteBitmap(id), (CallResult{0, 0}));
  EXPECT_FALSE(std::filesystem::exists(path));
  char messages[2][200];
  std::snprintf(messages[0], 200, "DEBUG DeleteBitmap invoked for bitmap id: 0x%016llx", id);
  std::snprintf(messages[1], 200,
                "INFO  Deleted BitmapId 0x%016llx, Volume 01234567-89ab-cdef-0123-456789abcdef, "
                "FileId 0x0001000000000123",
                id);
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(messages[0], messages[1]));
}

TEST_F(ServiceProceduresTest, DeleteBitmapOfAnUnknownIdAnswers0) {
  StartLogging(kGeneralOnly);
  EXPECT_EQ(client.DeleteBitmap(0x123), (CallResult{0, 0}));
  EXPECT_EQ(StopLoggingAndGetMessages().at(1),
            "INFO  Deleted BitmapId 0x0000000000000123, Volume "
            "00000000-0000-0000-0000-000000000000, FileId 0x0000000000000000");
}

TEST_F(ServiceProceduresTest, DeletedBitmapThatIsPinnedGoesLater) {
  const auto path = AddGood();
  {
    const PinnedBitmap pin = GetBitmapById(test::IdOf(path));
    EXPECT_EQ(client.DeleteBitmap(test::IdOf(path)), (CallResult{0, 0}));
    EXPECT_TRUE(std::filesystem::exists(path));
  }
  UnloadIdleBitmaps();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(ServiceProceduresTest, SynchronizeBitmapsHandsTheTimeOver) {
  StartLogging(kGeneralOnly);
  EXPECT_EQ(client.SynchronizeBitmaps(~0ull), (CallResult{0, 0}));
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("synchronize 18446744073709551615"));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Synchronizing bitmaps to 18446744073709551615",
                          "INFO  Synchronized bitmaps to 18446744073709551615"));
}

TEST_F(ServiceProceduresTest, SynchronizeBitmapsAnswersTheCodeOfAFailure) {
  FakeDriver::synchronize_code = ERROR_TIMEOUT;
  StartLogging(kGeneralOnly);
  EXPECT_EQ(client.SynchronizeBitmaps(7), (CallResult{0, ERROR_TIMEOUT}));
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("INFO  Synchronizing bitmaps to 7",
                                                       "WARN  Failed to synchronize bitmaps to 7"));
}

TEST_F(ServiceProceduresTest, GetDriverStatusAnswersTheReportsResult) {
  EXPECT_EQ(client.GetDriverStatus(), (CallResult{0, 0}));
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("status"));
  FakeDriver::status_code = 0x801F0020;
  EXPECT_EQ(client.GetDriverStatus(), (CallResult{0, 0x801F0020}));
}

}  // namespace
}  // namespace zel
