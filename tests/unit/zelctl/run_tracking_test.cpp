// track, untrack, sync and delete.
#include "tests/unit/support/run_fixture.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::kFile;
using test::kId;
using test::kVolume;
using test::RunTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(RunTest, TrackPrintsTheNewBitmapsId) {
  EXPECT_EQ(Run({"track", "C:\\a", "--block-size", "1M"}), 0);
  EXPECT_EQ(terminal.printed, std::string(kId) + "\n");
  const ordered_json json = RunJson({"track", "C:\\a", "--block-size", "1M"});
  EXPECT_EQ(json["bitmap_id"], kId);
  EXPECT_EQ(json["block_size"], 1 << 20);
  EXPECT_FALSE(json.contains("bitmap_file"));
}

TEST_F(RunTest, PersonIsToldWhatIsWaitedFor) {
  EXPECT_EQ(Run({"sync"}), 0);
  EXPECT_THAT(terminal.progress, IsEmpty());
  terminal.to_person = true;
  EXPECT_EQ(Run({"sync"}), 0);
  EXPECT_THAT(terminal.progress, ElementsAre("waiting for the driver's reports", ""));
  server.answers["StartTracking"] = {.rpc_status = 0, .code = 1460};
  EXPECT_EQ(Run({"track", "C:\\a"}), 1);
  EXPECT_THAT(terminal.progress, ElementsAre("waiting for the driver to see the file", ""));
}

TEST_F(RunTest, EachRefusalToTrackHasItsWords) {
  const std::pair<std::uint32_t, const char*> refusals[] = {
      {1110, "zelctl: ERROR_MEDIA_CHANGED (1110): C:\\a is tracked under another file id"},
      {122, "zelctl: ERROR_INSUFFICIENT_BUFFER (122): C:\\a is smaller than 4096 bytes"},
      {2, "zelctl: ERROR_FILE_NOT_FOUND (2): there is no C:\\a"},
      {1, "could not be made, or no driver sees it"},
      {1460, "zelctl: ERROR_TIMEOUT (1460): the driver did not confirm"},
      {1115, "stopping"},
      {5, "zelctl: ERROR_ACCESS_DENIED (5): cannot track C:\\a: Access denied"},
      {65000, "zelctl: 65000: cannot track C:\\a: Unknown error code"}};
  for (const auto& [code, words] : refusals) {
    server.answers["StartTracking"] = {.rpc_status = 0, .code = code};
    EXPECT_EQ(Run({"track", "C:\\a"}), 1);
    EXPECT_THAT(terminal.notes, HasSubstr(words));
    EXPECT_EQ(RunJson({"track", "C:\\a"}, 1)["error"]["code"], code);
  }
}

TEST_F(RunTest, BitmapThatTheServiceCannotLoadIsNoBitmap) {
  server.begun = 0;
  EXPECT_EQ(Run({"track", "C:\\a"}), 1);
  EXPECT_EQ(terminal.printed, "") << "an id of 0 is one that no command takes";
  EXPECT_EQ(terminal.notes, "zelctl: the service made no bitmap that can be used; see its log\n");
}

TEST_F(RunTest, TrackNotesHowManyBitmapsThereAreNow) {
  TrackTwoFiles();
  EXPECT_EQ(Run({"track", "C:\\data\\One.vhdx"}), 0);
  EXPECT_EQ(terminal.notes, "") << "the first one";
  server.bitmaps.push_back(server.bitmaps[0]);
  EXPECT_EQ(Run({"track", "C:\\data\\One.vhdx"}), 0);
  EXPECT_EQ(terminal.printed, std::string(kId) + "\n");
  EXPECT_EQ(terminal.notes, "zelctl: note: C:\\data\\One.vhdx has 2 bitmaps now\n");
  server.answers["ListBitmaps"] = {.rpc_status = 0, .code = 5};
  EXPECT_EQ(Run({"track", "C:\\data\\One.vhdx"}), 0) << "the bitmap is begun";
  EXPECT_EQ(terminal.notes, "");
}

TEST_F(RunTest, UntrackTellsHowManyBitmapsGo) {
  TrackTwoFiles();
  EXPECT_EQ(RunJson({"untrack", "c:\\DATA\\one.vhdx"})["deleted_bitmaps"], 1);
  EXPECT_EQ(RunJson({"untrack", "C:\\data\\two"})["deleted_bitmaps"], 0);
  EXPECT_THAT(terminal.questions, IsEmpty());
}

TEST_F(RunTest, PersonIsAskedBeforeBitmapsGoWithTheirFile) {
  TrackTwoFiles();
  terminal.to_person = true;
  EXPECT_EQ(Run({"untrack", "C:\\data\\One.vhdx"}), 1);
  EXPECT_THAT(terminal.questions,
              ElementsAre("This deletes 1 bitmap, and each copy of C:\\data\\One.vhdx needs a "
                          "full pass afterwards. Stop tracking it?"));
  EXPECT_EQ(terminal.notes, "zelctl: C:\\data\\One.vhdx is still tracked, with 1 bitmap\n");
  EXPECT_THAT(server.calls, ElementsAre("GetTrackedFiles"));
  terminal.answer = true;
  EXPECT_EQ(Run({"untrack", "C:\\data\\One.vhdx"}), 0);
  EXPECT_EQ(terminal.printed,
            "C:\\data\\One.vhdx is not tracked any more; deleted with it: 1 bitmap\n");
  terminal.answer = false;
  for (const std::vector<std::string>& unasked :
       {std::vector<std::string>{"untrack", "C:\\data\\One.vhdx", "--yes"},
        {"untrack", "C:\\data\\two"},
        {"untrack", "C:\\data\\One.vhdx", "--json"}}) {
    EXPECT_EQ(Run(unasked), 0);
  }
  EXPECT_EQ(terminal.questions.size(), 2u);
}

TEST_F(RunTest, UntrackOfAnUntrackedFileIsRefused) {
  server.answers["StopTracking"] = {.rpc_status = 0, .code = 2};
  EXPECT_EQ(Run({"untrack", "C:\\a"}), 1);
  EXPECT_EQ(terminal.notes, "zelctl: ERROR_FILE_NOT_FOUND (2): C:\\a is not tracked\n");
}

TEST_F(RunTest, SyncAsksForNowOrTheTimeThatIsTold) {
  machine.now = 116'444'736'000'000'000;
  EXPECT_EQ(RunJson({"sync"}).dump(),
            R"({"ok":true,"time":"1970-01-01T00:00:00.0000000Z","filetime":116444736000000000})");
  EXPECT_EQ(Run({"sync", "--to", "1970-01-01T00:00:01Z"}), 0);
  EXPECT_EQ(Run({"sync", "--to", "7"}), 0);
  EXPECT_THAT(server.calls,
              ElementsAre("SynchronizeBitmaps 116444736000000000",
                          "SynchronizeBitmaps 116444736010000000", "SynchronizeBitmaps 7"));
}

TEST_F(RunTest, SyncOfAnotherMachineSaysWhoseNowItIs) {
  EXPECT_EQ(Run({"sync", "--server", "there"}), 0);
  EXPECT_THAT(terminal.notes, HasSubstr("this machine's clock: while the one of there is ahead"));
  EXPECT_EQ(Run({"sync", "--server", "there", "--to", "7"}), 0);
  EXPECT_EQ(terminal.notes, "");
  server.answers["SynchronizeBitmaps"] = {.rpc_status = 0, .code = 1460};
  EXPECT_EQ(Run({"sync", "--server", "there"}), 1);
  EXPECT_THAT(terminal.notes, HasSubstr("is it in the future"));
}

TEST_F(RunTest, SyncThatTimesOutSaysWhyItMay) {
  server.answers["SynchronizeBitmaps"] = {.rpc_status = 0, .code = 1460};
  EXPECT_EQ(Run({"sync"}), 1);
  EXPECT_THAT(terminal.notes, HasSubstr("ERROR_TIMEOUT (1460): the driver's reports"));
}

TEST_F(RunTest, DeleteNotesAnIdThatNoBitmapHas) {
  TrackTwoFiles();
  EXPECT_EQ(Run({"delete", kId, "0xdead"}), 0) << "a script may repeat itself";
  EXPECT_EQ(terminal.printed, "");
  EXPECT_EQ(terminal.notes,
            "zelctl: note: there was no bitmap 0x000000000000dead; the service has 1 bitmap "
            "(zelctl bitmaps)\n");
  const ordered_json json = RunJson({"delete", kId, "0xdead"});
  EXPECT_EQ(json["deleted"].size(), 2u);
  EXPECT_EQ(json["unknown"].dump(), R"(["0x000000000000dead"])");
  terminal.to_person = true;
  EXPECT_EQ(Run({"delete", kId, "0xdead"}), 0);
  EXPECT_EQ(terminal.printed, std::string(kId) + " is not there any more\n");
}

TEST_F(RunTest, DeleteTellsHowFarItCame) {
  server.files = {{.file = {kVolume, kFile}, .path = "C:\\a", .bitmaps = {1, 2}}};
  EXPECT_EQ(RunJson({"delete", "1", "0x2"}).dump(),
            R"({"ok":true,"deleted":["0x0000000000000001","0x0000000000000002"],"unknown":[]})");
  server.answers["DeleteBitmap"] = {.rpc_status = 0, .code = 5};
  EXPECT_THAT(RunJson({"delete", "1", "2"}, 1)["deleted"], IsEmpty());
}

}  // namespace
}  // namespace zel::ctl
