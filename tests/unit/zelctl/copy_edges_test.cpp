// The edges of what a copy is brought up to date with: times that are equal, room that just does,
// files that change between two looks.
#include <gmock/gmock.h>

#include "tests/unit/support/copy_bench.h"
#include "zelctl/copies/copy_record.h"
#include "zelctl/time_text.h"

namespace zel::ctl {
namespace {

using test::Bytes;
using test::kCopy;
using test::kLive;
using test::Words;
using testing::HasSubstr;

class CopyEdgesTest : public testing::Test, protected test::CopyBench {
 protected:
  using CopyBench::Run;

  // What is known of the copy; the test fails where nothing is.
  CopyRecord Record() {
    const std::string path = "D:\\.zelctl\\" + FormatId(machine.At(kCopy).id) + ".copy";
    const Bytes& bytes = machine.At(path).bytes;
    const auto record = ParseRecord({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    EXPECT_TRUE(record.has_value());
    return record.value_or(CopyRecord{});
  }
  FileTime AsOf() { return ParseTime(answer["as_of"].get<std::string>(), 0).value_or(0); }
};

TEST_F(CopyEdgesTest, UnknownCopyMayBeAsOfNow) {
  const std::string bitmap = Track();
  CopyByHand();
  ExpectGood(Apply(bitmap, {"--as-of", "now"}));
}

TEST_F(CopyEdgesTest, UnknownCopyOfAnotherSizeIsTakenOnlyWhenTheFileChangedItsSize) {
  const std::string before = Track();
  Write(6400, 1000);
  const std::string after = Track();
  CopyByHand();
  const std::string now = std::to_string(machine.now);
  Bytes& copy = machine.At(kCopy).bytes;
  copy.resize(6300);
  for (const std::string& bitmap : {before, after}) {
    EXPECT_THAT(ExpectRefused(Apply(bitmap, {"--as-of", now}), "not_a_copy"),
                HasSubstr("has not the size"));
  }
  copy = service.Live().bytes;
  ExpectGood(Apply(before, {"--as-of", now}));
}

// It may have writes from after the time that is told; a snapshot lacks them.
TEST_F(CopyEdgesTest, UnknownCopyIsNotMadeASnapshotByWhatKnowsLess) {
  const std::string bitmap = Track();
  const std::string time = MakeSnapshot("S:\\live");
  Export(bitmap, "X:\\bitmap");
  Write(3000, 10);
  CopyByHand();
  ExpectRefused(ApplySnapshot("X:\\bitmap", "S:\\live", time, {"--as-of", time}), "too_late");
  EXPECT_EQ(Run(ApplySnapshot(bitmap, "S:\\live", time, {"--as-of", time})), 0) << answer;
  EXPECT_EQ(machine.At(kCopy).bytes, machine.At("S:\\live").bytes);
}

TEST_F(CopyEdgesTest, FullCopyOfASnapshotIsOneOfItsFile) {
  const std::string bitmap = Track();
  machine.At("S:\\live").bytes = service.Live().bytes;
  machine.now += 10;
  const auto full = [&](const std::string& time) {
    return ApplySnapshot(bitmap, "S:\\live", time, {"--full"});
  };
  EXPECT_NE(Run(full(std::to_string(machine.now + 100))), 0);
  EXPECT_EQ(answer["error"]["reason"], "too_late");
  EXPECT_EQ(Run(full("now")), 0) << answer;
  Write(100, 5);
  ExpectGood(Apply(bitmap));
}

TEST_F(CopyEdgesTest, FullCopyHasAllThatWasWrittenUntilItsTimeAndNoneOfALaterMomentCounts) {
  machine.before_moment = [this] { service.Write(6400, 100); };
  ExpectGood(Full());
  EXPECT_LT(AsOf(), machine.now);
  EXPECT_EQ(Record().read_until, machine.now);
  EXPECT_EQ(Record().written, machine.now);
}

TEST_F(CopyEdgesTest, RunNotesUntilWhenItRead) {
  const std::string bitmap = Track();
  ExpectGood(Full());
  Write(100, 5);
  ExpectGood(Apply(bitmap));
  EXPECT_EQ(Record().read_until, machine.now);
  EXPECT_EQ(Record().written, machine.now);
  EXPECT_EQ(machine.At(kCopy).written, machine.now);
}

// This machine's clock says nothing there.
TEST_F(CopyEdgesTest, FullCopyAsksTheServiceOfAnotherMachineForItsTime) {
  service.is_away = true;
  EXPECT_EQ(Run(Full({"--server", "there"})), 3);
  EXPECT_EQ(Run(Full()), 0);
}

TEST_F(CopyEdgesTest, RoomIsNeededForWhatGrowsAndForAWholeCopy) {
  const std::string bitmap = Track();
  ExpectGood(Full());
  machine.free_bytes = 0;
  Write(100, 5);
  ExpectGood(Apply(bitmap));
  Write(6400, 100);
  machine.free_bytes = 99;
  EXPECT_THAT(ExpectRefused(Apply(bitmap), ""), HasSubstr("99 bytes are free"));
  machine.free_bytes = 100;
  ExpectGood(Apply(bitmap));
  machine.free_bytes = 6499;
  for (const char* dry : {"--verify", "--dry-run"}) {
    EXPECT_THAT(ExpectRefused(Full({dry}), ""), HasSubstr("are free"));
  }
  machine.free_bytes = 6500;
  EXPECT_EQ(Run(Full({"--dry-run", "--verify"})), 0);
  EXPECT_EQ(answer["verified"], false);
  ExpectGood(Full());
}

TEST_F(CopyEdgesTest, ChangedCopyAndAnotherFilesAreReplacedOnlyWhenItIsSaid) {
  ExpectGood(Full());
  machine.At("C:\\second").bytes = Bytes(9000);
  const Words second = {"apply", "--full", "--from", "C:\\second", "--to", kCopy};
  EXPECT_THAT(ExpectRefused(second, "not_a_copy"), HasSubstr("is a copy of file"));
  machine.At(kCopy).written += 1'000'000'000;
  EXPECT_THAT(ExpectRefused(Full(), "not_a_copy"), HasSubstr("was changed by something else"));
  ExpectGood(Full({"--replace"}));
}

TEST_F(CopyEdgesTest, FileOfAnotherVolumeWithTheSameIdIsAnotherFile) {
  Close(Track(), "X:\\bitmap");
  ExpectGood(Full());
  test::ChangeHeader(machine.At("X:\\bitmap").bytes,
                     [](BitmapFileHeader& header) { ++header.Volume.Data1; });
  ExpectRefused(Apply("X:\\bitmap"), "identity");
}

TEST_F(CopyEdgesTest, BitmapFileThatNobodyExportedCompletesItsOwnRunAndNoOther) {
  const std::string bitmap = Track();
  ExpectGood(Full());
  Close(bitmap, "X:\\empty");
  Write(1000, 3000);
  Close(bitmap, "X:\\closed");
  KillHalfWay(Apply("X:\\closed"));
  const std::string message = ExpectRefused(Apply("X:\\empty"), "half_way");
  EXPECT_THAT(message, HasSubstr(bitmap + ", begun 1601-01-01T00:00:00.0001020Z")) << message;
  ExpectGood(Apply("X:\\closed"));
}

// What was known of the file before goes last.
TEST_F(CopyEdgesTest, NoOtherRunHasTheCopyThatAFullPassHasJustPutThere) {
  const std::string bitmap = Track();
  ExpectGood(Full());
  bool was_tried = false;
  machine.before_removal = [&] {
    was_tried = true;
    ExpectRefused(Apply(bitmap), "busy");
  };
  EXPECT_EQ(Run(Full()), 0);
  EXPECT_TRUE(was_tried && IsEqual());
}

// backup's own bitmaps are known to the copy that takes the place of the one before.
TEST_F(CopyEdgesTest, FullCopyBetweenTwoRoundsKeepsTheirBitmaps) {
  ExpectGood(Backup());
  Write(100, 5);
  ExpectGood(Full());
  Write(3000, 5);
  ExpectGood(Backup());
  EXPECT_EQ(answer["mode"], "incremental");
  EXPECT_EQ(service.bitmaps.size(), 1u);
}

TEST_F(CopyEdgesTest, RoundWhoseBitmapCannotBeUsedNeedsAFullCopy) {
  for (const char* reason : {"damaged", "", "identity"}) {
    ExpectGood(Backup({"--full-if-needed"}));
    const BitmapId id = service.bitmaps.begin()->first;
    Write(100, 5);
    if (reason == std::string("damaged")) {
      test::ChangeHeader(service.bitmaps[id],
                         [](BitmapFileHeader& header) { ++header.BitmapSize; });
    } else if (reason == std::string("identity")) {
      // Somebody has deleted it and begun another, which got its id.
      machine.before_moment = [this, id] {
        service.bitmaps[id] = test::MakeBitmapBytes(service.Live().bytes.size(), 64, machine.now);
        test::ChangeHeader(service.bitmaps[id],
                           [&](BitmapFileHeader& header) { header.BitmapId = id; });
      };
    } else {
      service.unloadable = {id};
    }
    ExpectRefused(Backup(), reason);
    EXPECT_EQ(answer["error"]["exit_code"], 4) << reason;
    ExpectGood(Backup({"--full-if-needed"}));
    EXPECT_EQ(answer["mode"], "full");
    service.unloadable.clear();
  }
}

TEST_F(CopyEdgesTest, RoundOfAFileThatWasReplacedMeanwhileIsRefused) {
  for (const bool has_copy : {false, true}) {
    machine.before_moment = [this] { service.Live().id = 7; };
    EXPECT_NE(Run(Backup()), 0);
    EXPECT_EQ(answer["error"]["reason"], "identity") << answer;
    EXPECT_EQ(machine.files.contains(kCopy), has_copy);
    // Now it is replaced before anything is asked, and the service still tracks what was there.
    EXPECT_NE(Run(Backup({"--replace", "--full-if-needed"})), 0);
    EXPECT_EQ(answer["error"]["reason"], "identity") << answer;
    service.Live().id = test::kFile;
    ExpectGood(Backup({"--replace", "--full-if-needed"}));
  }
}

TEST_F(CopyEdgesTest, RoundNeedsAFileThatCanBeTrackedAndAPlaceThatIsNotTracked) {
  machine.volume = std::nullopt;
  ExpectRefused(Backup(), "identity");
  machine.volume = test::kVolume;
  machine.At("C:\\second").bytes = Bytes(9000);
  const Bytes before = service.Live().bytes;
  EXPECT_NE(Run({"backup", "--from", "C:\\second", "--to", kLive, "--full-if-needed"}), 0);
  EXPECT_EQ(answer["error"]["reason"], "identity");
  EXPECT_EQ(service.Live().bytes, before);
  EXPECT_TRUE(service.bitmaps.empty());
}

TEST_F(CopyEdgesTest, NextBitmapThatIsNotTrustedExcusesNothing) {
  ExpectGood(Backup());
  Write(100, 5);
  service.Live().after_read = [this](test::MemoryFile& file) {
    file.after_read = {};
    service.Write(3000, 5);
    service.Crash();
  };
  EXPECT_EQ(Run(Backup({"--verify"})), 4);
  EXPECT_EQ(answer["error"]["reason"], "differs");
}

}  // namespace
}  // namespace zel::ctl
