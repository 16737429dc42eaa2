#include "simulator/orders.h"

#include <gtest/gtest.h>

namespace zel::sim {
namespace {

constexpr char kVolumeText[] = "01234567-89ab-cdef-0123-456789abcdef";
constexpr VolumeGuid kVolume = {
    0x01234567, 0x89AB, 0xCDEF, {1, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};

Order Parse(const std::string& line) {
  Order order;
  std::string fault;
  EXPECT_TRUE(ParseOrder(line, order, fault)) << line << ": " << fault;
  return order;
}

std::string Fault(const std::string& line) {
  Order order;
  std::string fault;
  EXPECT_FALSE(ParseOrder(line, order, fault)) << line;
  return fault;
}

TEST(OrdersTest, WriteHasAllItsArguments) {
  const Order order =
      Parse(std::string("write ") + kVolumeText + " 0x12 4294967296 65536 42 133000000000000000");
  EXPECT_EQ(order.verb, Verb::kWrite);
  EXPECT_EQ(order.file, (FileKey{kVolume, 0x12}));
  EXPECT_EQ(order.offset, 4294967296u);
  EXPECT_EQ(order.length, 65536u);
  EXPECT_EQ(order.process_id, 42u);
  EXPECT_EQ(order.time, 133000000000000000u);
}

TEST(OrdersTest, ProcessAndTimeMayBeLeftOut) {
  const std::string write = std::string("write ") + kVolumeText + " 1 2 3";
  EXPECT_EQ(Parse(write).process_id, 0u);
  EXPECT_FALSE(Parse(write + " 42").time);
}

TEST(OrdersTest, EveryOrderIsKnown) {
  const std::string file = std::string(" ") + kVolumeText + " 1";
  const std::pair<std::string, Verb> orders[] = {
      {"write" + file + " 0 1", Verb::kWrite},
      {"burst" + file + " 0 1 10000", Verb::kBurst},
      {"size" + file + " 0", Verb::kSize},
      {"open" + file, Verb::kOpen},
      {"close" + file, Verb::kClose},
      {"rename" + file, Verb::kRename},
      {"verify" + file, Verb::kVerify},
      {"unreported" + file, Verb::kUnreported},
      {"read" + file + " 0 1", Verb::kRead},
      {"raw 00ff", Verb::kRaw},
      {"connect", Verb::kConnect},
      {"send 00 48", Verb::kSend},
      {"forget", Verb::kForget},
      {"redeliver", Verb::kRedeliver},
      {"hold", Verb::kHold},
      {"release", Verb::kRelease},
      {"delay 5", Verb::kDelay},
      {"drop", Verb::kDrop},
      {"duplicate 2", Verb::kDuplicate},
      {"reorder", Verb::kReorder},
      {"corrupt magic", Verb::kCorrupt},
      {"refuse connects", Verb::kRefuse},
      {"accept sends", Verb::kAccept},
      {"limit 10", Verb::kLimit},
      {"reads" + file, Verb::kReads},
      {"counters", Verb::kCounters},
      {"stop", Verb::kStop},
  };
  for (const auto& [line, verb] : orders) EXPECT_EQ(Parse(line).verb, verb) << line;
  EXPECT_EQ(std::size(orders), static_cast<std::size_t>(Verb::kStop) + 1);
}

TEST(OrdersTest, BlanksAroundWordsMeanNothing) {
  const Order order = Parse(" \t corrupt   short\t3 \r\n");
  EXPECT_EQ(order.what, "short");
  EXPECT_EQ(order.number, 3u);
}

TEST(OrdersTest, CountIsOneWhenLeftOut) {
  EXPECT_EQ(Parse("drop").number, 1u);
}

TEST(OrdersTest, FaultNamesWhatIsWrong) {
  EXPECT_EQ(Fault(""), "no such order");
  EXPECT_EQ(Fault("writes"), "no such order");
  EXPECT_EQ(Fault("write"), "an argument is missing");
  EXPECT_EQ(Fault("delay soon"), "cannot read soon");
  EXPECT_EQ(Fault("corrupt bytes"), "cannot read bytes");
  EXPECT_EQ(Fault("hold 1"), "too many arguments");
  EXPECT_EQ(Fault(std::string("burst ") + kVolumeText + " 1 2 3 10001"), "cannot read 10001");
  EXPECT_EQ(Fault(std::string("write ") + kVolumeText + " 1 2 4294967296"),
            "cannot read 4294967296");
}

TEST(OrdersTest, NothingIsLeftFromTheOrderBefore) {
  Order order;
  std::string fault;
  ASSERT_TRUE(ParseOrder("refuse sends 7", order, fault));
  ASSERT_TRUE(ParseOrder("refuse connects", order, fault));
  EXPECT_EQ(order.result, 0u);
}

}  // namespace
}  // namespace zel::sim
