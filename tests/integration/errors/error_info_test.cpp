#include "errors/error_info.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdarg>
#include <string>
#include <string_view>

#include "tests/integration/support/import_hook.h"

extern "C" void* __imp_FormatMessageA;

namespace zel {
namespace {

constexpr std::uint32_t kStatusAccessDenied = 0xC0000022;
constexpr std::uint32_t kStatusNoMoreFiles = 0x80000006;
constexpr std::uint32_t kStatusUnmapped = 0xE000ABCD;

// Where the text of the system's own message starts to be ours.
std::string_view Name(std::string_view text) {
  return text.substr(text.rfind(" ["));
}

TEST(ErrorInfoTest, NtStatusInTheLastErrorBecomesItsWin32CodeThereToo) {
  ::SetLastError(kStatusAccessDenied);
  const ErrorInfo error;
  EXPECT_EQ(::GetLastError(), 5u);
  EXPECT_EQ(error.code(), 5u);
  EXPECT_EQ(Name(error.text()), " [ERROR_ACCESS_DENIED]");
}

TEST(ErrorInfoTest, Win32CodeInTheLastErrorIsTakenAsItIs) {
  ::SetLastError(ERROR_SHARING_VIOLATION);
  const ErrorInfo error;
  EXPECT_EQ(error.code(), 32u);
  EXPECT_EQ(::GetLastError(), 32u);
}

TEST(ErrorInfoTest, GivenCodeIsConvertedAndLeavesTheLastError) {
  ::SetLastError(1234);
  EXPECT_EQ(ErrorInfo(kStatusAccessDenied).code(), 5u);
  EXPECT_EQ(ErrorInfo(kStatusNoMoreFiles).code(), 18u);
  EXPECT_EQ(ErrorInfo(0x40000022).code(), 0x40000022u);
  EXPECT_EQ(ErrorInfo(kStatusUnmapped).code(), kStatusUnmapped);
  EXPECT_EQ(::GetLastError(), 1234u);
}

TEST(ErrorInfoTest, TextIsTheSystemsWithoutItsFullStopAndTheName) {
  const ErrorInfo error(ERROR_ACCESS_DENIED);
  const std::string text = error.text();
  EXPECT_TRUE(text.starts_with("Access")) << text;
  EXPECT_TRUE(text.ends_with("denied [ERROR_ACCESS_DENIED]")) << text;
}

TEST(ErrorInfoTest, CodeThatStaysNegativeIsShownInHexadecimal) {
  EXPECT_STREQ(ErrorInfo(kStatusUnmapped).text(), "Unknown error code [0xe000abcd]");
}

TEST(ErrorInfoTest, CodeWithoutMessageAndNameIsUnknown) {
  EXPECT_STREQ(ErrorInfo(65000).text(), "Unknown error code [65000]");
}

int messages_asked_for = 0;

DWORD WINAPI CountAndFail(DWORD, const void*, DWORD, DWORD language, char*, DWORD size, va_list*) {
  ++messages_asked_for;
  EXPECT_EQ(language, 1033u);
  EXPECT_EQ(size, 1024u);
  ::SetLastError(ERROR_CRC);
  return 0;
}

TEST(ErrorInfoTest, TextIsComputedOnceAndLeavesTheLastError) {
  const test::ImportHook hook(__imp_FormatMessageA, &CountAndFail);
  messages_asked_for = 0;
  const ErrorInfo error(ERROR_ACCESS_DENIED);
  EXPECT_EQ(messages_asked_for, 0);
  ::SetLastError(1234);
  EXPECT_STREQ(error.text(), "Unknown error code [ERROR_ACCESS_DENIED]");
  EXPECT_STREQ(error.text(), "Unknown error code [ERROR_ACCESS_DENIED]");
  EXPECT_EQ(messages_asked_for, 1);
  EXPECT_EQ(::GetLastError(), 1234u);
}

}  // namespace
}  // namespace zel
