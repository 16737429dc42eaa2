// apply as a whole: what it refuses, what it leaves when it is killed, and what completes it.
#include "tests/unit/support/tool_fixture.h"
#include "zelctl/copies/copy_record.h"
#include "zelctl/id_text.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::Bytes;
using test::kBitmap;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kSource[] = "C:\\source";
constexpr char kCopy[] = "D:\\copy";
constexpr char kRecords[] = "D:\\.zelctl\\";
constexpr FileTime kStart = test::kCreated + 1000;
constexpr FileTime kSecond = 10'000'000;
constexpr std::uint32_t kBlock = 4096;

class ApplyTest : public test::ToolTest {
 protected:
  ApplyTest() {
    Bytes& source = machine.At(kSource).bytes;
    for (int i = 0; i < 10 * 4096; ++i) source.push_back(static_cast<std::byte>(i * 31 >> 3));
    machine.At(kSource).id = test::kFile;
    bitmap = test::MakeBitmapBytes(source.size(), kBlock);
    machine.now = kStart;
    EXPECT_EQ(Run({"apply", "--full", "--from", kSource, "--to", kCopy}), 0);
    machine.At(kSource).reads.clear();
    server.calls.clear();
    machine.now = kStart + 1000;
    Publish();
  }

  // What the service sends from now on: `bitmap`, in use.
  void Publish() {
    Bytes& sent = server.contents[kBitmap] = bitmap;
    test::ChangeHeader(sent, [](BitmapFileHeader& header) { header.ClosedCleanly = 0; });
    BitmapFile exported = test::ToBitmap(bitmap);
    MakeExport(exported, machine.now);
    machine.At("B:\\bitmap").bytes = exported.bytes;
  }
  void WriteBlock(std::uint64_t block, std::byte value) {
    Bytes& source = machine.At(kSource).bytes;
    const std::uint64_t end = std::min<std::uint64_t>((block + 1) * kBlock, source.size());
    std::fill(source.begin() + static_cast<long>(block * kBlock),
              source.begin() + static_cast<long>(end), value);
    test::SetBit(bitmap, block);
    Publish();
  }
  std::vector<std::string> Arguments(std::vector<std::string> more = {}) {
    std::vector<std::string> all = {"apply", "--bitmap", "0x000500000001a9f0", "--from", kSource,
                                    "--to",  kCopy};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }
  // A bitmap of another time takes the place of the one before.
  void BeginBitmap(FileTime begun, std::uint32_t block_size = kBlock) {
    bitmap = test::MakeBitmapBytes(machine.At(kSource).bytes.size(), block_size, begun);
    Publish();
  }
  // What is known of the copy; the test fails where nothing is.
  CopyRecord Record() {
    const Bytes& bytes = machine.At(RecordPath()).bytes;
    const auto record = ParseRecord({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    EXPECT_TRUE(record.has_value());
    return record.value_or(CopyRecord{});
  }
  std::string RecordPath() { return kRecords + FormatId(machine.At(kCopy).id) + ".copy"; }
  bool IsHalfWay() { return Record().half_way.has_value(); }
  bool Equal() { return machine.At(kCopy).bytes == machine.At(kSource).bytes; }
  // Of several blocks that have changed.
  void DieInTheMidst() {
    machine.death = {.changes = 0, .fail_at = 8};
    EXPECT_EQ(Run(Arguments()), 1);
    machine.death = {};
    ASSERT_TRUE(IsHalfWay());
    ASSERT_FALSE(Equal());
  }
  // "reason: message".
  std::string Refusal(const std::vector<std::string>& arguments, int exit_code = 1) {
    const Bytes before = machine.At(kCopy).bytes;
    const ordered_json error = RunJson(arguments, exit_code)["error"];
    EXPECT_EQ(machine.At(kCopy).bytes, before) << "the copy is untouched";
    return error["reason"].get<std::string>() + ": " + error["message"].get<std::string>();
  }

  Bytes bitmap;
};

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

TEST_F(ApplyTest, UnreliableBitmapIsRefusedAndFullCopyHelps) {
  test::ChangeHeader(bitmap, [](BitmapFileHeader& header) { header.Unreliable = 1; });
  Publish();
  machine.At(kSource).bytes[5] ^= std::byte{1};
  EXPECT_THAT(Refusal(Arguments(), 4), testing::StartsWith("unreliable: bitmap 0x"));
  EXPECT_THAT(Refusal(Arguments(), 4), HasSubstr("a full copy is needed (--full)"));
  EXPECT_EQ(RunJson({"apply", "--full", "--from", kSource, "--to", kCopy, "--verify"}).dump(),
            R"({"ok":true,"mode":"full","source":"C:\\source","copy":"D:\\copy",)"
            R"("source_size":40960,"copied_bytes":40960,"copied_ranges":1,"verified":true,)"
            R"("as_of":"2026-01-31T14:38:43.4823378Z"})");
  EXPECT_TRUE(Equal());
}

TEST_F(ApplyTest, FileThatWasNotClosedIsRefusedUnlessTheServiceSentIt) {
  WriteBlock(2, std::byte{1});
  machine.At("B:\\bitmap").bytes = server.contents[kBitmap];
  std::vector<std::string> arguments = {"apply", "--bitmap", "B:\\bitmap", "--from",
                                        kSource, "--to",     kCopy};
  EXPECT_THAT(Refusal(arguments), testing::StartsWith("in_use: "));
  arguments.push_back("--service-copy");
  EXPECT_EQ(Run(arguments), 0);
  EXPECT_TRUE(Equal());
}

TEST_F(ApplyTest, AnotherFilesBitmapIsRefusedUnlessItIsASnapshotOfThatFile) {
  WriteBlock(2, std::byte{1});
  machine.At(kSource).id = 7;
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("is file 0x0000000000000007 on volume"));
  EXPECT_THAT(Refusal(Arguments()), testing::StartsWith("identity: "));
  EXPECT_THAT(Refusal(Arguments({"--full"})), testing::StartsWith("identity: "));
  EXPECT_EQ(Run(Arguments({"--force-identity", "--snapshot-time", std::to_string(kStart + 500)})),
            0);
  EXPECT_TRUE(Equal());
  EXPECT_EQ(Record().as_of, kStart + 500);
}

TEST_F(ApplyTest, SnapshotThatDoesNotFitIsRefused) {
  machine.At(kSource).id = 7;
  const auto at = [&](FileTime time) {
    return Arguments({"--force-identity", "--snapshot-time", std::to_string(time)});
  };
  EXPECT_THAT(Refusal(at(kStart - 1)), testing::StartsWith("too_late: the snapshot is older"));
  EXPECT_THAT(Refusal(at(kStart + 100'000), 4), HasSubstr("lies in the future"));
  std::vector<std::string> with_export = at(machine.now + 1);
  with_export[2] = "B:\\bitmap";
  machine.now += 10;
  EXPECT_THAT(Refusal(with_export), HasSubstr("was exported before the snapshot"));
}

TEST_F(ApplyTest, CopyThatCannotBeOneIsRefused) {
  machine.files.erase(kCopy);
  EXPECT_EQ(RunJson(Arguments(), 4)["error"]["message"],
            "there is no D:\\copy yet: a full copy is needed (--full)");
  machine.files[kCopy] = machine.files[kSource];
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("is the same file as"));
  EXPECT_THAT(Refusal(Arguments({"--full", "--replace"})), HasSubstr("is the same file as"));
}

TEST_F(ApplyTest, UnknownCopyIsTakenOnlyAsOfATimeThatIsTold) {
  machine.files.erase(RecordPath());
  WriteBlock(2, std::byte{1});
  EXPECT_THAT(Refusal(Arguments(), 4), testing::StartsWith("not_a_copy: nothing is known"));
  EXPECT_THAT(Refusal(Arguments({"--as-of", std::to_string(test::kCreated - 1)}), 4),
              testing::StartsWith("too_late: "));
  EXPECT_THAT(Refusal(Arguments({"--as-of", std::to_string(machine.now + 100)}), 4),
              HasSubstr("lies in the future"));
  for (const std::size_t size : {5 * 4096, 11 * 4096}) {
    const Bytes whole = machine.At(kCopy).bytes;
    machine.At(kCopy).bytes.resize(size);
    EXPECT_THAT(Refusal(Arguments({"--as-of", std::to_string(kStart)}), 4),
                HasSubstr("has not the size"));
    machine.At(kCopy).bytes = whole;
  }
  EXPECT_EQ(Run(Arguments({"--as-of", std::to_string(kStart)})), 0);
  EXPECT_TRUE(Equal());
  EXPECT_THAT(Refusal(Arguments({"--as-of", std::to_string(kStart)})),
              HasSubstr("is known to be as of 2026-01-31T14:38:43."));
}

TEST_F(ApplyTest, CopyThatSomethingElseChangedIsNotKnownAnyMore) {
  ++machine.At(kCopy).written;
  EXPECT_THAT(Refusal(Arguments(), 4), HasSubstr("was changed by something else"));
  --machine.At(kCopy).written;
  machine.At(kCopy).bytes.resize(5);
  EXPECT_THAT(Refusal(Arguments(), 4), HasSubstr("was changed by something else"));
  machine.At(RecordPath()).bytes[30] ^= std::byte{1};
  EXPECT_THAT(Refusal(Arguments(), 4), HasSubstr("is damaged"));
}

TEST_F(ApplyTest, CopyIsKnownByWhatItIsAndNotByItsName) {
  WriteBlock(2, std::byte{1});
  machine.files["D:\\renamed"] = machine.files[kCopy];
  machine.files.erase(kCopy);
  machine.links["E:\\link"] = "D:\\renamed";
  for (const char* name : {"D:\\renamed", "E:\\link"}) {
    std::vector<std::string> arguments = Arguments();
    arguments.back() = name;
    if (name == std::string("E:\\link")) {
      machine.files[name] = machine.files["D:\\renamed"];
    }
    EXPECT_EQ(Run(arguments), 0) << name << terminal.notes;
    EXPECT_EQ(machine.At("D:\\renamed").bytes, machine.At(kSource).bytes);
  }
  // Another file under the old name is another file.
  machine.At(kCopy).bytes = machine.At(kSource).bytes;
  EXPECT_THAT(Refusal(Arguments(), 4), HasSubstr("nothing is known"));
}

TEST_F(ApplyTest, CopyMovedWithinItsVolumeIsKnownOnceItsRecordIsThereToo) {
  WriteBlock(2, std::byte{1});
  std::vector<std::string> arguments = Arguments();
  arguments.back() = "D:\\moved\\copy";
  const std::string record = RecordPath();
  const std::string moved_record = "D:\\moved\\" + record.substr(3);
  machine.files[arguments.back()] = machine.files[kCopy];
  machine.files.erase(kCopy);
  EXPECT_THAT(RunJson(arguments, 4)["error"]["message"].get<std::string>(),
              HasSubstr("nothing is known of D:\\moved\\copy, as of when it is a copy and of what "
                        "(there is no " +
                        moved_record + ")"));
  machine.files[moved_record] = machine.files[record];
  machine.files.erase(record);
  EXPECT_EQ(Run(arguments), 0) << terminal.notes;
  EXPECT_EQ(machine.At("D:\\moved\\copy").bytes, machine.At(kSource).bytes);
}

// On another volume it has another id, even where its record is renamed to it.
TEST_F(ApplyTest, CopyOfTheCopyIsAnotherFile) {
  std::vector<std::string> arguments = Arguments();
  arguments.back() = "E:\\copy";
  test::MemoryFile& copied = machine.At("E:\\copy");
  copied.bytes = machine.At(kCopy).bytes;
  copied.written = machine.At(kCopy).written;
  const std::string record = "E:\\.zelctl\\" + FormatId(machine.At(kCopy).id) + ".copy";
  machine.At(record).bytes = machine.At(RecordPath()).bytes;
  EXPECT_THAT(Refusal(arguments, 4), HasSubstr("nothing is known"));
  machine.At("E:\\.zelctl\\" + FormatId(copied.id) + ".copy").bytes =
      machine.At(RecordPath()).bytes;
  EXPECT_THAT(Refusal(arguments, 4), HasSubstr("was changed by something else"));
  arguments.insert(arguments.end(), {"--as-of", std::to_string(kStart)});
  EXPECT_EQ(Run(arguments), 0) << terminal.notes;
}

// Its record beside it is older than the copy that was brought up to date elsewhere.
TEST_F(ApplyTest, CopyMovedBackToAnOldRecordIsNotTakenForWhatItWas) {
  const CopyRecord old = Record();
  const Bytes old_record = machine.At(RecordPath()).bytes;
  WriteBlock(2, std::byte{1});
  machine.now += kSecond;
  EXPECT_EQ(Run(Arguments()), 0);
  machine.At(RecordPath()).bytes = old_record;
  ASSERT_EQ(Record(), old);
  EXPECT_THAT(Refusal(Arguments(), 4), HasSubstr("was changed by something else"));
}

// The live file is never the place of a copy; whatever else is there, only when it is said.
TEST_F(ApplyTest, NothingIsOverwrittenUnasked) {
  machine.At("E:\\other").bytes = Bytes(41'000, std::byte{7});
  const auto to = [&](const std::string& from, const std::string& path,
                      std::vector<std::string> more) {
    std::vector<std::string> arguments = {"apply", "--from", from, "--to", path};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  };
  const auto refused = [&](const std::vector<std::string>& arguments, int exit_code = 1) {
    const Bytes live = machine.At(kSource).bytes;
    const Bytes other = machine.At("E:\\other").bytes;
    const std::string reason = RunJson(arguments, exit_code)["error"]["reason"];
    EXPECT_EQ(machine.At(kSource).bytes, live);
    EXPECT_EQ(machine.At("E:\\other").bytes, other);
    return reason;
  };
  const std::string id = "0x000500000001a9f0";
  const std::string time = std::to_string(kStart);
  // The copy for the file, by mistake or on purpose.
  server.files = {{.file = {test::kVolume, test::kFile}, .path = kSource, .bitmaps = {}}};
  EXPECT_EQ(refused(to(kCopy, kSource, {"--full"})), "identity") << "it is tracked";
  EXPECT_EQ(refused(to(kCopy, kSource, {"--full", "--bitmap", id})), "identity");
  EXPECT_EQ(refused(to(kCopy, kSource,
                       {"--bitmap", id, "--force-identity", "--snapshot-time", time, "--as-of",
                        time, "--replace"})),
            "identity");
  server.files.clear();
  EXPECT_EQ(refused(to(kCopy, kSource, {"--full"})), "not_a_copy");
  // Any other file.
  EXPECT_EQ(refused(to(kSource, "E:\\other", {"--full"})), "not_a_copy");
  EXPECT_EQ(refused(to(kSource, "E:\\other", {"--bitmap", id}), 4), "not_a_copy");
  EXPECT_EQ(refused(to(kSource, "E:\\other", {"--bitmap", id, "--as-of", time}), 4), "not_a_copy");
  server.files = {
      {.file = {test::kVolume, machine.At("E:\\other").id}, .path = "E:\\other", .bitmaps = {}}};
  EXPECT_EQ(refused(to(kSource, "E:\\other", {"--full"})), "identity");
  EXPECT_EQ(Run(to(kSource, "E:\\other", {"--full", "--replace"})), 0);
  EXPECT_EQ(machine.At("E:\\other").bytes, machine.At(kSource).bytes);
}

// It may be a live file that is tracked, and nobody tells.
TEST_F(ApplyTest, UnknownCopyIsNotOverwrittenWhileTheServiceDoesNotAnswer) {
  server.answers["GetTrackedFiles"] = {.rpc_status = 1722, .code = 0};
  WriteBlock(2, std::byte{1});
  const std::string time = std::to_string(kStart);
  std::vector<std::string> arguments = {"apply", "--bitmap", "B:\\bitmap", "--from",
                                        kSource, "--to",     kCopy};
  EXPECT_EQ(Run(arguments), 0) << "it is known";
  machine.files.erase(RecordPath());
  arguments.insert(arguments.end(), {"--as-of", time});
  EXPECT_THAT(Refusal(arguments, 3), HasSubstr("; it may be tracked itself; say --replace"));
  EXPECT_EQ(machine.files.count(RecordPath()), 0u);
  server.answers["GetTrackedFiles"] = {.rpc_status = 0, .code = 1115};
  EXPECT_THAT(Refusal(arguments),
              HasSubstr("the service is stopping; try again when it runs; it may be tracked"));
  server.answers.erase("GetTrackedFiles");
  EXPECT_EQ(Run(arguments), 0);
}

// Nothing has to be asked for what is refused anyway, and that says more.
TEST_F(ApplyTest, CopyOfAnotherFileIsRefusedAlsoWhileTheServiceDoesNotAnswer) {
  server.answers["GetTrackedFiles"] = {.rpc_status = 1722, .code = 0};
  machine.At(kSource).id = 7;
  EXPECT_THAT(Refusal({"apply", "--full", "--from", kSource, "--to", kCopy}),
              AllOf(StartsWith("not_a_copy: "), HasSubstr("say --replace")));
  EXPECT_EQ(Run({"apply", "--full", "--from", kSource, "--to", kCopy, "--replace"}), 0);
}

TEST_F(ApplyTest, FilesUnderNamesLikeOursStay) {
  for (const char* name : {"D:\\copy.zelctl-new", "D:\\copy.zelctl-apply"}) {
    machine.At(name).bytes = Bytes(3);
  }
  WriteBlock(2, std::byte{1});
  EXPECT_EQ(Run(Arguments()), 0);
  EXPECT_EQ(Run(Arguments({"--full"})), 0);
  EXPECT_EQ(machine.At("D:\\copy.zelctl-new").bytes, Bytes(3));
  EXPECT_EQ(machine.At("D:\\copy.zelctl-apply").bytes, Bytes(3));
}

TEST_F(ApplyTest, MarkOfTheFirstVersionMeansHalfWayUntilAFullCopy) {
  constexpr char kMark[] = "D:\\copy.zelctl-apply";
  constexpr std::string_view kText =
      "zelctl apply 1 8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e 0x000300000001a2b4 0x01dc92bf4c8a6d00\n";
  const auto bytes = std::as_bytes(std::span(kText));
  machine.At(kMark).bytes.assign(bytes.begin(), bytes.end());
  machine.files["E:\\link"] = machine.files[kCopy];
  machine.links["E:\\link"] = kCopy;
  WriteBlock(2, std::byte{1});
  std::vector<std::string> through_link = Arguments();
  through_link.back() = "E:\\link";
  EXPECT_THAT(Refusal(through_link, 4), StartsWith("half_way: "));
  for (const bool is_known : {true, false}) {
    if (!is_known) machine.files.erase(RecordPath());
    EXPECT_THAT(
        Refusal(Arguments(), 4),
        StartsWith("half_way: an earlier version of zelctl left D:\\copy half way; its mark"));
    EXPECT_THAT(Refusal(Arguments({"--full"})),
                AllOf(StartsWith("half_way: "), HasSubstr("--rep")));
  }
  EXPECT_THAT(Refusal(Arguments({"--as-of", std::to_string(kStart)}), 4),
              HasSubstr("a full copy is needed (--full --replace)"));
  EXPECT_EQ(Run(Arguments({"--full", "--replace"})), 0);
  EXPECT_FALSE(machine.files.contains(kMark));
  EXPECT_EQ(Run(Arguments()), 0);
  EXPECT_TRUE(Equal());
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

TEST_F(ApplyTest, FullCopyAppearsWholeOrNotAtAll) {
  machine.At(kSource).bytes[5] ^= std::byte{1};
  const Bytes before = machine.At(kCopy).bytes;
  for (int change = 0; change < 9; ++change) {
    machine.death = {.changes = 0, .fail_at = change};
    EXPECT_EQ(Run(Arguments({"--full"})), 1) << change;
    EXPECT_EQ(machine.At(kCopy).bytes, before) << change;
  }
  machine.death = {};
  machine.files.erase(kCopy);
  EXPECT_EQ(Run({"apply", "--full", "--from", kSource, "--to", kCopy}), 0);
  EXPECT_TRUE(Equal());
  for (const auto& [path, file] : machine.files) {
    EXPECT_THAT(path, testing::Not(HasSubstr("\\name-"))) << "nothing of the broken runs";
  }
}

TEST_F(ApplyTest, FullCopyThatProvesWrongDoesNotTakeThePlace) {
  const Bytes before = machine.At(kCopy).bytes;
  machine.At(kSource).after_read = [](test::MemoryFile& file) { file.bytes[9] ^= std::byte{1}; };
  const ordered_json json = RunJson(Arguments({"--full", "--verify"}), 1);
  EXPECT_EQ(json["difference_at"], 9);
  EXPECT_THAT(
      json["error"]["message"].get<std::string>(),
      EndsWith("was written meanwhile, or it was not read or written right; the new copy is "
               "thrown away, and D:\\copy is as it was"));
  EXPECT_EQ(machine.At(kCopy).bytes, before);
  for (const auto& [path, file] : machine.files)
    EXPECT_THAT(path, testing::Not(HasSubstr("\\name-")));
}

TEST_F(ApplyTest, RunAfterAnInterruptedOneWithTheSameBitmapCompletesIt) {
  int deaths = 0;
  for (int change = 0; change < 40; ++change) {
    for (const int block : {1, 3, 4, 8, 9})
      WriteBlock(block, static_cast<std::byte>(change + block));
    machine.death = {.changes = 0, .fail_at = change};
    if (Run(Arguments()) != 0) ++deaths;
    machine.death = {};
    EXPECT_EQ(Run(Arguments({"--verify"})), 0) << change << terminal.notes;
    EXPECT_TRUE(Equal()) << change;
    EXPECT_FALSE(IsHalfWay());
  }
  EXPECT_GE(deaths, 13) << "each change of the record and of the copy";
}

TEST_F(ApplyTest, HalfCopyIsRefusedForBitmapsThatKnowLess) {
  const auto apply_export = [](const std::string& file) {
    return std::vector<std::string>{"apply", "--bitmap", file, "--from", kSource, "--to", kCopy};
  };
  machine.At("B:\\old") = machine.At("B:\\bitmap");
  machine.now += 10;
  for (const int block : {1, 3, 5}) WriteBlock(block, std::byte{7});
  DieInTheMidst();

  // It was exported before, and lacks what the broken run had.
  server.bitmaps = {{.id = kBitmap,
                     .file = {test::kVolume, test::kFile},
                     .block_size = kBlock,
                     .creation_time = test::kCreated,
                     .file_size = 0,
                     .file_name = {}}};
  const std::string named =
      "an earlier run left it half way with bitmap 0x000500000001a9f0, begun "
      "2026-01-31T14:38:43.4821376Z, which ";
  EXPECT_THAT(Refusal(apply_export("B:\\old")),
              AllOf(StartsWith("half_way: "),
                    HasSubstr(named + "the service still has: run that one again, or a full")));
  const Bytes first = bitmap;
  BeginBitmap(machine.now);
  EXPECT_THAT(Refusal(Arguments(), 4),
              AllOf(StartsWith("too_late: "), HasSubstr(named + "the service still has: ")));
  // Another bitmap may have got its id.
  ++server.bitmaps[0].creation_time;
  EXPECT_THAT(Refusal(apply_export("B:\\old"), 4),
              AllOf(StartsWith("half_way: "),
                    HasSubstr(named + "is gone: a full copy is needed (--full), unless you have")));
  EXPECT_THAT(Refusal(Arguments(), 4), HasSubstr(named + "is gone: "));
  server.answers["ListBitmaps"] = {.rpc_status = 1722, .code = 0};
  EXPECT_THAT(Refusal(apply_export("B:\\old")), HasSubstr(named + "the service may still have"));
  bitmap = first;
  Publish();
  EXPECT_EQ(Run(Arguments()), 0);
  EXPECT_TRUE(Equal());
  EXPECT_FALSE(IsHalfWay());
}

TEST_F(ApplyTest, HalfCopyThatSomethingElseChangedIsNotCompleted) {
  for (const int block : {1, 3, 5}) WriteBlock(block, std::byte{7});
  DieInTheMidst();
  test::MemoryFile& copy = machine.At(kCopy);
  const test::MemoryFile left = copy;
  const auto refused = [&] {
    EXPECT_THAT(Refusal(Arguments(), 4),
                HasSubstr("not_a_copy: D:\\copy was changed by something else since a run left it "
                          "half way: say --as-of TIME"));
    copy = left;
  };
  copy.written += 20 * kSecond;
  refused();
  copy.written -= 20 * kSecond;
  refused();
  copy.bytes.resize(copy.bytes.size() + 1);
  refused();
  machine.now += 100 * kSecond;
  EXPECT_EQ(Run(Arguments()), 0) << terminal.notes;
  EXPECT_TRUE(Equal());
}

// Each of the two runs finds what was written while the one before lived.
TEST_F(ApplyTest, RunThatWasKilledLateIsCompletedAsWellAsOneThatDidNothing) {
  machine.At(kSource).bytes.resize(11 * 4096, std::byte{8});
  for (const int block : {1, 3, 5, 7}) WriteBlock(block, std::byte{7});
  const auto work_slowly = [&](test::MemoryFile&) {
    machine.At(kCopy).written = machine.now;  // what was written last
    machine.now += 7 * kSecond;
  };
  machine.At(kSource).after_read = work_slowly;
  machine.death = {.changes = 0, .fail_at = 25};
  EXPECT_EQ(Run(Arguments()), 1);
  machine.At(kSource).after_read = {};
  machine.death = {};
  ASSERT_GT(machine.now, kStart + 20 * kSecond);
  machine.now += 100 * kSecond;
  machine.At(kSource).bytes.resize(12 * 4096, std::byte{9});
  machine.death = {.changes = 0, .fail_at = 4};  // the new run's record is all that it did
  EXPECT_EQ(Run(Arguments()), 1);
  machine.death = {};
  machine.now += 100 * kSecond;
  EXPECT_EQ(Run(Arguments()), 0) << terminal.notes;
  EXPECT_TRUE(Equal());
}

TEST_F(ApplyTest, FullCopyEndsWhatAnInterruptedRunLeft) {
  WriteBlock(2, std::byte{1});
  machine.death = {.changes = 0, .fail_at = 6};
  EXPECT_EQ(Run(Arguments()), 1);
  machine.death = {};
  EXPECT_TRUE(IsHalfWay());
  EXPECT_EQ(Run(Arguments({"--full"})), 0);
  EXPECT_FALSE(IsHalfWay());
  EXPECT_TRUE(Equal());
}

// A round that failed and was not noticed: what was written until the next bitmap was begun is in
// no later one.
TEST_F(ApplyTest, BitmapAfterARefusedRoundIsRefused) {
  WriteBlock(1, std::byte{2});
  test::ChangeHeader(bitmap, [](BitmapFileHeader& header) { header.Unreliable = 1; });
  Publish();
  BeginBitmap(machine.now++);
  WriteBlock(2, std::byte{3});
  EXPECT_THAT(Refusal(Arguments(), 4), testing::StartsWith("too_late: D:\\copy is as of "));
}

TEST_F(ApplyTest, BitmapThatWasBegunAfterTheFullCopyIsRefused) {
  BeginBitmap(kStart + 1);
  EXPECT_THAT(Refusal(Arguments(), 4), testing::StartsWith("too_late: "));
  BeginBitmap(kStart);
  EXPECT_EQ(Run(Arguments()), 0);
}

TEST_F(ApplyTest, BitmapThatWasDamagedIsRefused) {
  WriteBlock(2, std::byte{1});
  const Bytes whole = machine.At("B:\\bitmap").bytes;
  for (std::size_t at = 0; at < 0x60; ++at) {
    for (const int flip : {0x01, 0x80, 0xFF}) {
      machine.At("B:\\bitmap").bytes[at] ^= static_cast<std::byte>(flip);
      EXPECT_THAT(Refusal({"apply", "--bitmap", "B:\\bitmap", "--from", kSource, "--to", kCopy}),
                  testing::StartsWith("damaged: "))
          << at;
      machine.At("B:\\bitmap").bytes = whole;
    }
  }
}

}  // namespace
}  // namespace zel::ctl
