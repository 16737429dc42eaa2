#include "bitmap/bitmap_name.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(FormatBitmapNameTest, TimeAndBlockSizeAreLowerCaseHexFilledWithZeros) {
  EXPECT_EQ(FormatBitmapName(0x01d2a3b4c5d6e7f8, 0x10000), L"01d2a3b4c5d6e7f800010000");
  EXPECT_EQ(FormatBitmapName(0, 0), L"000000000000000000000000");
  EXPECT_EQ(FormatBitmapName(0xFEDCBA9876543210, 0xFFFFFFFF), L"fedcba9876543210ffffffff");
}

TEST(LastPathComponentTest, IsTheTextBehindTheLastBackslash) {
  EXPECT_EQ(LastPathComponent(LR"(\\?\C:\cbt\volume\file\name)"), L"name");
  EXPECT_EQ(LastPathComponent(L"name"), L"name");
  EXPECT_EQ(LastPathComponent(LR"(directory\)"), L"");
  EXPECT_EQ(LastPathComponent(LR"(a/b\c/d)"), L"c/d");
}

TEST(ParseNameTest, ReadsWhatFormatWrote) {
  for (const FileTime time : {FileTime{1}, FileTime{0x01d2a3b4c5d6e7f8}, ~FileTime{1}}) {
    for (const std::uint32_t size : {1u, 65'536u, 0xFFFFFFFEu}) {
      const std::wstring name = FormatBitmapName(time, size);
      EXPECT_EQ(ParseNameCreationTime(name), time);
      EXPECT_EQ(ParseNameBlockSize(name), size);
    }
  }
}

TEST(ParseNameTest, ZeroAndAllOnesAreNone) {
  EXPECT_EQ(ParseNameCreationTime(L"000000000000000000010000"), std::nullopt);
  EXPECT_EQ(ParseNameCreationTime(L"ffffffffffffffff00010000"), std::nullopt);
  EXPECT_EQ(ParseNameBlockSize(L"01d2a3b4c5d6e7f800000000"), std::nullopt);
  EXPECT_EQ(ParseNameBlockSize(L"01d2a3b4c5d6e7f8ffffffff"), std::nullopt);
}

TEST(ParseNameTest, EachHalfIsReadAlone) {
  EXPECT_EQ(ParseNameCreationTime(L"01d2a3b4c5d6e7f8????????"), 0x01d2a3b4c5d6e7f8u);
  EXPECT_EQ(ParseNameBlockSize(L"????????????????00010000"), 65'536u);
}

TEST(ParseNameTest, NumbersAreReadAsTheRunTimeLibraryReadsThem) {
  EXPECT_EQ(ParseNameCreationTime(L"01D2A3B4C5D6E7F800010000"), 0x01d2a3b4c5d6e7f8u);
  EXPECT_EQ(ParseNameCreationTime(L"12zzzzzzzzzzzzzz00010000"), 0x12u);
  EXPECT_EQ(ParseNameCreationTime(L"  +0x1f         00010000"), 0x1Fu);
  EXPECT_EQ(ParseNameCreationTime(L"-2              00010000"), ~FileTime{1});
  EXPECT_EQ(ParseNameCreationTime(L"-1              00010000"), std::nullopt);
  EXPECT_EQ(ParseNameCreationTime(L"zzzzzzzzzzzzzzzz00010000"), std::nullopt);
  EXPECT_EQ(ParseNameBlockSize(L"01d2a3b4c5d6e7f8-0000002"), 0xFFFFFFFEu);
  EXPECT_EQ(ParseNameBlockSize(L"01d2a3b4c5d6e7f8-0000001"), std::nullopt);
  EXPECT_EQ(ParseNameBlockSize(L"01d2a3b4c5d6e7f80x1000zz"), 0x1000u);
}

}  // namespace
}  // namespace zel
