// What apply leaves when it is killed, and what completes it.
#include "tests/unit/support/apply_fixture.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::ApplyTest;
using test::Bytes;
using test::kBitmap;
using test::kBlock;
using test::kCopy;
using test::kSecond;
using test::kSource;
using test::kStart;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

TEST_F(ApplyTest, MarkOfTheFirstVersionMeansHalfWayUntilAFullCopy) {
  constexpr char kMark[] = "D:\\copy.zelctl-apply";
  constexpr std::string_view kText =
      "zelctl apply 1 8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e 0x000300000001a2b4 0x01dc92bf4c8a6d00\n";
  const auto bytes = std::as_bytes(std::span(kText));
  machine.At(kMark).bytes.assign(bytes.begin(), bytes.end());
  WriteBlock(2, std::byte{1});
  const std::vector<std::string> through_link = ArgumentsThroughLink();
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

TEST_F(ApplyTest, MarkOfTheFirstVersionIsFoundBesideTheSpellingThatItWasToldToo) {
  constexpr char kMark[] = "E:\\link.zelctl-apply";
  const auto bytes = std::as_bytes(std::span("zelctl apply 1 8a3f10c2"));
  machine.At(kMark).bytes.assign(bytes.begin(), bytes.end());
  WriteBlock(2, std::byte{1});
  std::vector<std::string> through_link = ArgumentsThroughLink();
  EXPECT_THAT(Refusal(through_link, 4),
              StartsWith("half_way: an earlier version of zelctl left E:\\link half way"));
  through_link.insert(through_link.end(), {"--full", "--replace"});
  EXPECT_EQ(Run(through_link), 0);
  EXPECT_FALSE(machine.files.contains(kMark));
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

// Of a copy of which nothing was known until this run, too: its size is noted before it is changed.
TEST_F(ApplyTest, RunWithAsOfThatWasKilledIsCompletedAsSoonAsItHadWrittenItsRecord) {
  const test::MemoryFile unknown = machine.At(kCopy);
  machine.At(kSource).bytes.resize(12 * 4096, std::byte{8});
  WriteBlock(3, std::byte{7});
  int untouched = 0;
  int changed = 0;
  for (int change = 0;; ++change) {
    machine.At(kCopy) = unknown;
    machine.files.erase(RecordPath());
    machine.death = {.changes = 0, .fail_at = change};
    const int ended = Run(Arguments({"--as-of", std::to_string(kStart)}));
    machine.death = {};
    if (ended == 0) break;
    if (!machine.files.contains(RecordPath())) continue;
    ++(machine.At(kCopy).bytes == unknown.bytes ? untouched : changed);
    EXPECT_EQ(Run(Arguments()), 0) << change << terminal.notes;
    EXPECT_TRUE(Equal()) << change;
  }
  EXPECT_GE(untouched, 2) << "before and after the stamp";
  EXPECT_GE(changed, 3) << "by the new size, by each range, by the flush";
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

}  // namespace
}  // namespace zel::ctl
