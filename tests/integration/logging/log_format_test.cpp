// The log's formatter against the run-time library's own.
#include "logging/log_format.h"

#include <gtest/gtest.h>
#include <stdarg.h>
#include <windows.h>

#include <array>
#include <random>
#include <string>

#include "tests/unit/support/utf8_collector.h"

namespace zel {
namespace {

std::string RuntimeLibraryFormat(const wchar_t* format, ...) {
  wchar_t wide[1024];
  va_list arguments;
  va_start(arguments, format);
  const int length = ::_vsnwprintf_l(wide, 1024, format, nullptr, arguments);
  va_end(arguments);
  char bytes[4096];
  return {bytes, static_cast<std::size_t>(::WideCharToMultiByte(CP_UTF8, 0, wide, length, bytes,
                                                                sizeof bytes, nullptr, nullptr))};
}

template <class... Args>
void ExpectSame(const wchar_t* format, Args... args) {
  const std::array<LogArgument, sizeof...(Args)> arguments = {LogArgument::Of(args)...};
  EXPECT_EQ(test::CollectUtf8([&](Utf8Writer& out) { FormatLogMessage(out, format, arguments); }),
            RuntimeLibraryFormat(format, args...));
}

TEST(FormatLogMessageTest, AgreesWithTheRuntimeLibraryOnStrings) {
  ExpectSame(L"%s|%ls|%hs|%%|%s\n", L"C:\\\u0394\\\u6570\\\U0001F4BE", L"", "narrow", L"end");
  ExpectSame(L"%s %hs\n", static_cast<const wchar_t*>(nullptr), static_cast<const char*>(nullptr));
  ExpectSame(L"0x%p\n", reinterpret_cast<void*>(0x7ffe1234abcdull));
}

TEST(FormatLogMessageTest, AgreesWithTheRuntimeLibraryOnTheMisprintedConversion) {
  ExpectSame(L"%s, 0x%016I4x, 0x%016I64x", L"volume", 0x12ull, 0x34ull);
}

TEST(FormatLogMessageTest, AgreesWithTheRuntimeLibraryOnRandomIntegers) {
  std::mt19937_64 random(20260131);
  for (int round = 0; round < 20'000; ++round) {
    const std::uint64_t wide = random() >> (random() % 64);
    const auto narrow = static_cast<std::uint32_t>(random() >> (32 + random() % 32));
    ExpectSame(L"%I64d %I64u %I64x %016I64x %llu %Iu %20I64X\n", wide, wide, wide, wide, wide, wide,
               wide);
    ExpectSame(L"%d %u %lu %x %08x %04hu %5d %05d %02x\n", narrow, narrow, narrow, narrow, narrow,
               narrow, narrow, narrow, narrow);
  }
}

}  // namespace
}  // namespace zel
