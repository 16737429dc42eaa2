#include "simulator/text.h"

#include <gtest/gtest.h>

namespace zel::sim {
namespace {

TEST(SimulatorTextTest, NumbersAreDecimalOrHexadecimal) {
  std::uint64_t number = 0;
  EXPECT_TRUE(ParseNumber("18446744073709551615", number));
  EXPECT_EQ(number, UINT64_MAX);
  EXPECT_TRUE(ParseNumber("0xFFFFFFFFFFFFFFFF", number));
  EXPECT_EQ(number, UINT64_MAX);
  EXPECT_TRUE(ParseNumber("0", number));
  EXPECT_EQ(number, 0u);
}

TEST(SimulatorTextTest, WhatIsNoNumberIsRefused) {
  std::uint32_t number;
  for (const char* text :
       {"", "-1", "+1", " 1", "1 ", "0x", "x", "4294967296", "0x100000000", "1.5"}) {
    EXPECT_FALSE(ParseNumber(text, number)) << text;
  }
}

TEST(SimulatorTextTest, VolumeReadsBackEqual) {
  const VolumeGuid volume = {
      0x01234567, 0x89AB, 0xCDEF, {0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE}};
  const std::string text = "01234567-89ab-cdef-1032-547698badcfe";
  EXPECT_EQ(VolumeText(volume), text);
  VolumeGuid read = {};
  EXPECT_TRUE(ParseVolume(text, read));
  EXPECT_EQ(read, volume);
  EXPECT_TRUE(ParseVolume("01234567-89AB-CDEF-1032-547698BADCFE", read));
  EXPECT_EQ(read, volume);
}

TEST(SimulatorTextTest, EveryDamagedVolumeIsRefused) {
  const std::string good = "01234567-89ab-cdef-1032-547698badcfe";
  VolumeGuid volume;
  for (std::size_t i = 0; i < good.size(); ++i) {
    std::string damaged = good;
    damaged[i] = good[i] == '-' ? '0' : '-';
    EXPECT_FALSE(ParseVolume(damaged, volume)) << damaged;
    EXPECT_FALSE(ParseVolume(std::string_view(good).substr(0, i), volume));
  }
  EXPECT_FALSE(ParseVolume("{" + good + "}", volume));
}

TEST(SimulatorTextTest, BytesReadBackEqual) {
  Bytes all;
  for (int i = 0; i < 256; ++i) all.push_back(std::byte(i));
  for (const Bytes& bytes : {Bytes{}, all}) {
    Bytes read = {std::byte{1}};
    EXPECT_TRUE(ParseBytes(BytesText(bytes), read));
    EXPECT_EQ(read, bytes);
  }
  Bytes none;
  for (const char* text : {"", "0", "0g", "--", "0x"}) EXPECT_FALSE(ParseBytes(text, none)) << text;
}

}  // namespace
}  // namespace zel::sim
