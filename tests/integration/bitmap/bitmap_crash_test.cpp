// What is left of a bitmap when the process that uses it is killed.
#include "tests/integration/support/bitmap_file.h"
#include "tests/integration/support/log_fixture.h"
#include "win32/handles.h"

namespace zel {
namespace {

// The bitmap_probe executable, which lies beside this one.
std::wstring ProbePath() {
  wchar_t own[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, own, MAX_PATH);
  return (std::filesystem::path(own).parent_path() / "bitmap_probe.exe").wstring();
}

struct Process {
  UniqueToken process;
  UniqueThread thread;
};

Process Start(std::wstring command_line) {
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION started = {};
  EXPECT_TRUE(::CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               nullptr, &startup, &started));
  return {UniqueToken(started.hProcess), UniqueThread(started.hThread)};
}

class BitmapCrashTest : public test::LogFixture {};

TEST_F(BitmapCrashTest, EverySetBitOfAKilledProcessIsOnDiskAndTheBitmapIsUnreliable) {
  constexpr std::uint32_t kBytes = 100'001;
  const std::filesystem::path path = directory() / test::BitmapFileName();
  test::WriteBitmapFile(path, test::MakeHeader(kBytes), 512 + kBytes);

  const std::wstring event_name = L"zel-bitmap-set-" + std::to_wstring(::GetCurrentProcessId());
  const UniqueEvent event(::CreateEventW(nullptr, TRUE, FALSE, event_name.c_str()));
  const Process child =
      Start(L"\"" + ProbePath() + L"\" hold \"" + path.wstring() + L"\" " + event_name);
  const HANDLE either[] = {event.get(), child.process.get()};
  ASSERT_EQ(::WaitForMultipleObjects(2, either, FALSE, 60'000), WAIT_OBJECT_0);
  ASSERT_TRUE(::TerminateProcess(child.process.get(), 1));
  ASSERT_EQ(::WaitForSingleObject(child.process.get(), 60'000), WAIT_OBJECT_0);

  const std::string bytes = test::ReadFileBytes(path);
  ASSERT_EQ(bytes.size(), 512u + kBytes);
  for (std::uint32_t bit = 0; bit < kBytes * 8; ++bit) {
    const bool is_set = (static_cast<unsigned char>(bytes[512 + bit / 8]) >> bit % 8 & 1) != 0;
    ASSERT_EQ(is_set, bit % 3 == 0 || (bit >= 1000 && bit < 3000)) << bit;
  }
  EXPECT_EQ(test::ReadHeader(path).ClosedCleanly, 0);
  EXPECT_EQ(test::ReadHeader(path).Unreliable, 0);

  BitmapRecord record;
  test::DescribeRecord(record, path);
  ASSERT_TRUE(test::Load(record));
  EXPECT_EQ(record.Data->header()->Unreliable, 1);
}

}  // namespace
}  // namespace zel
