// What is known of a copy, and which bitmap may bring it up to date.
#include "zelctl/copies/copy_rule.h"

#include <gmock/gmock.h>

#include "tests/unit/support/bitmap_bytes.h"
#include "zelctl/copies/own_bitmaps.h"

namespace zel::ctl {
namespace {

using testing::ElementsAre;

const FileIdentity kOf = {.volume = test::kVolume, .file_id = test::kFile};

CopyRecord Known(FileTime as_of) {
  return {.of = kOf,
          .copy = {.volume = std::nullopt, .file_id = 7},
          .as_of = as_of,
          .read_until = as_of + 5,
          .size = 40'960,
          .written = 12};
}

OfferedBitmap Offered(FileTime begun, std::optional<FileTime> known_until) {
  return {.of = kOf,
          .id = 1,
          .begun = begun,
          .known_until = known_until,
          .taken = 1000,
          .is_current = false,
          .digest = 99};
}

std::optional<RuleFault> Rule(const CopyRecord& record, const OfferedBitmap& bitmap,
                              std::optional<FileTime> snapshot = std::nullopt) {
  return CheckRule(record, bitmap, snapshot);
}

TEST(CopyRecordTest, RecordIsReadBackAndNothingElseIs) {
  CopyRecord record = Known(test::kCreated);
  for (int members = 0; members < 5; ++members) {
    const std::string text = FormatRecord(record);
    EXPECT_EQ(ParseRecord(text), record) << text;
    for (std::size_t length = 0; length < text.size(); ++length) {
      EXPECT_EQ(ParseRecord(text.substr(0, length)), std::nullopt) << length;
      std::string damaged = text;
      damaged[length] ^= 1;
      EXPECT_EQ(ParseRecord(damaged), std::nullopt) << damaged;
    }
    EXPECT_EQ(ParseRecord(text + " "), std::nullopt);
    if (members == 0) {
      record.half_way = {
          .bitmap = 1, .begun = 2, .taken = 3, .digest = 4, .size = 5, .from = 6, .until = 7};
    }
    if (members == 1) record.bitmaps = {{.id = 5, .begun = 6}, {.id = 7, .begun = 8}};
    if (members == 2) record.beginning = {.at = 9};
    if (members == 3) record.beginning->before = {{.id = 1, .begun = 2}, {.id = 3, .begun = 4}};
  }
}

TEST(CopyRecordTest, RecordIsTheTextThatItsFormatShows) {
  CopyRecord record = Known(test::kCreated);
  record.bitmaps = {{.id = test::kBitmap, .begun = test::kCreated}};
  EXPECT_THAT(FormatRecord(record),
              testing::StartsWith("zelctl-copy 1\n"
                                  "file 8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e 0x000300000001a2b4\n"
                                  "copy - 0x0000000000000007\n"
                                  "as-of 2026-01-31T14:38:43.4821376Z\n"
                                  "read-until 2026-01-31T14:38:43.4821381Z\n"
                                  "size 0x000000000000a000\n"
                                  "written 1601-01-01T00:00:00.0000012Z\n"
                                  "bitmap 0x000500000001a9f0 2026-01-31T14:38:43.4821376Z\n"
                                  "checksum 0x"));
}

TEST(CopyRuleTest, BitmapMustHaveBegunNoLaterThanTheCopysTime) {
  EXPECT_EQ(Rule(Known(50), Offered(49, 60)), std::nullopt);
  EXPECT_EQ(Rule(Known(50), Offered(50, 60)), std::nullopt);
  EXPECT_EQ(Rule(Known(50), Offered(51, 60)), RuleFault::kBegunTooLate);
}

TEST(CopyRuleTest, BitmapMustBeOfTheCopysFile) {
  OfferedBitmap other = Offered(1, 60);
  other.of.file_id = 3;
  EXPECT_EQ(Rule(Known(50), other), RuleFault::kOtherFile);
  other = Offered(1, 60);
  other.of.volume->Data1 ^= 1;
  EXPECT_EQ(Rule(Known(50), other), RuleFault::kOtherFile);
}

TEST(CopyRuleTest, CopyBecomesAsNewAsTheBitmapKnowsAndNeverOlder) {
  EXPECT_EQ(AsOfAfterwards(Known(50), Offered(1, 60), std::nullopt), 60u);
  EXPECT_EQ(AsOfAfterwards(Known(50), Offered(1, 40), std::nullopt), 50u);
  EXPECT_EQ(AsOfAfterwards(Known(50), Offered(1, std::nullopt), std::nullopt), 50u);
  EXPECT_EQ(AsOfAfterwards(Known(50), Offered(1, 60), 55), 55u);
}

TEST(CopyRuleTest, HalfWayIsCompletedByWhatKnowsAsMuchOrIsTheSame) {
  CopyRecord half = Known(50);
  half.half_way = {.bitmap = 1, .begun = 40, .taken = 70, .digest = 5};
  EXPECT_EQ(Rule(half, Offered(50, 70)), std::nullopt);
  EXPECT_EQ(Rule(half, Offered(40, 69)), RuleFault::kHalfWay);
  EXPECT_EQ(Rule(half, Offered(40, std::nullopt)), RuleFault::kHalfWay);
  OfferedBitmap same = Offered(40, std::nullopt);
  same.digest = 5;
  EXPECT_EQ(Rule(half, same), std::nullopt);
}

TEST(CopyRuleTest, SnapshotMustBeNewerThanTheCopyAndKnownToTheBitmap) {
  OfferedBitmap current = Offered(50, 80);
  current.is_current = true;
  EXPECT_EQ(Rule(Known(50), current, 50), std::nullopt);
  EXPECT_EQ(Rule(Known(50), current, 49), RuleFault::kSnapshotTooOld);
  EXPECT_EQ(Rule(Known(50), Offered(50, 60), 60), std::nullopt);
  EXPECT_EQ(Rule(Known(50), Offered(50, 60), 61), RuleFault::kSnapshotUnknown);
  EXPECT_EQ(Rule(Known(50), Offered(50, 54), 52), RuleFault::kSnapshotUnknown)
      << "the copy may have writes until 55";
  EXPECT_EQ(Rule(Known(50), Offered(50, std::nullopt), 52), RuleFault::kSnapshotUnknown);
}

TEST(CopyRuleTest, SnapshotCompletesWhatWasLeftHalfWayWithTheSameBitmapOrACurrentOne) {
  CopyRecord half = Known(50);
  half.half_way = {.bitmap = 1, .begun = 40, .taken = 70, .digest = 5};
  OfferedBitmap bitmap = Offered(40, 80);
  EXPECT_EQ(Rule(half, bitmap, 60), RuleFault::kSnapshotUnknown)
      << "nobody knows until when the broken run has read";
  bitmap.digest = 5;
  EXPECT_EQ(Rule(half, bitmap, 60), std::nullopt);
  bitmap.digest = 6;
  bitmap.is_current = true;
  EXPECT_EQ(Rule(half, bitmap, 60), std::nullopt);
}

TEST(OwnBitmapsTest, LatestBeforeTheCopysTimeIsCurrentAndALaterOneNext) {
  CopyRecord record = Known(50);
  EXPECT_EQ(CurrentBitmap(record), std::nullopt);
  EXPECT_EQ(NextBitmap(record), std::nullopt);
  record.bitmaps = {{1, 20}, {2, 50}, {3, 51}, {4, 60}};
  EXPECT_EQ(CurrentBitmap(record), (OwnBitmap{2, 50}));
  EXPECT_EQ(NextBitmap(record), (OwnBitmap{4, 60}));
  EXPECT_THAT(UsedUpBitmaps(record), ElementsAre(OwnBitmap{1, 20}));
  record.as_of = 60;
  EXPECT_EQ(NextBitmap(record), std::nullopt) << "the current one is none";
  EXPECT_THAT(UsedUpBitmaps(record),
              ElementsAre(OwnBitmap{1, 20}, OwnBitmap{2, 50}, OwnBitmap{3, 51}));
  record.as_of = 10;
  EXPECT_EQ(CurrentBitmap(record), std::nullopt);
  EXPECT_THAT(UsedUpBitmaps(record), ElementsAre());
}

TEST(OwnBitmapsTest, IdOfAnotherBitmapIsNotTakenForOurs) {
  CopyRecord record = Known(50);
  record.bitmaps = {{1, 20}, {2, 30}, {3, 40}};
  std::vector<BitmapEntry> listed(2);
  listed[0].id = 1;
  listed[0].creation_time = 20;
  listed[1].id = 2;
  listed[1].creation_time = 31;
  KeepOnlyListed(record, listed);
  EXPECT_THAT(record.bitmaps, ElementsAre(OwnBitmap{1, 20}));
}

TEST(OwnBitmapsTest, WhatABrokenRunMayHaveBegunIsWhatTheFileHadNotAndNobodyHereHas) {
  CopyRecord record = Known(50);
  const std::vector<BitmapEntry> listed = {{.id = 1, .creation_time = 20},
                                           {.id = 2, .creation_time = 40},
                                           {.id = 3, .creation_time = 60}};
  EXPECT_THAT(LeftBitmaps(record, listed), ElementsAre()) << "no run was broken off";
  record.bitmaps = {{1, 20}};
  record.beginning = {.at = 55, .before = {{1, 20}, {2, 30}}};
  EXPECT_THAT(LeftBitmaps(record, listed), ElementsAre(BegunBitmap{2, 40}, BegunBitmap{3, 60}))
      << "the second has another one's id";
  record.bitmaps.push_back({3, 60});
  EXPECT_THAT(LeftBitmaps(record, listed), ElementsAre(BegunBitmap{2, 40}));
}

}  // namespace
}  // namespace zel::ctl
