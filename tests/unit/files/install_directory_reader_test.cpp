#include "files/install_directory_reader.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace zel {
namespace {

// A registry with one value, which reads as the system's does: a value that does not fit is not
// read, the size that it needs is left, and what the buffer holds then is undefined.
struct FakeRegistry {
  std::optional<std::wstring> value;
  std::vector<std::uint32_t> offered_sizes;

  bool Read(wchar_t* buffer, std::uint32_t& size_bytes) {
    offered_sizes.push_back(size_bytes);
    if (!value) return false;
    const auto offered_chars = size_bytes / 2;
    size_bytes = static_cast<std::uint32_t>(value->size() + 1) * 2;
    if (value->size() + 1 > offered_chars) {
      std::fill_n(buffer, offered_chars, L'?');
      return false;
    }
    std::copy_n(value->c_str(), value->size() + 1, buffer);
    return true;
  }
};

struct Outcome {
  std::wstring directory;
  std::vector<std::uint32_t> sleeps_ms;
  std::vector<std::uint32_t> offered_sizes;
};

// Reads `registry`; `during_sleep` is told the number of each sleep, from 1. Checks that nothing
// was written behind the buffer and that a terminator is in it.
template <class DuringSleep>
Outcome ReadFrom(FakeRegistry registry, DuringSleep during_sleep) {
  struct {
    wchar_t buffer[kInstallDirectoryChars];
    wchar_t behind[16];
  } memory;
  std::ranges::fill(memory.buffer, L'#');
  std::ranges::fill(memory.behind, L'#');
  Outcome outcome;
  ReadInstallDirectory(
      memory.buffer,
      [&](wchar_t* buffer, std::uint32_t& size) { return registry.Read(buffer, size); },
      [&](std::uint32_t ms) {
        outcome.sleeps_ms.push_back(ms);
        during_sleep(registry, outcome.sleeps_ms.size());
      });
  for (const wchar_t c : memory.behind) EXPECT_EQ(c, L'#');
  EXPECT_NE(std::ranges::find(memory.buffer, L'\0'), std::end(memory.buffer));
  outcome.directory.assign(memory.buffer, std::ranges::find(memory.buffer, L'\0'));
  outcome.offered_sizes = registry.offered_sizes;
  return outcome;
}

Outcome ReadValue(std::optional<std::wstring> value) {
  return ReadFrom({.value = std::move(value), .offered_sizes = {}},
                  [](FakeRegistry&, std::size_t) {});
}

using Sizes = std::vector<std::uint32_t>;

TEST(ReadInstallDirectoryTest, MissingValueIsTriedThreeMoreTimesFiveSecondsApart) {
  const Outcome outcome = ReadValue(std::nullopt);
  EXPECT_EQ(outcome.directory, L"");
  EXPECT_EQ(outcome.sleeps_ms, (Sizes{5000, 5000, 5000}));
  EXPECT_EQ(outcome.offered_sizes, (Sizes{260, 260, 260, 260}));
}

TEST(ReadInstallDirectoryTest, ValueOf129CharactersIsReadAtOnce) {
  for (const std::size_t length : {std::size_t{1}, std::size_t{128}, std::size_t{129}}) {
    const std::wstring value(length, L'd');
    const Outcome outcome = ReadValue(value);
    EXPECT_EQ(outcome.directory, value);
    EXPECT_EQ(outcome.sleeps_ms, Sizes{});
  }
}

TEST(ReadInstallDirectoryTest, LongerValueIsReadByTheFirstRetryWithTheSizeItNeeds) {
  for (const std::size_t length : {std::size_t{130}, std::size_t{200}, std::size_t{259}}) {
    const std::wstring value(length, L'd');
    const Outcome outcome = ReadValue(value);
    EXPECT_EQ(outcome.directory, value);
    EXPECT_EQ(outcome.sleeps_ms, Sizes{5000});
    EXPECT_EQ(outcome.offered_sizes, (Sizes{260, static_cast<std::uint32_t>(length + 1) * 2}));
  }
}

TEST(ReadInstallDirectoryTest, ValueThatDoesNotFitTheBufferIsNeverRead) {
  for (const std::size_t length : {std::size_t{260}, std::size_t{300}, std::size_t{5000}}) {
    const Outcome outcome = ReadValue(std::wstring(length, L'd'));
    EXPECT_EQ(outcome.directory, L"");
    EXPECT_EQ(outcome.sleeps_ms, (Sizes{5000, 5000, 5000}));
    EXPECT_EQ(outcome.offered_sizes, (Sizes{260, 520, 520, 520}));
  }
}

TEST(ReadInstallDirectoryTest, ValueThatAppearsDuringTheThirdSleepIsRead) {
  const Outcome outcome = ReadFrom({}, [](FakeRegistry& registry, std::size_t sleep) {
    if (sleep == 3) registry.value = L"D:\\agent";
  });
  EXPECT_EQ(outcome.directory, L"D:\\agent");
  EXPECT_EQ(outcome.sleeps_ms.size(), 3u);
}

TEST(ReadInstallDirectoryTest, EmptyValueIsTriedAgainWithItsSize) {
  const Outcome outcome =
      ReadFrom({.value = L"", .offered_sizes = {}}, [](FakeRegistry& registry, std::size_t sleep) {
        if (sleep == 1) registry.value = L"D:\\agent";
      });
  EXPECT_EQ(outcome.directory, L"D:\\agent");
  EXPECT_EQ(outcome.offered_sizes, (Sizes{260, 2, 18}));
}

TEST(ReadInstallDirectoryTest, BackslashesAtTheEndAreCut) {
  for (const auto& [value, directory] : {std::pair{L"D:\\agent\\", L"D:\\agent"},
                                         {L"D:\\agent\\\\\\", L"D:\\agent"},
                                         {L"D:\\", L"D:"},
                                         {L"\\", L""}}) {
    EXPECT_EQ(ReadValue(value).directory, directory);
  }
}

TEST(ReadInstallDirectoryTest, StringWithoutTerminatorThatFillsTheBufferCountsAsNone) {
  wchar_t buffer[kInstallDirectoryChars];
  ReadInstallDirectory(
      buffer,
      [](wchar_t* out, std::uint32_t&) {
        std::fill_n(out, kInstallDirectoryChars, L'd');
        return true;
      },
      [](std::uint32_t) {});
  EXPECT_EQ(buffer[0], L'\0');
}

}  // namespace
}  // namespace zel
