#include "zelctl/stream_within.h"

#include <gmock/gmock.h>

#include <future>
#include <string>
#include <vector>

namespace zel::ctl {
namespace {

using testing::ElementsAre;
using namespace std::chrono_literals;

constexpr Answer kLate = {.rpc_status = 1818, .code = 0};

std::span<const std::byte> BytesOf(const std::string& text) {
  return std::as_bytes(std::span(text));
}

class StreamWithinTest : public testing::TestWithParam<std::chrono::seconds> {
 protected:
  // Sends each text until one is refused.
  static Answer Send(const std::vector<std::string>& texts, const BitmapSink& sink) {
    for (const std::string& text : texts) {
      if (const std::uint32_t code = sink(BytesOf(text))) return {.rpc_status = code, .code = 0};
    }
    return {.rpc_status = 0, .code = 1115};
  }

  Answer Stream(std::vector<std::string> texts) {
    return StreamWithin<Answer>(
        GetParam(),
        [texts = std::move(texts)](const BitmapSink& sink) { return Send(texts, sink); },
        [this](std::span<const std::byte> bytes) {
          EXPECT_EQ(std::this_thread::get_id(), caller_);
          taken.emplace_back(reinterpret_cast<const char*>(bytes.data()), bytes.size());
          return taken.back() == "full" ? 112u : 0u;
        },
        kLate);
  }

  const std::thread::id caller_ = std::this_thread::get_id();
  std::vector<std::string> taken;
};

INSTANTIATE_TEST_SUITE_P(, StreamWithinTest, testing::Values(0s, 60s));

TEST_P(StreamWithinTest, EveryPieceIsTakenByTheCallerAndTheAnswerComesBack) {
  EXPECT_EQ(Stream({"a", "bc", "d"}).code, 1115u);
  EXPECT_THAT(taken, ElementsAre("a", "bc", "d"));
}

TEST_P(StreamWithinTest, RefusedPieceIsTheLast) {
  EXPECT_EQ(Stream({"a", "full", "c"}).rpc_status, 112u);
  EXPECT_THAT(taken, ElementsAre("a", "full"));
}

// The call comes back to life when it has been given up: it gets rid of nothing more.
TEST(StreamThatIsLateTest, IsGivenUpAndItsNextPieceIsRefused) {
  std::promise<void> go_on;
  std::promise<std::uint32_t> refused;
  int pieces = 0;
  const Answer answer = StreamWithin<Answer>(
      1s,
      [&, go_on = go_on.get_future().share()](const BitmapSink& sink) {
        EXPECT_EQ(sink(BytesOf("a")), 0u);
        go_on.wait();
        EXPECT_EQ(sink(BytesOf("b")), 1818u);
        refused.set_value(sink(BytesOf("c")));
        return Answer{};
      },
      [&](std::span<const std::byte>) {
        ++pieces;
        return 0u;
      },
      kLate);
  EXPECT_EQ(answer.rpc_status, 1818u);
  go_on.set_value();
  EXPECT_EQ(refused.get_future().get(), 1818u);
  EXPECT_EQ(pieces, 1);
}

}  // namespace
}  // namespace zel::ctl
