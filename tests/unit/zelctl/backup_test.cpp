// The nightly round: what it does, and that it may be broken off anywhere.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/unit/support/played_service.h"
#include "tests/unit/support/tool_fixture.h"
#include "zelctl/id_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::Bytes;
using Words = std::vector<std::string>;

constexpr char kLive[] = "C:\\live";
constexpr char kCopy[] = "D:\\copy";

class BackupTest : public testing::Test {
 protected:
  BackupTest() : service(machine, kLive, random) {
    machine.volume = test::kVolume;
    machine.now = 1000;
    service.Write(0, 6400);
    (void)service.SynchronizeBitmaps(machine.now);
  }

  int Run(Words more = {}) {
    Words words = {"backup", "--from", kLive, "--to", kCopy, "--block-size", "64", "--json"};
    words.insert(words.end(), more.begin(), more.end());
    return RunWords(words);
  }
  int RunWords(const Words& words) {
    terminal.printed.clear();
    terminal.notes.clear();
    const auto connect = [this](const Request&) {
      return std::make_unique<test::BorrowedServer>(service);
    };
    machine.now += 10;
    const auto code = static_cast<int>(RunTool(words, connect, machine, terminal));
    answer = ordered_json::parse(terminal.printed, nullptr, false);
    return code;
  }
  // Of the last run; empty without any.
  std::string Notes() { return answer.value("notes", ordered_json::array()).dump(); }
  // Each that the last run found besides `known` and its own next one was told, and nothing else.
  // How many there are.
  std::size_t LostAndTold(const std::map<BitmapId, Bytes>& known) {
    std::size_t lost = 0;
    for (const auto& [id, bytes] : service.bitmaps) {
      if (known.contains(id) || FormatId(id) == answer["next_bitmap_id"]) continue;
      EXPECT_THAT(Notes(), testing::HasSubstr("delete it: zelctl delete " + FormatId(id)));
      ++lost;
    }
    if (lost == 0) {
      EXPECT_THAT(Notes(), testing::Not(testing::HasSubstr("broken off")));
    }
    return lost;
  }
  FileTime BegunOf(const std::string& bitmap) {
    BitmapFileHeader header;
    std::memcpy(&header, service.bitmaps.at(ParseId(bitmap).value_or(0)).data(), sizeof header);
    return header.CreationTime;
  }
  bool Equal() { return machine.At(kCopy).bytes == service.Live().bytes; }
  void Work() {
    machine.now += 10;
    service.Write(random() % 6000, 30);
    service.Write(6400, 10 + random() % 50);
  }

  std::mt19937 random{20'261'122};
  test::MemoryMachine machine;
  test::PlayedService service;
  test::RecordedTerminal terminal;
  ordered_json answer;
};

TEST_F(BackupTest, FirstRoundCopiesAllAndEachFurtherOneWhatChanged) {
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(answer["mode"], "full");
  EXPECT_EQ(answer["why"], "there is no D:\\copy yet");
  EXPECT_TRUE(Equal());
  for (int round = 0; round < 5; ++round) {
    const std::string last = answer["next_bitmap_id"];
    Work();
    EXPECT_EQ(Run(round % 2 == 0 ? Words{} : Words{"--verify"}), 0) << terminal.printed;
    EXPECT_EQ(answer["mode"], "incremental");
    EXPECT_EQ(answer["bitmap_id"], last);
    EXPECT_EQ(answer["deleted"].dump(), "[\"" + last + "\"]");
    EXPECT_LT(answer["copied_bytes"], 640) << "of more than 6400 bytes";
    EXPECT_TRUE(Equal());
    EXPECT_EQ(service.bitmaps.size(), 1u);
  }
}

TEST_F(BackupTest, UntrustedBitmapEndsWithFourOrInAFullPass) {
  EXPECT_EQ(Run(), 0);
  Work();
  service.Crash();
  const Bytes before = machine.At(kCopy).bytes;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Run(), 4);
    EXPECT_EQ(answer["error"]["reason"], "unreliable");
    EXPECT_EQ(machine.At(kCopy).bytes, before);
    EXPECT_EQ(service.bitmaps.size(), 2u) << "no more pile up";
  }
  // The bitmap that goes on must be good itself.
  service.Crash();
  EXPECT_EQ(Run({"--full-if-needed"}), 0);
  EXPECT_THAT(answer["notes"][0].get<std::string>(),
              testing::StartsWith("a full pass begins: bitmap 0x"));
  EXPECT_TRUE(Equal());
  Work();
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(answer["mode"], "incremental");
  EXPECT_TRUE(Equal());
  EXPECT_EQ(service.bitmaps.size(), 1u);
}

TEST_F(BackupTest, BitmapThatIsGoneNeedsAFullPass) {
  EXPECT_EQ(Run(), 0);
  service.bitmaps.clear();
  Work();
  EXPECT_EQ(Run(), 4);
  EXPECT_EQ(answer["error"]["reason"], "too_late");
  EXPECT_EQ(Run({"--full-if-needed"}), 0);
  EXPECT_TRUE(Equal());
}

TEST_F(BackupTest, BitmapsOfOthersAreNeverDeleted) {
  BitmapEntry theirs;
  ASSERT_TRUE(service.StartTracking(kLive, 64, theirs).ok());
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(Run(), 0);
    Work();
    EXPECT_TRUE(service.bitmaps.contains(theirs.id));
  }
  EXPECT_EQ(service.bitmaps.size(), 2u);
}

TEST_F(BackupTest, BitmapThatGotTheIdOfAUsedUpOneMeanwhileIsNotDeleted) {
  EXPECT_EQ(Run(), 0);
  const BitmapId used = ParseId(answer["next_bitmap_id"].get<std::string>()).value_or(0);
  Work();
  service.Live().after_read = [&](test::MemoryFile& file) {
    file.after_read = {};
    machine.now += 10;
    service.bitmaps.at(used) = test::MakeBitmapBytes(file.bytes.size(), 64, machine.now);
    test::ChangeHeader(service.bitmaps[used],
                       [used](BitmapFileHeader& header) { header.BitmapId = used; });
  };
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(answer["mode"], "incremental");
  EXPECT_EQ(answer["deleted"].dump(), "[]");
  EXPECT_TRUE(service.bitmaps.contains(used));
  EXPECT_EQ(Run(), 0);
  EXPECT_TRUE(service.bitmaps.contains(used)) << "nor by any round that comes later";
}

TEST_F(BackupTest, FileThatIsNoCopyIsReplacedOnlyWhenItIsSaid) {
  machine.At(kCopy).bytes = Bytes(3);
  EXPECT_EQ(Run({"--full-if-needed"}), 1);
  EXPECT_EQ(answer["error"]["reason"], "not_a_copy");
  EXPECT_EQ(machine.At(kCopy).bytes, Bytes(3));
  EXPECT_TRUE(service.bitmaps.empty());
  EXPECT_EQ(Run({"--full-if-needed", "--replace"}), 0);
  EXPECT_TRUE(Equal());
}

// Until a run has come through: the one that told it may have ended before anybody read it.
TEST_F(BackupTest, BitmapThatABrokenRunMayHaveLeftIsToldUntilARunHasComeThrough) {
  EXPECT_EQ(Run(), 0);
  const std::map<BitmapId, Bytes> before = service.bitmaps;
  Work();
  // The record says what is about to happen, in four steps; then the call and its effect.
  machine.death = {.changes = 0, .fail_at = 10};
  EXPECT_NE(Run(), 0);
  machine.death = {};
  ASSERT_EQ(service.bitmaps.size(), 2u);
  service.Crash();
  EXPECT_EQ(Run(), 4);
  const std::string told = Notes();
  EXPECT_THAT(told, testing::HasSubstr("a run that was broken off at 1601-01-01T00:00:00"));
  EXPECT_EQ(Run(), 4);
  EXPECT_EQ(Notes(), told);
  EXPECT_EQ(RunWords({"apply", "--full", "--from", kLive, "--to", kCopy, "--json"}), 0);
  service.Crash();
  EXPECT_EQ(Run({"--full-if-needed"}), 0);
  EXPECT_EQ(LostAndTold({}), 1u);
  EXPECT_EQ(service.bitmaps.size(), 2u) << "it was not deleted";
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(Notes(), "[]");
}

TEST_F(BackupTest, CopyThatSomethingElseChangedKeepsNoBitmapsBehind) {
  EXPECT_EQ(Run(), 0);
  machine.At(kCopy).written += 1'000'000'000;
  Work();
  EXPECT_EQ(Run({"--full-if-needed"}), 1);
  EXPECT_EQ(answer["error"]["reason"], "not_a_copy");
  EXPECT_EQ(Run({"--full-if-needed", "--replace"}), 0);
  EXPECT_TRUE(Equal());
  EXPECT_EQ(service.bitmaps.size(), 1u);
}

TEST_F(BackupTest, WritesDuringTheComparisonAreExcusedAndOthersAreNot) {
  EXPECT_EQ(Run(), 0);
  for (const bool is_seen : {true, false}) {
    service.Write(300, 1);
    int reads = 0;
    service.Live().after_read = [&](test::MemoryFile& file) {
      if (++reads != 1) return;  // after the changed range was read
      if (is_seen) {
        service.Write(100, 5);
      } else {
        file.bytes[100] ^= std::byte{1};
      }
    };
    EXPECT_EQ(Run({"--verify"}), is_seen ? 0 : 4) << terminal.printed;
    service.Live().after_read = {};
  }
  EXPECT_EQ(answer["error"]["reason"], "differs");
  EXPECT_EQ(Run({"--verify", "--full-if-needed"}), 0);
  EXPECT_TRUE(Equal());
}

// What this machine's clock shows may be long in coming there.
TEST_F(BackupTest, ClockOfAnotherMachineIsKnownByItsBitmaps) {
  service.behind = 500;
  for (const char* mode : {"full", "incremental", "incremental"}) {
    Work();
    EXPECT_EQ(Run({"--server", "there"}), 0) << terminal.printed;
    EXPECT_EQ(answer["mode"], mode);
    EXPECT_EQ(answer["as_of"], FormatTime(BegunOf(answer["next_bitmap_id"])));
    EXPECT_TRUE(Equal());
  }
}

// Kills a round at each write, rename and call, before and after a call has had its effect, until
// one comes through; the next one must end with a good copy and without what it has used up.
enum class Round { kFirst, kIncremental, kVerified, kFull };
class KilledBackupTest : public BackupTest, public testing::WithParamInterface<Round> {};

TEST_P(KilledBackupTest, NextRoundEndsWithAGoodCopy) {
  const Words words = GetParam() == Round::kVerified ? Words{"--verify"}
                      : GetParam() == Round::kFull   ? Words{"--full-if-needed"}
                                                     : Words{};
  bool came_through = false;
  std::size_t lost = 0;
  int kills = 0;
  for (; !came_through && kills < 200; ++kills) {
    machine.death = {};
    if (GetParam() == Round::kFirst) {
      machine.files.erase(kCopy);
    } else {
      ASSERT_EQ(Run(words), 0) << terminal.printed;
      Work();
    }
    if (GetParam() == Round::kFull) service.Crash();
    const std::map<BitmapId, Bytes> before = service.bitmaps;
    machine.death = {.changes = 0, .fail_at = kills};
    came_through = Run(words) == 0 && !machine.death.has_struck();
    machine.death = {};
    Work();
    ASSERT_EQ(Run(words), 0) << kills << terminal.printed;
    ASSERT_TRUE(Equal()) << kills;
    lost += LostAndTold(before);
    Work();
    ASSERT_EQ(Run(words), 0) << kills;
    ASSERT_EQ(answer["mode"], "incremental");
    ASSERT_TRUE(Equal()) << kills;
    EXPECT_EQ(Notes(), "[]") << "it is told once";
  }
  EXPECT_TRUE(came_through);
  EXPECT_GT(kills, 20);
  // Between the service's answer and the record's place on the device.
  EXPECT_EQ(lost, 5u);
  std::printf("%d kills, %zu bitmaps that were told to be nobody's\n", kills - 1, lost);
}

INSTANTIATE_TEST_SUITE_P(Rounds, KilledBackupTest,
                         testing::Values(Round::kFirst, Round::kIncremental, Round::kVerified,
                                         Round::kFull));

}  // namespace
}  // namespace zel::ctl
