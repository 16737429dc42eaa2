// apply as a whole: what it refuses, what it leaves when it is killed, and what completes it.
#include "zelctl/apply_mark.h"

#include <random>

#include "tests/unit/support/tool_fixture.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::Bytes;
using test::kBitmap;
using testing::HasSubstr;

constexpr char kSource[] = "C:\\source";
constexpr char kCopy[] = "D:\\copy";
constexpr char kMark[] = "D:\\copy.zelctl-apply";
constexpr std::uint32_t kBlock = 4096;

class ApplyTest : public test::ToolTest {
 protected:
  ApplyTest() {
    Bytes& source = machine.At(kSource).bytes;
    for (int i = 0; i < 10 * 4096; ++i) source.push_back(static_cast<std::byte>(i * 31 >> 3));
    machine.At(kSource).id = test::kFile;
    machine.At(kCopy).bytes = source;
    bitmap = test::MakeBitmapBytes(source.size(), kBlock);
    Publish();
  }

  // What the service sends from now on: `bitmap`, in use.
  void Publish() {
    Bytes& sent = server.contents[kBitmap] = bitmap;
    test::ChangeHeader(sent, [](BitmapFileHeader& header) { header.ClosedCleanly = 0; });
    machine.At("B:\\bitmap").bytes = bitmap;
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
  bool Equal() { return machine.At(kCopy).bytes == machine.At(kSource).bytes; }
  std::string Refusal(const std::vector<std::string>& arguments) {
    const Bytes before = machine.At(kCopy).bytes;
    const std::string message = RunJson(arguments, 1)["error"]["message"];
    EXPECT_EQ(machine.At(kCopy).bytes, before) << "the copy is untouched";
    return message;
  }

  Bytes bitmap;
};

TEST_F(ApplyTest, ChangedBlocksAreCopiedAndNothingElseIsRead) {
  WriteBlock(2, std::byte{1});
  WriteBlock(3, std::byte{2});
  WriteBlock(9, std::byte{3});
  machine.now = 5;
  EXPECT_EQ(RunJson(Arguments()).dump(),
            R"({"ok":true,"mode":"incremental","source":"C:\\source","copy":"D:\\copy",)"
            R"("source_size":40960,"copied_bytes":12288,"copied_ranges":2,"verified":false})");
  EXPECT_TRUE(Equal());
  EXPECT_THAT(machine.At(kSource).reads,
              testing::ElementsAre(std::pair(2 * 4096, 8192), std::pair(9 * 4096, 4096)));
  EXPECT_THAT(server.calls, testing::ElementsAre("SynchronizeBitmaps 5", "CopyBitmap"));
  EXPECT_FALSE(machine.files.contains(kMark));
}

TEST_F(ApplyTest, PersonSeesTheProgressAndWhatWasDone) {
  WriteBlock(2, std::byte{1});
  terminal.to_person = true;
  EXPECT_EQ(Run(Arguments({"--verify"})), 0);
  EXPECT_EQ(terminal.printed,
            "copied 4.0 KiB of 40.0 KiB (10.0 %): 1 of 10 blocks of 4.0 KiB, in 1 range\n"
            "compared: both files are equal\n");
  ASSERT_EQ(terminal.progress.size(), 4u);
  EXPECT_THAT(terminal.progress[0], testing::StartsWith("copying 100.0 %"));
  EXPECT_EQ(terminal.progress[1], "") << "cleared";
  EXPECT_THAT(terminal.progress[2], testing::StartsWith("comparing 100.0 %"));
  EXPECT_EQ(terminal.progress[3], "");
}

TEST_F(ApplyTest, ScriptHearsNothing) {
  WriteBlock(2, std::byte{1});
  EXPECT_EQ(Run(Arguments({"--verify"})), 0);
  EXPECT_EQ(terminal.printed + terminal.notes, "");
  EXPECT_TRUE(terminal.progress.empty());
}

TEST_F(ApplyTest, BitmapFileNeedsNoService) {
  WriteBlock(2, std::byte{1});
  EXPECT_EQ(Run({"apply", "--bitmap", "B:\\bitmap", "--from", kSource, "--to", kCopy}), 0);
  EXPECT_TRUE(Equal());
  EXPECT_TRUE(server.calls.empty());
}

TEST_F(ApplyTest, SynchronizationCanBeLeftOutAndIsNotSkippedOtherwise) {
  WriteBlock(2, std::byte{1});
  server.answers["SynchronizeBitmaps"] = {.rpc_status = 0, .code = 1460};
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("the driver's reports"));
  EXPECT_EQ(Run(Arguments({"--no-sync"})), 0);
  EXPECT_TRUE(Equal());
}

TEST_F(ApplyTest, UnreliableBitmapIsRefusedAndFullCopyHelps) {
  test::ChangeHeader(bitmap, [](BitmapFileHeader& header) { header.Unreliable = 1; });
  Publish();
  machine.At(kSource).bytes[5] ^= std::byte{1};
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("unreliable"));
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("a full copy is needed (--full)"));
  EXPECT_EQ(RunJson(Arguments({"--full", "--verify"})).dump(),
            R"({"ok":true,"mode":"full","source":"C:\\source","copy":"D:\\copy",)"
            R"("source_size":40960,"copied_bytes":40960,"copied_ranges":1,"verified":true})");
  EXPECT_TRUE(Equal());
}

TEST_F(ApplyTest, FileThatWasNotClosedIsRefusedUnlessTheServiceSentIt) {
  WriteBlock(2, std::byte{1});
  machine.At("B:\\bitmap").bytes = server.contents[kBitmap];
  std::vector<std::string> arguments = {"apply", "--bitmap", "B:\\bitmap", "--from",
                                        kSource, "--to",     kCopy};
  EXPECT_THAT(Refusal(arguments), HasSubstr("was not closed"));
  arguments.push_back("--service-copy");
  EXPECT_EQ(Run(arguments), 0);
  EXPECT_TRUE(Equal());
}

TEST_F(ApplyTest, AnotherFilesBitmapIsRefusedUnlessForced) {
  WriteBlock(2, std::byte{1});
  machine.At(kSource).id = 7;
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("is file 0x0000000000000007 on volume"));
  machine.At(kSource).id = test::kFile;
  machine.volume = std::nullopt;
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("on no known volume"));
  machine.volume = VolumeGuid{1, 2, 3, {}};
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("on volume 00000001-0002-0003-"));
  EXPECT_EQ(Run(Arguments({"--force-identity"})), 0);
  EXPECT_TRUE(Equal());
}

TEST_F(ApplyTest, CopyThatCannotBeOneIsRefused) {
  machine.At(kCopy).bytes.resize(5 * 4096);
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("shorter than the file was"));
  machine.files.erase(kCopy);
  EXPECT_EQ(RunJson(Arguments(), 1)["error"]["message"],
            "there is no D:\\copy yet: a full copy is needed (--full)");
  machine.files[kCopy] = machine.files[kSource];
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("is the same file as"));
  EXPECT_THAT(Refusal(Arguments({"--full"})), HasSubstr("is the same file as"));
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

TEST_F(ApplyTest, SizeThatTheBitmapDoesNotKnowIsNoted) {
  machine.At(kSource).bytes.resize(11 * 4096, std::byte{9});
  EXPECT_THAT(RunJson(Arguments())["notes"][0].get<std::string>(), HasSubstr("size of C:\\source"));
  machine.At(kSource).bytes.resize(12 * 4096, std::byte{9});
  EXPECT_EQ(Run(Arguments()), 0);
  EXPECT_THAT(terminal.notes, testing::StartsWith("zelctl: note: the size of C:\\source"));
}

TEST_F(ApplyTest, VerifyFindsWhatTheBitmapDoesNotKnow) {
  WriteBlock(2, std::byte{1});
  machine.At(kSource).bytes[5 * 4096 + 1] ^= std::byte{1};
  const ordered_json json = RunJson(Arguments({"--verify"}), 1);
  EXPECT_EQ(json["difference_at"], 5 * 4096 + 1);
  EXPECT_THAT(json["error"]["message"].get<std::string>(), HasSubstr("differ at byte 20481"));
  EXPECT_TRUE(machine.files.contains(kMark)) << "the copy is not whole";
  test::SetBit(bitmap, 5);
  Publish();
  EXPECT_EQ(Run(Arguments({"--verify"})), 0);
  EXPECT_FALSE(machine.files.contains(kMark));
}

TEST_F(ApplyTest, FullCopyAppearsWholeOrNotAtAll) {
  machine.At(kSource).bytes[5] ^= std::byte{1};
  const Bytes before = machine.At(kCopy).bytes;
  for (int change = 0; change < 5; ++change) {
    machine.death = {.changes = 0, .fail_at = change};
    EXPECT_EQ(Run(Arguments({"--full"})), 1);
    EXPECT_EQ(machine.At(kCopy).bytes, before) << change;
  }
  machine.death = {};
  machine.files.erase(kCopy);
  EXPECT_EQ(Run({"apply", "--full", "--from", kSource, "--to", kCopy}), 0);
  EXPECT_TRUE(Equal());
  EXPECT_FALSE(machine.files.contains("D:\\copy.zelctl-new"));
}

TEST_F(ApplyTest, FullCopyThatProvesWrongDoesNotTakeThePlace) {
  const Bytes before = machine.At(kCopy).bytes;
  machine.At(kSource).after_read = [](test::MemoryFile& file) { file.bytes[9] ^= std::byte{1}; };
  EXPECT_EQ(RunJson(Arguments({"--full", "--verify"}), 1)["difference_at"], 9);
  EXPECT_EQ(machine.At(kCopy).bytes, before);
  EXPECT_FALSE(machine.files.contains("D:\\copy.zelctl-new"));
}

TEST_F(ApplyTest, RunAfterAnInterruptedOneWithTheSameBitmapCompletesIt) {
  int deaths = 0;
  for (int change = 0; change < 40; ++change) {
    machine.At(kCopy).bytes = machine.At(kSource).bytes;
    for (const int block : {1, 3, 4, 8, 9})
      WriteBlock(block, static_cast<std::byte>(change + block));
    machine.death = {.changes = 0, .fail_at = change};
    if (Run(Arguments()) != 0) ++deaths;
    machine.death = {};
    EXPECT_EQ(Run(Arguments({"--verify"})), 0) << change;
    EXPECT_TRUE(Equal()) << change;
    EXPECT_FALSE(machine.files.contains(kMark));
  }
  EXPECT_GE(deaths, 9) << "each change of the mark and of the copy";
}

// Kills a run in its middle and answers what is left.
TEST_F(ApplyTest, HalfCopyIsRefusedForLaterBitmaps) {
  for (const int block : {1, 3, 5}) WriteBlock(block, std::byte{7});
  machine.death = {.changes = 0, .fail_at = 7};
  EXPECT_EQ(Run(Arguments()), 1);
  machine.death = {};
  ASSERT_TRUE(machine.files.contains(kMark));
  ASSERT_FALSE(Equal());

  const Bytes first = bitmap;
  bitmap = test::MakeBitmapBytes(10 * 4096, kBlock, test::kCreated + 1);
  Publish();
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("left D:\\copy half way"));

  bitmap = test::MakeBitmapBytes(10 * 4096, 512, test::kCreated - 1);
  for (int block = 0; block < 80; ++block) test::SetBit(bitmap, block);
  Publish();
  const auto left = machine.At(kCopy);
  const auto mark = machine.At(kMark);
  EXPECT_EQ(Run(Arguments()), 0) << "an earlier bitmap has all bits of the later one";
  EXPECT_TRUE(Equal());

  machine.At(kCopy) = left;
  machine.At(kMark) = mark;
  bitmap = first;
  Publish();
  EXPECT_EQ(Run(Arguments()), 0);
  EXPECT_TRUE(Equal());
  EXPECT_FALSE(machine.files.contains(kMark));
}

TEST_F(ApplyTest, FullCopyEndsWhatAnInterruptedRunLeft) {
  machine.At(kMark).bytes = Bytes(3);
  EXPECT_THAT(Refusal(Arguments()), HasSubstr("left D:\\copy half way"));
  EXPECT_EQ(Run(Arguments({"--full"})), 0);
  EXPECT_FALSE(machine.files.contains(kMark));
  EXPECT_EQ(Run(Arguments()), 0);
}

TEST(ApplyMarkTest, MarkIsReadBackAndNothingElseIs) {
  const ApplyMark mark = MarkFor(test::MakeBitmap(8192, 4096, {}).header);
  const std::string text = FormatMark(mark);
  EXPECT_EQ(text,
            "zelctl apply 1 8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e 0x000300000001a2b4 "
            "0x01dc92bf4c8a6d00\n");
  EXPECT_EQ(ParseMark(text), mark);
  for (std::size_t length = 0; length < text.size(); ++length) {
    EXPECT_EQ(ParseMark(text.substr(0, length)), std::nullopt) << length;
  }
  EXPECT_EQ(ParseMark(text + " "), std::nullopt);
}

TEST(ApplyMarkTest, OnlyTheSameFilesEarlierOrSameBitmapCompletes) {
  const ApplyMark mark = MarkFor(test::MakeBitmap(8192, 4096, {}).header);
  EXPECT_TRUE(Completes(mark, mark));
  ApplyMark other = mark;
  other.creation_time = mark.creation_time - 1;
  EXPECT_TRUE(Completes(other, mark));
  EXPECT_FALSE(Completes(mark, other));
  other = mark;
  other.file_id = 1;
  EXPECT_FALSE(Completes(other, mark));
  other = mark;
  other.volume[0] = 'f';
  EXPECT_FALSE(Completes(other, mark));
}

}  // namespace
}  // namespace zel::ctl
