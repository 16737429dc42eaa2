// Chains of steps each of which looks right and which together make a wrong copy: the step that
// would is refused, the copy stays as it is, and what is left of the chain still ends in a good
// one.
#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

#include "tests/unit/support/copy_bench.h"

namespace zel::ctl {
namespace {

using test::Bytes;
using test::kCopy;
using test::kLive;
using test::Words;
using Bench = test::CopyBench;

TEST(WrongCopyTest, BitmapAfterARefusedRoundIsRefused) {
  Bench bench;
  const std::string first = bench.Track();
  bench.ExpectGood(bench.Full());
  bench.Write(0, 1000);
  bench.service.Crash();
  const std::string second = bench.Track();
  bench.ExpectRefused(bench.Apply(first), "unreliable");
  bench.Write(3000, 10);
  const std::string third = bench.Track();
  bench.ExpectRefused(bench.Apply(second), "too_late");
  bench.ExpectRefused(bench.Apply(third), "too_late");
  bench.ExpectGood(bench.Full());
  bench.Write(100, 5);
  bench.ExpectGood(bench.Apply(third));
}

TEST(WrongCopyTest, BitmapAfterASkippedOneIsRefused) {
  Bench bench;
  const std::string first = bench.Track();
  bench.ExpectGood(bench.Full());
  bench.Write(0, 100);
  const std::string second = bench.Track();
  bench.Write(3000, 10);
  bench.ExpectRefused(bench.Apply(second), "too_late");
  bench.ExpectGood(bench.Apply(first));
  bench.Write(100, 5);
  bench.ExpectGood(bench.Apply(second));
}

TEST(WrongCopyTest, BitmapThatWasBegunAfterTheLastWasDeletedIsRefused) {
  Bench bench;
  const std::string first = bench.Track();
  bench.ExpectGood(bench.Full());
  bench.Write(0, 100);
  bench.ExpectGood(bench.Apply(first));
  bench.Delete(first);
  bench.Write(5000, 1);
  const std::string second = bench.Track();
  bench.Write(3000, 10);
  bench.ExpectRefused(bench.Apply(second), "too_late");
  bench.ExpectGood(bench.Full());
}

TEST(WrongCopyTest, BitmapThatWasBegunAfterTheFullCopyIsRefused) {
  Bench bench;
  bench.ExpectGood(bench.Full());
  bench.Write(1000, 1);
  const std::string first = bench.Track();
  bench.Write(3000, 10);
  bench.ExpectRefused(bench.Apply(first), "too_late");
  bench.ExpectGood(bench.Full());
}

// Whatever the killed run came to, from its first call on.
TEST(WrongCopyTest, BitmapAfterAKilledRoundIsRefused) {
  int kills = 0;
  for (bool came_through = false; !came_through; ++kills) {
    ASSERT_LT(kills, 100);
    Bench bench;
    const std::string first = bench.Track();
    bench.ExpectGood(bench.Full());
    bench.Write(0, 100);
    const std::string second = bench.Track();
    bench.machine.death = {.changes = 0, .fail_at = kills};
    came_through = bench.Run(bench.Apply(first)) == 0;
    bench.machine.death = {};
    bench.Write(3000, 10);
    if (came_through) {
      bench.ExpectGood(bench.Apply(second));
    } else {
      bench.ExpectRefused(bench.Apply(second), "too_late");
      bench.ExpectGood(bench.Apply(first));
    }
  }
  EXPECT_GT(kills, 15) << "each call and each change of a file";
}

TEST(WrongCopyTest, OlderExportDoesNotCompleteWhatALaterBitmapBegan) {
  Bench bench;
  const std::string first = bench.Track();
  bench.ExpectGood(bench.Full());
  bench.Export(first, "X:\\first");
  bench.Write(10, 1);
  const std::string second = bench.Track();
  bench.ExpectGood(bench.Apply(first));
  bench.Write(1000, 3000);
  bench.Export(second, "X:\\second");
  bench.Write(5500, 600);
  const std::string third = bench.Track();
  bench.KillHalfWay(bench.Apply(second));
  for (const char* older : {"X:\\second", "X:\\first"}) {
    bench.ExpectRefused(bench.Apply(third), "too_late");
    bench.ExpectRefused(bench.Apply(older), "half_way");
  }
  bench.ExpectRefused(bench.Apply(third), "too_late");
  bench.ExpectGood(bench.Apply(second));
  bench.ExpectGood(bench.Apply(third));
}

// What it had copied would be undone by the image that the full pass read before.
TEST(WrongCopyTest, RunWithABitmapDoesNotPassAFullOne) {
  Bench bench;
  const std::string first = bench.Track();
  bench.ExpectGood(bench.Full());
  std::string second;
  bench.service.Live().after_read = [&](test::MemoryFile& file) {
    file.after_read = {};
    bench.Write(1000, 100);
    bench.ExpectRefused(bench.Apply(first), "busy");
    second = bench.Track();
  };
  EXPECT_EQ(bench.Run(bench.Full()), 0);
  ASSERT_NE(second, "");
  bench.ExpectRefused(bench.Apply(second), "too_late");
  bench.ExpectGood(bench.Apply(first));
  bench.Write(2000, 1);
  bench.ExpectGood(bench.Apply(second));
}

// A bitmap file as the service closed it has no checksum: what its header says must fit together.
class DamagedBitmapFileTest : public testing::Test {
 protected:
  DamagedBitmapFileTest() {
    // Blocks of 64 and of 65 bytes make different numbers of bytes of bits.
    bench.Write(6400, 33'600);
    bench.Track();
    bench.ExpectGood(bench.Full());
    bench.Write(100, 3000);
    bench.Write(39'999, 1);
    whole = bench.service.bitmaps.begin()->second;
    copy = bench.machine.At(kCopy);
    files = bench.machine.files;
  }

  // Refused with the copy untouched, or done and the copy equal. The reason, if any.
  std::string Try(const Bytes& damaged) {
    bench.machine.files = files;
    bench.machine.At(kCopy) = copy;
    bench.machine.At("X:\\bitmap").bytes = damaged;
    if (bench.Run(bench.Apply("X:\\bitmap")) == 0) {
      EXPECT_TRUE(bench.IsEqual());
      return "";
    }
    EXPECT_EQ(bench.machine.At(kCopy).bytes, copy.bytes);
    return bench.answer["error"]["reason"];
  }

  Bench bench;
  Bytes whole;
  test::MemoryFile copy;  // as it was before it was brought up to date
  std::map<std::string, std::shared_ptr<test::MemoryFile>> files;
};

TEST_F(DamagedBitmapFileTest, NoByteOfTheHeaderMakesAWrongCopy) {
  ASSERT_EQ(Try(whole), "");
  constexpr std::size_t kBlockSize = offsetof(BitmapFileHeader, BlockSize);
  int refused = 0;
  for (std::size_t at = 0; at < 0x60; ++at) {
    for (const int flip : {0x01, 0x80, 0xFF}) {
      Bytes damaged = whole;
      damaged[at] ^= static_cast<std::byte>(flip);
      const std::string reason = Try(damaged);
      refused += reason.empty() ? 0 : 1;
      if (at >= kBlockSize && at < kBlockSize + 4) {
        EXPECT_EQ(reason, "damaged") << at << " ^ " << flip;
      }
    }
  }
  for (const std::size_t length : {0, 1, 4, 64, 95, 96, 511, 512, 520}) {
    Bytes cut = whole;
    cut.resize(length);
    EXPECT_EQ(Try(cut), "damaged") << length;
    ++refused;
  }
  EXPECT_GT(refused, 200) << "of 297";
}

// What is written between the snapshot and the next bitmap is in neither.
TEST(WrongCopyTest, BitmapThatWasBegunAfterTheSnapshotIsRefused) {
  Bench bench;
  const std::string first = bench.Track();
  bench.ExpectGood(bench.Full());
  bench.Write(0, 100);
  const std::string time = bench.MakeSnapshot("S:\\live");
  bench.Write(5000, 1);
  EXPECT_EQ(bench.Run(bench.ApplySnapshot(first, "S:\\live", time)), 0);
  EXPECT_EQ(bench.machine.At(kCopy).bytes, bench.machine.At("S:\\live").bytes);
  bench.Delete(first);
  const std::string second = bench.Track();
  bench.Write(3000, 10);
  bench.ExpectRefused(bench.Apply(second), "too_late");
}

// The single steps that a document shows before its first chapter, without what it says of each.
std::vector<Words> FirstExampleOf(const std::string& path) {
  std::ifstream document(path);
  EXPECT_TRUE(document) << path;
  std::vector<Words> steps;
  bool is_over = false;
  for (std::string line; !is_over && std::getline(document, line);) {
    is_over = line.starts_with("## ");
    if (!line.starts_with("    ") || line.find("zelctl backup") != std::string::npos) continue;
    std::istringstream fields(line.substr(0, line.find("  ", 4)));
    Words& words = steps.emplace_back();
    for (std::string word; fields >> word;) words.push_back(word);
  }
  return steps;
}

// Rounds as the manual's first example shows them, one after another.
TEST(ManualsExampleTest, RoundsInItsOrderLoseNothing) {
  Bench bench;
  bench.Write(6400, 1'000'000);  // several blocks of the size that is not told
  const std::vector<Words> steps = FirstExampleOf("docs/zelctl.md");
  std::map<std::string, std::string> meant = {{"D:\\vm\\disk.vhdx", kLive},
                                              {"E:\\backup\\disk.vhdx", kCopy}};
  int tracked = 0;
  std::uint64_t written = 0;
  for (Words step : steps) {
    ASSERT_FALSE(step.empty());
    bench.Write(written += 70'000, 3);  // somebody does all the time
    if (step[0] == "...") continue;
    ASSERT_EQ(step[0], "zelctl");
    for (std::string& word : step) word = meant.contains(word) ? meant[word] : word;
    ASSERT_EQ(bench.Run(Words(step.begin() + 1, step.end())), 0) << bench.answer;
    if (step[1] == "track") meant["B" + std::to_string(++tracked)] = bench.answer["bitmap_id"];
    if (step[1] == "apply") {
      EXPECT_TRUE(bench.IsEqual());
    }
  }
  ASSERT_EQ(tracked, 2);
  bench.ExpectGood(bench.Apply(meant["B2"]));
}

// The order that loses nothing, in the words of the help.
TEST(ManualsExampleTest, HelpOfApplyNamesTheStepsInTheirOrder) {
  Bench bench;
  ASSERT_EQ(bench.Run({"help", "apply"}), 0);
  const std::string text = bench.answer["text"];
  const std::size_t begin = text.find("in this order");
  ASSERT_NE(begin, std::string::npos) << text;
  const std::string order = text.substr(begin, text.find('.', begin) - begin);
  std::size_t at = 0;
  for (const char* step : {"track", "snapshot", "apply the old", "delete"}) {
    at = order.find(step, at);
    ASSERT_NE(at, std::string::npos) << step << " in: " << order;
  }
}

}  // namespace
}  // namespace zel::ctl
