// apply as it goes: what it copies, reads and tells, and that one run at a time does.
#include "tests/unit/support/apply_fixture.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::ApplyTest;
using test::Bytes;
using test::kCopy;
using test::kSource;
using test::kStart;
using testing::HasSubstr;

TEST_F(ApplyTest, ChangedBlocksAreCopiedAndNothingElseIsRead) {
  WriteBlock(2, std::byte{1});
  WriteBlock(3, std::byte{2});
  WriteBlock(9, std::byte{3});
  EXPECT_EQ(RunJson(Arguments()).dump(),
            R"({"ok":true,"mode":"incremental","source":"C:\\source","copy":"D:\\copy",)"
            R"("source_size":40960,"copied_bytes":12288,"copied_ranges":2,"verified":false,)"
            R"("as_of":"2026-01-31T14:38:43.4823376Z"})");
  EXPECT_EQ(Record().as_of, kStart + 1000);
  EXPECT_TRUE(Equal());
  EXPECT_THAT(machine.At(kSource).reads,
              testing::ElementsAre(std::pair(2 * 4096, 8192), std::pair(9 * 4096, 4096)));
  EXPECT_THAT(server.calls,
              testing::ElementsAre("SynchronizeBitmaps " + std::to_string(kStart + 1000),
                                   "CopyBitmap", "GetTrackedFiles"));
  EXPECT_FALSE(IsHalfWay());
}

TEST_F(ApplyTest, PersonSeesTheProgressAndWhatWasDone) {
  WriteBlock(2, std::byte{1});
  terminal.to_person = true;
  EXPECT_EQ(Run(Arguments({"--verify"})), 0);
  EXPECT_EQ(terminal.printed,
            "incremental: read 4.0 KiB of 40.0 KiB (10.0 %); the copy is as of "
            "2026-01-31T14:38:43.4823376Z\n"
            "1 of 10 blocks of 4.0 KiB, in 1 range\n"
            "compared: both files are equal\n");
  // Each is cleared again.
  EXPECT_THAT(terminal.progress,
              testing::ElementsAre("waiting for the driver's reports", "",
                                   testing::StartsWith("copying 100.0 %"), "",
                                   testing::StartsWith("comparing 100.0 %"), ""));
}

TEST_F(ApplyTest, ScriptHearsOneLineAndProgressOnlyWhenItAsks) {
  WriteBlock(2, std::byte{1});
  EXPECT_EQ(Run(Arguments({"--verify"})), 0);
  EXPECT_EQ(terminal.printed,
            "incremental: read 4.0 KiB of 40.0 KiB (10.0 %); the copy is as of "
            "2026-01-31T14:38:43.4823376Z\n");
  EXPECT_EQ(terminal.notes, "");
  EXPECT_EQ(Run(Arguments({"--progress"})), 0);
  EXPECT_THAT(terminal.notes, testing::StartsWith("zelctl: copying 100.0 %"));
  EXPECT_TRUE(terminal.progress.empty());
}

TEST_F(ApplyTest, BitmapFileNeedsNoService) {
  WriteBlock(2, std::byte{1});
  EXPECT_EQ(Run({"apply", "--bitmap", "B:\\bitmap", "--from", kSource, "--to", kCopy}), 0);
  EXPECT_TRUE(Equal());
  EXPECT_EQ(Record().as_of, kStart + 1000) << "as the export says";
  EXPECT_THAT(server.calls, testing::ElementsAre("GetTrackedFiles"));
  server.answers["GetTrackedFiles"] = {.rpc_status = 1722, .code = 0};
  EXPECT_EQ(Run({"apply", "--bitmap", "B:\\bitmap", "--from", kSource, "--to", kCopy}), 0);
}

TEST_F(ApplyTest, SynchronizationCanBeLeftOutAndIsNotSkippedOtherwise) {
  WriteBlock(2, std::byte{1});
  server.answers["SynchronizeBitmaps"] = {.rpc_status = 0, .code = 1460};
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("the driver's reports"));
  EXPECT_EQ(Run(Arguments({"--no-sync"})), 0);
  EXPECT_TRUE(Equal());
  EXPECT_EQ(Record().as_of, kStart) << "nobody knows until when such a bitmap knows";
}

TEST_F(ApplyTest, DryRunSaysWhatWouldBeReadAndTouchesNothing) {
  WriteBlock(2, std::byte{1});
  const Bytes before = machine.At(kCopy).bytes;
  const CopyRecord known = Record();
  EXPECT_EQ(RunJson(Arguments({"--dry-run"}))["copied_bytes"], 4096);
  EXPECT_EQ(RunJson(Arguments({"--dry-run", "--full"}))["copied_bytes"], 40'960);
  EXPECT_EQ(Run(Arguments({"--dry-run"})), 0);
  EXPECT_THAT(terminal.printed, testing::StartsWith("incremental: would read 4.0 KiB of 40.0 KiB"));
  EXPECT_EQ(machine.At(kCopy).bytes, before);
  EXPECT_EQ(Record(), known);
  EXPECT_TRUE(machine.At(kSource).reads.empty());
}

TEST_F(ApplyTest, ObstaclesAreFoundBeforeAnythingIsRead) {
  machine.free_bytes = 40'959;
  EXPECT_EQ(RunJson(Arguments({"--full"}), 1)["error"]["name"], "ERROR_DISK_FULL");
  machine.free_bytes = 0;
  machine.At(kSource).bytes.resize(41'000);
  EXPECT_EQ(RunJson(Arguments(), 1)["error"]["name"], "ERROR_DISK_FULL");
  machine.free_bytes = 100'000;
  machine.unwritable = kCopy;
  EXPECT_EQ(RunJson(Arguments({"--full"}), 1)["error"]["name"], "ERROR_ACCESS_DENIED");
  EXPECT_TRUE(machine.At(kSource).reads.empty());
}

TEST_F(ApplyTest, OneRunAtATimeHasACopy) {
  WriteBlock(2, std::byte{1});
  for (const bool is_full : {true, false}) {
    int meanwhile = 0;
    machine.At(kSource).after_read = [&](test::MemoryFile& file) {
      file.after_read = {};
      const std::string printed = terminal.printed;
      for (const bool full_meanwhile : {true, false}) {
        const ordered_json json = RunJson(full_meanwhile ? Arguments({"--full"}) : Arguments(), 1);
        EXPECT_EQ(json["error"]["reason"], "busy");
        ++meanwhile;
      }
      terminal.printed = printed;
    };
    EXPECT_EQ(Run(is_full ? Arguments({"--full"}) : Arguments()), 0) << terminal.notes;
    EXPECT_EQ(meanwhile, 2);
    EXPECT_TRUE(Equal());
  }
}

TEST_F(ApplyTest, FirstFullCopyIsOneRunsToo) {
  machine.files.erase(kCopy);
  machine.At(kSource).after_read = [&](test::MemoryFile& file) {
    file.after_read = {};
    EXPECT_EQ(RunJson(Arguments({"--full"}), 1)["error"]["reason"], "busy");
  };
  EXPECT_EQ(Run(Arguments({"--full"})), 0);
  EXPECT_TRUE(Equal());
}

TEST_F(ApplyTest, MissingSourceIsTold) {
  machine.files.erase(kSource);
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("cannot open C:\\source"));
  EXPECT_THAT(Refusal(Arguments({"--full"})), HasSubstr("cannot open C:\\source"));
}

TEST_F(ApplyTest, GrowthAndTruncationAreTakenOver) {
  Bytes& source = machine.At(kSource).bytes;
  source.resize(12 * 4096 + 7, std::byte{9});
  test::ChangeHeader(bitmap, [](BitmapFileHeader& header) { header.SizeChanged = 1; });
  Publish();
  EXPECT_EQ(RunJson(Arguments({"--verify"}))["copied_bytes"], 2 * 4096 + 7);
  EXPECT_TRUE(Equal());
  source.resize(5000);
  for (const int block : {1, 2, 3, 4, 5, 6, 7, 8, 9}) test::SetBit(bitmap, block);
  Publish();
  EXPECT_EQ(RunJson(Arguments({"--verify"}))["copied_bytes"], 5000 - 4096);
  EXPECT_TRUE(Equal());
  source.resize(10 * 4096, std::byte{0});
  EXPECT_FALSE(RunJson(Arguments({"--verify"})).contains("notes"));
  EXPECT_TRUE(Equal());
}

TEST_F(ApplyTest, OnlyGrowthPastTheBitmapsBlocksIsNoted) {
  machine.At(kSource).bytes.resize(11 * 4096, std::byte{9});
  EXPECT_THAT(RunJson(Arguments())["notes"][0].get<std::string>(), HasSubstr("has grown since"));
  machine.At(kSource).bytes.resize(12 * 4096, std::byte{9});
  EXPECT_EQ(Run(Arguments()), 0);
  EXPECT_THAT(terminal.notes, testing::StartsWith("zelctl: note: C:\\source has grown"));
  machine.At(kSource).bytes.resize(10 * 4096 - 90);
  BeginBitmap(machine.now - 1);
  machine.At(kSource).bytes.resize(10 * 4096, std::byte{9});
  test::SetBit(bitmap, 9);
  Publish();
  EXPECT_FALSE(RunJson(Arguments()).contains("notes")) << "it has every byte";
}

TEST_F(ApplyTest, VerifyFindsWhatTheBitmapDoesNotKnow) {
  WriteBlock(2, std::byte{1});
  machine.At(kSource).bytes[5 * 4096 + 1] ^= std::byte{1};
  const ordered_json json = RunJson(Arguments({"--verify"}), 1);
  EXPECT_EQ(json["difference_at"], 5 * 4096 + 1);
  EXPECT_THAT(json["error"]["message"].get<std::string>(), HasSubstr("differ at byte 20481"));
  EXPECT_TRUE(IsHalfWay());
  test::SetBit(bitmap, 5);
  Publish();
  EXPECT_EQ(Run(Arguments({"--verify"})), 0);
  EXPECT_FALSE(IsHalfWay());
}

}  // namespace
}  // namespace zel::ctl
