// verify: which differences count.
#include <gmock/gmock.h>

#include "tests/unit/support/copy_bench.h"

namespace zel::ctl {
namespace {

using test::kCopy;
using test::kLive;
using test::Words;

class VerifyTest : public testing::Test, protected test::CopyBench {
 protected:
  using CopyBench::Run;

  VerifyTest() {
    bitmap = Track();
    ExpectGood(Full());
  }

  // Where the files differ; nothing where they do not.
  std::string Difference(const std::string& by = {}) {
    Words words = {"verify", "--from", kLive, "--to", kCopy};
    if (!by.empty()) words = With(words, {"--bitmap", by});
    if (Run(words) == 0) return "";
    EXPECT_EQ(answer["error"]["reason"], "differs") << answer;
    return answer.value("difference_at", nlohmann::ordered_json()).dump();
  }

  std::string bitmap;
};

TEST_F(VerifyTest, EveryDifferenceCountsWithoutABitmap) {
  EXPECT_EQ(Difference(), "");
  Write(3000, 5);
  EXPECT_EQ(Difference(), "3000");
  machine.At(kCopy).bytes = service.Live().bytes;
  machine.At(kCopy).bytes.push_back(std::byte{1});
  EXPECT_EQ(Difference(), "6400");
}

TEST_F(VerifyTest, WhatTheBitmapSaysWasWrittenSinceDoesNotCount) {
  Write(3000, 5);
  Write(6400, 10);
  EXPECT_EQ(Difference(bitmap), "");
  service.Live().bytes[10] ^= std::byte{1};
  EXPECT_EQ(Difference(bitmap), "10") << "nobody told of it";
}

// A bitmap that is named by its id is asked again, a file is as it is.
TEST_F(VerifyTest, WritesMeanwhileAreLeftOutByAnIdAlone) {
  constexpr std::uint64_t kInASecondPiece = 1'050'000;
  Write(6400, 1'100'000);
  ExpectGood(Apply(bitmap));
  const std::string next = Track();
  Export(next, "X:\\next");
  for (const std::string& by : {next, std::string("X:\\next")}) {
    service.Live().after_read = [&](test::MemoryFile& file) {
      file.after_read = {};
      Write(by == next ? kInASecondPiece : kInASecondPiece - 1000, 1);
    };
    EXPECT_EQ(Difference(by), by == next ? "" : std::to_string(kInASecondPiece - 1000));
  }
}

TEST_F(VerifyTest, BitmapThatIsNotTrustedSaysNothing) {
  Write(3000, 5);
  service.Crash();
  EXPECT_EQ(Run({"verify", "--from", kLive, "--to", kCopy, "--bitmap", bitmap}), 4);
  EXPECT_EQ(answer["error"]["reason"], "unreliable");
}

TEST_F(VerifyTest, MissingCopyIsTold) {
  machine.files.erase(kCopy);
  EXPECT_EQ(Run({"verify", "--from", kLive, "--to", kCopy}), 1);
  EXPECT_EQ(answer["error"]["code"], 2);
}

}  // namespace
}  // namespace zel::ctl
