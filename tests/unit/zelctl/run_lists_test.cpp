// status, files and bitmaps: in text, in tables and in JSON.
#include "tests/unit/support/run_fixture.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::Bytes;
using test::kCreated;
using test::kId;
using test::RunTest;
using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(RunTest, StatusCountsAndAsksTheDriver) {
  TrackTwoFiles();
  EXPECT_EQ(RunJson({"status"}).dump(),
            R"({"ok":true,"tracked_files":2,"bitmaps":1,"driver":true})");
  EXPECT_EQ(Run({"status"}), 0);
  EXPECT_THAT(terminal.printed, HasSubstr("tracked files  2\nbitmaps        1\n"));
}

TEST_F(RunTest, StatusWithoutADriverCountsAllTheSame) {
  TrackTwoFiles();
  server.answers["GetDriverStatus"] = {.rpc_status = 0, .code = 0x80070006};
  const ordered_json json = RunJson({"status"}, 1);
  EXPECT_EQ(json["tracked_files"], 2);
  EXPECT_EQ(json["driver"], false);
  EXPECT_EQ(json["error"]["code"], 0x80070006);
  EXPECT_EQ(Run({"status"}), 1);
  EXPECT_THAT(terminal.printed, HasSubstr("driver         does not answer"));
}

TEST_F(RunTest, StatusCheckEndsWithFourWhenABitmapCannotBeTrusted) {
  TrackTwoFiles();
  Bytes bitmap = test::MakeBitmapBytes(1'114'113, 65'536);
  Serve(bitmap);
  EXPECT_EQ(RunJson({"status", "--check"})["untrusted"], 0);
  test::ChangeHeader(bitmap, [](BitmapFileHeader& header) { header.Unreliable = 1; });
  for (const Bytes& bad : {bitmap, Bytes(600)}) {
    Serve(bad);
    const ordered_json json = RunJson({"status", "--check"}, 4);
    EXPECT_EQ(json["untrusted"], 1);
    EXPECT_EQ(json["error"]["reason"], "unreliable");
  }
  server.contents.clear();
  EXPECT_EQ(RunJson({"status", "--check"}, 4)["untrusted"], 1) << "one that cannot be loaded";
  server.answers["CopyBitmap"] = {.rpc_status = 1722, .code = 0};
  EXPECT_EQ(Run({"status", "--check"}), 3);
}

TEST_F(RunTest, StateOfBitmapsIsATable) {
  TrackTwoFiles();
  Bytes bitmap = test::MakeBitmapBytes(1'114'113, 65'536);
  test::SetBit(bitmap, 0);
  Serve(bitmap);
  machine.now = kCreated + 26 * 3600 * kFileTimeUnitsPerSecond;
  EXPECT_EQ(Run({"bitmaps", "--state"}), 0);
  EXPECT_EQ(
      terminal.printed,
      "BITMAP              STATE       CHANGED                             AGE     BLOCKS     "
      "FILE\n"
      "0x000500000001a9f0  trusted     64.0 KiB of 1.1 MiB (5.9 %)         26 h    64.0 KiB   "
      "C:\\data\\One.vhdx\n");
  const ordered_json json = RunJson({"bitmaps", "--state"})["bitmaps"][0];
  EXPECT_EQ(json["trust"], "trusted");
  EXPECT_EQ(json["changed"]["blocks"], 1);
  test::ChangeHeader(bitmap, [](BitmapFileHeader& header) { header.Unreliable = 1; });
  Serve(bitmap);
  EXPECT_EQ(RunJson({"bitmaps", "--state"})["bitmaps"][0]["trust"], "unreliable");
}

TEST_F(RunTest, FilesAreListedWithTheirBitmaps) {
  TrackTwoFiles();
  EXPECT_EQ(Run({"files"}), 0);
  EXPECT_EQ(terminal.printed,
            "8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e  0x000300000001a2b4  1  C:\\data\\One.vhdx\n"
            "8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e  0x0000000000000009  0  C:\\data\\two\n");
  EXPECT_EQ(RunJson({"files"})["files"][0].dump(),
            R"({"path":"C:\\data\\One.vhdx","volume":"8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e",)"
            R"("file_id":"0x000300000001a2b4","bitmap_ids":["0x000500000001a9f0"]})");
}

TEST_F(RunTest, ListsHaveHeadingsOnATerminal) {
  TrackTwoFiles();
  server.bitmaps[0].block_size = 4095;
  terminal.to_person = true;
  EXPECT_EQ(Run({"files"}), 0);
  EXPECT_EQ(terminal.printed,
            "VOLUME                                FILE ID             BITMAPS  FILE\n"
            "8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e  0x000300000001a2b4  1        "
            "C:\\data\\One.vhdx\n"
            "8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e  0x0000000000000009  0        C:\\data\\two\n");
  EXPECT_EQ(Run({"bitmaps"}), 0);
  EXPECT_EQ(terminal.printed,
            "BITMAP              CREATED                       BLOCKS     FILE\n"
            "0x000500000001a9f0  2026-01-31T14:38:43.4821376Z  4095 bytes  "
            "C:\\data\\One.vhdx\n");
  server.files.clear();
  EXPECT_EQ(Run({"files"}), 0);
  EXPECT_EQ(terminal.printed, "") << "a heading alone says nothing";
}

TEST_F(RunTest, NothingTrackedIsAnEmptyList) {
  EXPECT_EQ(Run({"files"}), 0);
  EXPECT_EQ(terminal.printed, "");
  EXPECT_EQ(RunJson({"files"}).dump(), R"({"ok":true,"files":[]})");
  EXPECT_EQ(RunJson({"bitmaps"}).dump(), R"({"ok":true,"bitmaps":[]})");
}

TEST_F(RunTest, BitmapsOfAllFilesAreListed) {
  TrackTwoFiles();
  EXPECT_EQ(Run({"bitmaps"}), 0);
  EXPECT_EQ(terminal.printed,
            std::string(kId) + "  2026-01-31T14:38:43.4821376Z  64.0 KiB  C:\\data\\One.vhdx\n");
  EXPECT_THAT(server.calls, ElementsAre("GetTrackedFiles", "ListBitmaps", "ListBitmaps"));
  EXPECT_EQ(RunJson({"bitmaps"})["bitmaps"][0].dump(),
            R"({"bitmap_id":"0x000500000001a9f0","path":"C:\\data\\One.vhdx",)"
            R"("volume":"8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e","file_id":"0x000300000001a2b4",)"
            R"("block_size":65536,"creation_time":"2026-01-31T14:38:43.4821376Z",)"
            R"("bitmap_file_size":515,"bitmap_file":"\\\\?\\C:\\cbt\\x"})");
}

TEST_F(RunTest, BitmapsOfOneFileAreFoundByItsPathInAnyCase) {
  TrackTwoFiles();
  EXPECT_EQ(RunJson({"bitmaps", "c:\\DATA\\one.VHDX"})["bitmaps"].size(), 1u);
  EXPECT_EQ(RunJson({"bitmaps", "C:\\data\\two"})["bitmaps"].size(), 0u);
  const ordered_json error = RunJson({"bitmaps", "C:\\data\\three"}, 1)["error"];
  EXPECT_EQ(error["code"], 2);
  EXPECT_EQ(error["message"], "C:\\data\\three is not tracked");
}

TEST_F(RunTest, RelativePathIsOfThisMachineUnlessAnotherIsAsked) {
  EXPECT_EQ(Run({"untrack", "data"}), 0);
  EXPECT_EQ(Run({"untrack", "data", "--server", "there"}), 0);
  EXPECT_THAT(server.calls, ElementsAre("GetTrackedFiles", "StopTracking C:\\here\\data",
                                        "GetTrackedFiles", "StopTracking data"));
}

}  // namespace
}  // namespace zel::ctl
