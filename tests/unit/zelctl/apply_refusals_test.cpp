// What apply refuses: bitmaps that would make a wrong copy, and copies that are none.
#include "tests/unit/support/apply_fixture.h"

namespace zel::ctl {
namespace {

using test::ApplyTest;
using test::Bytes;
using test::kBitmap;
using test::kCopy;
using test::kSecond;
using test::kSource;
using test::kStart;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

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

}  // namespace
}  // namespace zel::ctl
