// Every reason by which a script can tell refusals apart is given by a run of the tool, with an
// exit code that the manual's table has.
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "tests/unit/support/tool_fixture.h"

namespace zel::ctl {
namespace {

using test::Bytes;
using test::kBitmap;
using Words = std::vector<std::string>;

constexpr char kSource[] = "C:\\source";
constexpr char kCopy[] = "D:\\copy";
constexpr char kId[] = "0x000500000001a9f0";
constexpr FileTime kStart = test::kCreated + 1000;

// The exit code column of the manual's table, by the reason.
std::map<std::string, std::string> DocumentedReasons() {
  std::ifstream document("docs/zelctl.md");
  std::map<std::string, std::string> reasons;
  const std::regex row("\\| `([a-z_]+)` \\| ([^|]+) \\|.*");
  std::smatch match;
  for (std::string line; std::getline(document, line);) {
    if (std::regex_match(line, match, row)) reasons[match[1]] = match[2];
  }
  return reasons;
}

// A file, its copy and a bitmap of what was changed since, which cannot be refused as it stands.
class ReasonsTest : public test::ToolTest {
 protected:
  ReasonsTest() {
    machine.At(kSource).bytes = Bytes(10 * 4096, std::byte{1});
    machine.At(kSource).id = test::kFile;
    machine.now = kStart;
    EXPECT_EQ(Run({"apply", "--full", "--from", kSource, "--to", kCopy}), 0);
    machine.now = kStart + 1000;
    server.contents[kBitmap] = Changed();
    machine.At("B:\\bitmap").bytes = Changed();
  }

  static Bytes Changed() {
    Bytes bitmap = test::MakeBitmapBytes(10 * 4096, 4096);
    for (const int block : {1, 3, 5}) test::SetBit(bitmap, block);
    return bitmap;
  }
  static Words Apply(const std::string& bitmap, Words more = {}) {
    Words words = {"apply", "--bitmap", bitmap, "--from", kSource, "--to", kCopy};
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }
  void ChangeBitmap(void (*change)(BitmapFileHeader& header)) {
    for (Bytes* bytes : {&server.contents[kBitmap], &machine.At("B:\\bitmap").bytes}) {
      test::ChangeHeader(*bytes, change);
    }
  }
  // A refusal of that kind, which the manual must know.
  void ExpectRefusal(const std::string& reason, int exit_code, const Words& words) {
    EXPECT_EQ(RunJson(words, exit_code)["error"]["reason"], reason);
    const auto documented = DocumentedReasons();
    ASSERT_TRUE(documented.contains(reason)) << reason;
    EXPECT_THAT(documented.at(reason), testing::HasSubstr(std::to_string(exit_code)));
  }
};

TEST_F(ReasonsTest, NothingElseStandsAgainstTheBitmap) {
  EXPECT_EQ(Run(Apply(kId)), 0) << terminal.notes;
  EXPECT_EQ(Run(Apply("B:\\bitmap")), 0) << terminal.notes;
}

TEST_F(ReasonsTest, ManualHasEveryReasonAndNoOther) {
  std::vector<std::string> words;
  for (int reason = static_cast<int>(Reason::kNone) + 1;; ++reason) {
    const std::string_view word = ReasonWord(static_cast<Reason>(reason));
    if (word.empty()) break;
    words.emplace_back(word);
  }
  std::vector<std::string> documented;
  for (const auto& [reason, codes] : DocumentedReasons()) documented.push_back(reason);
  EXPECT_THAT(documented, testing::UnorderedElementsAreArray(words));
}

TEST_F(ReasonsTest, Unreliable) {
  ChangeBitmap([](BitmapFileHeader& header) { header.Unreliable = 1; });
  ExpectRefusal("unreliable", 4, Apply(kId));
}

TEST_F(ReasonsTest, InUse) {
  ChangeBitmap([](BitmapFileHeader& header) { header.ClosedCleanly = 0; });
  ExpectRefusal("in_use", 1, Apply("B:\\bitmap"));
}

TEST_F(ReasonsTest, HalfWay) {
  machine.death = {.changes = 0, .fail_at = 7};
  EXPECT_EQ(Run(Apply(kId)), 1);
  machine.death = {};
  machine.At("B:\\bitmap").bytes = test::MakeBitmapBytes(10 * 4096, 4096);  // of before
  ExpectRefusal("half_way", 4, Apply("B:\\bitmap"));  // the service lists none
}

TEST_F(ReasonsTest, TooLate) {
  server.contents[kBitmap] = test::MakeBitmapBytes(10 * 4096, 4096, kStart + 1);
  ExpectRefusal("too_late", 4, Apply(kId));
}

TEST_F(ReasonsTest, TooLateOfASnapshot) {
  machine.At(kSource).id = 9;
  ExpectRefusal("too_late", 1,
                Apply(kId, {"--force-identity", "--snapshot-time", std::to_string(kStart - 1)}));
}

TEST_F(ReasonsTest, Identity) {
  machine.At(kSource).id = 9;
  ExpectRefusal("identity", 1, Apply(kId));
}

TEST_F(ReasonsTest, NotACopy) {
  machine.At(kCopy).id = 99;  // made by something else
  ExpectRefusal("not_a_copy", 4, Apply(kId));
  ExpectRefusal("not_a_copy", 1, Apply(kId, {"--full"}));
}

TEST_F(ReasonsTest, Differs) {
  machine.At(kSource).bytes[9 * 4096] = std::byte{2};
  ExpectRefusal("differs", 1, Apply(kId, {"--verify"}));
}

TEST_F(ReasonsTest, Damaged) {
  machine.At("B:\\bitmap").bytes.resize(600);
  ExpectRefusal("damaged", 1, Apply("B:\\bitmap"));
}

TEST_F(ReasonsTest, Busy) {
  bool is_asked = false;
  machine.At(kSource).after_read = [&](test::MemoryFile& file) {
    file.after_read = {};
    is_asked = true;
    ExpectRefusal("busy", 1, Apply(kId));
  };
  EXPECT_EQ(Run(Apply(kId)), 0);
  EXPECT_TRUE(is_asked);
}

TEST_F(ReasonsTest, Exists) {
  ExpectRefusal("exists", 1, {"export", kId, "--output", kCopy});
}

}  // namespace
}  // namespace zel::ctl
