#include "logging/log_message.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/log_fixture.h"

extern "C" void* __imp_EnterCriticalSection;
extern "C" void* __imp_VirtualAlloc;
extern "C" void* __imp_malloc;

namespace zel {
namespace {

using test::LogLine;
using testing::ElementsAre;

class LogMessageTest : public test::LogFixture {};

// Calls of the hooked function by the thread that counts; the log's own threads are not counted.
std::atomic<int> calls{0};
std::atomic<DWORD> counting_thread{0};

void CountFromHere() {
  counting_thread = ::GetCurrentThreadId();
  calls = 0;
}

void Count() {
  if (counting_thread == ::GetCurrentThreadId()) ++calls;
}

decltype(&::EnterCriticalSection) real_enter = nullptr;

void WINAPI CountEnter(CRITICAL_SECTION* section) {
  Count();
  real_enter(section);
}

void* CountMalloc(std::size_t size) {
  Count();
  return std::calloc(1, size);
}

decltype(&::VirtualAlloc) real_virtual_alloc = nullptr;

void* WINAPI CountVirtualAlloc(void* address, SIZE_T size, DWORD type, DWORD protection) {
  Count();
  return real_virtual_alloc(address, size, type, protection);
}

TEST_F(LogMessageTest, BeforeInitLoggingEveryCallIsDropped) {
  testing::internal::CaptureStdout();
  for (int selector = 0; selector < 15; ++selector) LogMessage(selector, L"dropped\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(LogMessageTest, LineHasPrefixOfItsSelectorAndThread) {
  StartLogging();
  LogMessage(kGeneralTrace, L"first %s %hs %u\n", L"wide", "narrow", 7u);
  LogMessage(kBitmapWarn, L"0x%016I64x %I64d %lu\n", 0x12abull, -5ll, 9ul);
  LogMessage(kDriverCommError, L"third\n");
  const std::string id = std::to_string(::GetCurrentThreadId());
  EXPECT_THAT(StopLogging(), ElementsAre(LogLine{"TRACE", id, "first wide narrow 7"},
                                         LogLine{"WARN ", id, "0x00000000000012ab -5 9"},
                                         LogLine{"ERROR", id, "third"}));
}

TEST_F(LogMessageTest, TimeStampIsTheLocalTimeOfTheCall) {
  StartLogging();
  SYSTEMTIME before;
  SYSTEMTIME after;
  ::GetLocalTime(&before);
  LogMessage(kGeneralInfo, L"now\n");
  ::GetLocalTime(&after);
  ShutdownLogging();
  const auto text = [](const SYSTEMTIME& t) {
    char out[64];
    std::snprintf(out, sizeof out, "%04d-%02d-%02d %02d:%02d:%02d.%03d", t.wYear, t.wMonth, t.wDay,
                  t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
    return std::string(out);
  };
  const std::string stamp = test::ReadFileBytes(log_path()).substr(0, 23);
  EXPECT_LE(text(before), stamp);
  EXPECT_LE(stamp, text(after));
}

TEST_F(LogMessageTest, NonAsciiPathsArriveAsUtf8WithoutByteOrderMark) {
  StartLogging();
  LogMessage(kGeneralInfo, L"%s\n", L"C:\\\u0394\u03b5\u03b4\u03bf\\\u6570\u636e\\\U0001F4BE.vhdx");
  EXPECT_EQ(StopLoggingAndGetMessages()[0],
            "INFO  C:\\\xce\x94\xce\xb5\xce\xb4\xce\xbf\\\xe6\x95\xb0\xe6\x8d\xae\\"
            "\xf0\x9f\x92\xbe.vhdx");
  EXPECT_EQ(test::ReadFileBytes(log_path())[0], '2');
}

TEST_F(LogMessageTest, LongLinesStayWholeWhereverACharacterFalls) {
  StartLogging();
  std::vector<std::string> expected;
  for (const std::size_t lead : {1022, 1023, 1024, 2047, 2048, 33990, 40000}) {
    LogMessage(kGeneralInfo, L"%s\U0001F4BE%s\n", std::wstring(lead, L'a').c_str(), L"\u6570 end");
    expected.push_back("INFO  " + std::string(lead, 'a') + "\xf0\x9f\x92\xbe\xe6\x95\xb0 end");
  }
  EXPECT_EQ(StopLoggingAndGetMessages(), expected);
}

TEST_F(LogMessageTest, LoneSurrogateIsReplacedAndTheLineGoesOn) {
  StartLogging();
  const wchar_t name[] = {L'a', static_cast<wchar_t>(0xD800), L'b', 0};
  LogMessage(kGeneralInfo, L"%s\n", static_cast<const wchar_t*>(name));
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("INFO  a\xef\xbf\xbd"
                                                       "b"));
}

TEST_F(LogMessageTest, LastErrorIsKeptWhetherTheSelectorIsOnOrOff) {
  StartLogging("zelservicelog=info\n");
  ::SetLastError(4321);
  LogMessage(kGeneralDebug, L"off\n");
  EXPECT_EQ(::GetLastError(), 4321u);
  LogMessage(kGeneralInfo, L"on\n");
  EXPECT_EQ(::GetLastError(), 4321u);
  ShutdownLogging();
  testing::internal::CaptureStdout();
  ::SetLastError(4321);
  LogMessage(kGeneralInfo, L"no file\n");
  EXPECT_EQ(::GetLastError(), 4321u);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "no file\n");
}

TEST_F(LogMessageTest, DisabledSelectorTakesNoLockAndAnEnabledOneTakesIt) {
  StartLogging("zelservicelog=info\n");
  real_enter = reinterpret_cast<decltype(real_enter)>(__imp_EnterCriticalSection);
  const test::ImportHook hook(__imp_EnterCriticalSection, &CountEnter);
  CountFromHere();
  LogMessage(kGeneralDebug, L"off %u\n", 1u);
  EXPECT_EQ(calls, 0);
  LogMessage(kGeneralInfo, L"on %u\n", 1u);
  EXPECT_EQ(calls, 1);
}

TEST_F(LogMessageTest, EnabledCallAllocatesNothing) {
  StartLogging();
  const std::wstring path(32'767, L'p');
  LogMessage(kGeneralInfo, L"the stream has its buffer now\n");
  const test::ImportHook hook(__imp_malloc, &CountMalloc);
  real_virtual_alloc = reinterpret_cast<decltype(real_virtual_alloc)>(__imp_VirtualAlloc);
  const test::ImportHook guarded(__imp_VirtualAlloc, &CountVirtualAlloc);  // the tests' own heap
  CountFromHere();
  LogMessage(kGeneralInfo, L"%hs %u %s\n", "narrow", 1u, path.c_str());
  EXPECT_EQ(calls, 0);
  ::operator delete(::operator new(100));
  EXPECT_EQ(calls, 1) << "the hook does not see allocations";
}

TEST_F(LogMessageTest, WithoutConfigurationGeneralTraceToWarnAreWritten) {
  std::filesystem::create_directories(log_path().parent_path());
  std::filesystem::create_directories(config_path().parent_path());
  InitLogging(log_path().wstring(), kConfigurationFile);
  for (int selector = 0; selector < 15; ++selector) LogMessage(selector, L"%d\n", selector);
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("TRACE 0", "DEBUG 1", "INFO  2", "WARN  3"));
}

TEST_F(LogMessageTest, WithoutAFileTheBareMessageGoesToStandardOutput) {
  std::filesystem::create_directories(log_path());  // a directory where the log should be
  test::WriteFileBytes(config_path(), test::kEverythingOn);
  InitLogging(log_path().wstring(), kConfigurationFile);
  testing::internal::CaptureStdout();
  LogMessage(kGeneralInfo, L"Service %s\n", L"\u0394started");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Service \xce\x94started\n");
}

}  // namespace
}  // namespace zel
