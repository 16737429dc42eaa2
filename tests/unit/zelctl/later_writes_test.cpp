// What apply --verify leaves out of the comparison of a file that is being written, as backup does.
#include <gmock/gmock.h>

#include <functional>
#include <map>

#include "tests/unit/support/copy_bench.h"

namespace zel::ctl {
namespace {

using test::Bytes;
using test::MemoryFile;

class LaterWritesTest : public testing::Test, protected test::CopyBench {
 protected:
  using CopyBench::Run;

  // Somebody writes the file when its byte `offset` has been copied and not yet compared.
  void WriteMeanwhile(std::uint64_t offset, bool is_seen = true) {
    service.Live().after_read = [this, offset, is_seen](MemoryFile& file) {
      file.after_read = {};
      if (is_seen) {
        service.Write(offset, 1);
      } else {
        file.bytes[offset] ^= std::byte{1};
      }
    };
  }
  // Refused for the difference at that byte.
  void ExpectDiffers(const test::Words& words, std::uint64_t offset) {
    EXPECT_EQ(Run(words), 1) << answer;
    EXPECT_EQ(answer["error"]["reason"], "differs") << answer;
    EXPECT_EQ(answer["difference_at"], offset) << answer;
  }
};

TEST_F(LaterWritesTest, FullPassLeavesThemToTheBitmapThatWasBegunBefore) {
  const std::string bitmap = Track();
  WriteMeanwhile(100);
  EXPECT_EQ(Run(Full({"--verify"})), 0) << answer;
  EXPECT_FALSE(IsEqual());
  ExpectGood(Apply(bitmap, {"--verify"}));
}

TEST_F(LaterWritesTest, IncrementalPassLeavesThemToALaterBitmap) {
  const std::string applied = Track();
  ExpectGood(Full());
  Write(300, 1);
  const std::string next = Track();
  WriteMeanwhile(100);
  EXPECT_EQ(Run(Apply(applied, {"--verify"})), 0) << answer;
  EXPECT_FALSE(IsEqual());
  ExpectGood(Apply(next, {"--verify"}));
}

TEST_F(LaterWritesTest, WhatNoBitmapHasCounts) {
  WriteMeanwhile(100);
  ExpectDiffers(Full({"--verify"}), 100);
  const std::string applied = Track();
  WriteMeanwhile(200, false);
  ExpectDiffers(Full({"--verify"}), 200);
  ExpectGood(Full());
  Write(300, 1);
  WriteMeanwhile(100);
  ExpectDiffers(Apply(applied, {"--verify"}), 100);
}

// It is no later one's affair: it was to be copied now.
TEST_F(LaterWritesTest, WhatAnEarlierBitmapHasBesidesCounts) {
  Track();
  const std::string applied = Track();
  ExpectGood(Full());
  Write(300, 1);
  WriteMeanwhile(100);
  ExpectDiffers(Apply(applied, {"--verify"}), 100);
}

TEST_F(LaterWritesTest, BitmapThatCannotBeTrustedExcusesNothing) {
  const std::string applied = Track();
  ExpectGood(Full());
  Write(300, 1);
  const std::string next = Track();
  const std::map<BitmapId, Bytes> bitmaps = service.bitmaps;
  const auto give_its_id_anew = [&] {
    Bytes& bytes = service.bitmaps.at(ParseId(next).value_or(0));
    test::ChangeHeader(bytes, [](BitmapFileHeader& header) {
      header.CreationTime = header.InitialTime = header.NameCreationTime = 1;
    });
  };
  for (const std::function<void()>& act : {std::function<void()>([&] { service.Crash(); }),
                                           std::function<void()>([&] { service.bitmaps.clear(); }),
                                           std::function<void()>(give_its_id_anew)}) {
    service.Live().after_read = [&](MemoryFile& file) {
      file.after_read = {};
      service.Write(100, 1);
      act();
    };
    ExpectDiffers(Apply(applied, {"--verify"}), 100);
    service.bitmaps = bitmaps;
  }
}

TEST_F(LaterWritesTest, SnapshotHasNone) {
  const std::string applied = Track();
  ExpectGood(Full());
  Write(300, 1);
  Track();
  const std::string time = MakeSnapshot("S:\\live");
  machine.At("S:\\live").after_read = [this](MemoryFile& file) {
    file.after_read = {};
    file.bytes[100] ^= std::byte{1};
    service.Write(100, 1);
  };
  ExpectDiffers(ApplySnapshot(applied, "S:\\live", time, {"--verify"}), 100);
}

TEST_F(LaterWritesTest, WithoutTheServiceEachDifferenceCounts) {
  const std::string applied = Track();
  ExpectGood(Full());
  Write(300, 1);
  Export(applied, "X:\\applied");
  Track();
  WriteMeanwhile(100);
  service.is_away = true;
  ExpectDiffers(Apply("X:\\applied", {"--verify"}), 100);
}

}  // namespace
}  // namespace zel::ctl
