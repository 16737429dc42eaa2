#include "zelctl/fallback_server.h"

#include "tests/unit/support/tool_fixture.h"

namespace zel::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Both servers outlive the one under test.
class FallbackServerTest : public testing::Test {
 protected:
  void AnswerPings(std::uint32_t authenticated_status, std::uint32_t plain_status) {
    authenticated.answers["Ping"] = {.rpc_status = authenticated_status, .code = 0};
    plain.answers["Ping"] = {.rpc_status = plain_status, .code = 0};
  }

  test::PlayedServer authenticated;
  test::PlayedServer plain;
  FallbackServer server{std::make_unique<test::BorrowedServer>(authenticated),
                        std::make_unique<test::BorrowedServer>(plain)};
};

TEST_F(FallbackServerTest, ServerThatTakesTheCallerIsAskedInNoOtherWay) {
  EXPECT_TRUE(server.GetDriverStatus().ok());
  EXPECT_TRUE(server.StopTracking("x").ok());
  EXPECT_TRUE(server.Ping().ok());
  EXPECT_THAT(authenticated.calls, ElementsAre("Ping", "GetDriverStatus", "StopTracking x"));
  EXPECT_THAT(plain.calls, IsEmpty());
  EXPECT_EQ(server.Remark(), "");
}

TEST_F(FallbackServerTest, WhereNoAuthenticationIsToBeHadAllIsAskedWithout) {
  for (const std::uint32_t status : {5u, 1726u, 1747u, 1748u, 1749u, 1825u}) {
    AnswerPings(status, 0);
    FallbackServer fresh(std::make_unique<test::BorrowedServer>(authenticated),
                         std::make_unique<test::BorrowedServer>(plain));
    EXPECT_TRUE(fresh.Ping().ok()) << status;
    EXPECT_TRUE(fresh.GetDriverStatus().ok());
    EXPECT_THAT(fresh.Remark(), HasSubstr("answer was " + std::to_string(status) + " "));
    EXPECT_THAT(authenticated.calls, ElementsAre("Ping"));
    EXPECT_THAT(plain.calls, ElementsAre("Ping", "GetDriverStatus"));
    authenticated.calls.clear();
    plain.calls.clear();
  }
}

TEST_F(FallbackServerTest, ServerThatTakesNeitherSaysWhyWithout) {
  AnswerPings(1825, 5);
  std::vector<FileEntry> files;
  EXPECT_EQ(server.GetTrackedFiles(files).rpc_status, 5u);
  EXPECT_THAT(plain.calls, ElementsAre("Ping"));
}

TEST_F(FallbackServerTest, ServerThatNobodyReachesIsTriedOnce) {
  for (const std::uint32_t status : {1703u, 1707u, 1722u, 1753u, 1818u}) {
    AnswerPings(status, 0);
    FallbackServer fresh(std::make_unique<test::BorrowedServer>(authenticated),
                         std::make_unique<test::BorrowedServer>(plain));
    EXPECT_EQ(fresh.GetDriverStatus().rpc_status, status);
    EXPECT_EQ(fresh.SynchronizeBitmaps(7).rpc_status, status);
    EXPECT_THAT(authenticated.calls, ElementsAre("Ping"));
    EXPECT_THAT(plain.calls, IsEmpty());
    EXPECT_EQ(fresh.Remark(), "");
    authenticated.calls.clear();
  }
}

TEST_F(FallbackServerTest, EveryCallIsPassedOn) {
  authenticated.files = {{.file = {test::kVolume, 1}, .path = "x", .bitmaps = {7}}};
  authenticated.bitmaps = {{.id = 7, .file = {test::kVolume, 1}}};
  authenticated.contents[7] = test::Bytes(3);
  std::vector<FileEntry> files;
  std::vector<BitmapEntry> bitmaps;
  test::Bytes contents;
  BitmapEntry begun;
  EXPECT_TRUE(server.GetTrackedFiles(files).ok());
  EXPECT_EQ(files.size(), 1u);
  EXPECT_TRUE(server.ListBitmaps({test::kVolume, 1}, bitmaps).ok());
  EXPECT_EQ(bitmaps.size(), 1u);
  EXPECT_TRUE(CopyBitmapTo(server, 7, contents).ok());
  EXPECT_EQ(contents.size(), 3u);
  EXPECT_TRUE(server.StartTracking("x", 4096, begun).ok());
  EXPECT_EQ(begun.block_size, 4096u);
  EXPECT_TRUE(server.DeleteBitmap(7).ok());
  EXPECT_TRUE(server.SynchronizeBitmaps(9).ok());
  EXPECT_THAT(authenticated.calls,
              ElementsAre("Ping", "GetTrackedFiles", "ListBitmaps", "CopyBitmap", "StartTracking x",
                          "DeleteBitmap", "SynchronizeBitmaps 9"));
}

}  // namespace
}  // namespace zel::ctl
