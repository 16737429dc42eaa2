#include "client/pipe_response.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsNull;
using ::testing::StrEq;

// The bytes of "hex digits and blanks".
std::vector<std::byte> Bytes(const std::string& hex) {
  std::vector<std::byte> bytes;
  std::string digits;
  for (const char c : hex) {
    if (c != ' ') digits += c;
    if (digits.size() < 2) continue;
    bytes.push_back(static_cast<std::byte>(std::stoi(digits, nullptr, 16)));
    digits.clear();
  }
  return bytes;
}

class ReadPipeResponseTest : public ::testing::Test {
 protected:
  const char* Read(const std::string& hex) {
    const std::vector<std::byte> response = Bytes(hex);
    return ReadPipeResponse(
        response,
        [this](std::span<const std::byte> chunk) {
          chunks.emplace_back(reinterpret_cast<const char*>(chunk.data()), chunk.size());
        },
        code);
  }

  std::vector<std::string> chunks;
  std::uint32_t code = 77;
};

TEST_F(ReadPipeResponseTest, EmptyPipeIsFollowedByTheCode) {
  EXPECT_THAT(Read("00000000 90040000"), IsNull());
  EXPECT_THAT(chunks, IsEmpty());
  EXPECT_EQ(code, 1168u);
}

TEST_F(ReadPipeResponseTest, ChunksComeInOrderAndCountsAreAligned) {
  EXPECT_THAT(Read("01000000 41 ffffff 04000000 42434445 03000000 464748 ff 00000000 00000000"),
              IsNull());
  EXPECT_THAT(chunks, ElementsAre("A", "BCDE", "FGH"));
  EXPECT_EQ(code, 0u);
}

TEST_F(ReadPipeResponseTest, FaultsAreToldAndLeaveTheCode) {
  EXPECT_THAT(Read(""), StrEq("the pipe has no end"));
  EXPECT_THAT(Read("000000"), StrEq("the pipe has no end"));
  EXPECT_THAT(Read("01000000 41"), StrEq("the pipe has no end"));
  EXPECT_THAT(Read("01000000 41 000000"), StrEq("the pipe has no end"));
  EXPECT_THAT(Read("02000000 41"), StrEq("a chunk is longer than the response"));
  EXPECT_THAT(Read("ffffffff 41"), StrEq("a chunk is longer than the response"));
  EXPECT_THAT(Read("00000000 000000"), StrEq("the code behind the pipe is missing"));
  EXPECT_THAT(Read("00000000 00000000 00"), StrEq("there is more behind the code"));
  EXPECT_EQ(code, 77u);
}

TEST_F(ReadPipeResponseTest, EveryTruncationIsFound) {
  const std::string whole = "0100000041ffffff040000004243444500000000ffffffff";
  for (std::size_t length = 0; length < whole.size(); length += 2) {
    EXPECT_NE(Read(whole.substr(0, length)), nullptr) << length;
  }
  EXPECT_THAT(Read(whole), IsNull());
}

}  // namespace
}  // namespace zel
