#include "win32/view_fault.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "tests/integration/support/child_process.h"
#include "tests/integration/support/failing_view.h"
#include "tests/integration/support/poll.h"
#include "tests/integration/support/temp_directory.h"
#include "win32/handles.h"

namespace zel {
namespace {

constexpr std::size_t kPage = 4096;

class CatchViewFaultTest : public ::testing::Test {
 protected:
  CatchViewFaultTest() {
    test::WriteFileBytes(path_, std::string(3 * kPage, 'x'));
    file_.reset(::CreateFileW(path_.c_str(), GENERIC_READ | GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                              nullptr));
    mapping_.reset(::CreateFileMappingW(file_.get(), nullptr, PAGE_READWRITE, 0, 0, nullptr));
    view_.reset(static_cast<char*>(::MapViewOfFile(mapping_.get(), FILE_MAP_WRITE, 0, 0, 0)));
    EXPECT_TRUE(view_);
  }

  template <class Work>
  std::uint32_t Catch(Work work) const {
    return CatchViewFault(view_.get(), 3 * kPage, work);
  }

  const test::TempDirectory directory_;
  const std::filesystem::path path_ = directory_.path() / "view";
  UniqueFile file_;
  UniqueMapping mapping_;
  UniqueView<char> view_;
};

TEST_F(CatchViewFaultTest, WorkWithoutFaultIsDoneAndAnswers0) {
  EXPECT_EQ(Catch([&] { view_.get()[1] = 'y'; }), 0u);
  EXPECT_EQ(view_.get()[1], 'y');
}

TEST_F(CatchViewFaultTest, ReadAndWriteThatFailAnswerTheirFault) {
  volatile char* const byte = view_.get() + kPage;
  const test::FailingView failing(view_.get() + kPage, kPage);
  EXPECT_EQ(Catch([&] { (void)*byte; }), static_cast<std::uint32_t>(STATUS_ACCESS_VIOLATION));
  EXPECT_EQ(Catch([&] { *byte = 1; }), static_cast<std::uint32_t>(STATUS_ACCESS_VIOLATION));
  EXPECT_EQ(Catch([&] { std::atomic_ref(view_.get()[kPage + 8]).fetch_or(1); }),
            static_cast<std::uint32_t>(STATUS_ACCESS_VIOLATION));
}

// As the system tells of a page that its device cannot read.
TEST_F(CatchViewFaultTest, PageThatCannotBeReadAnswersWhyNot) {
  const auto raise = [&](ULONG_PTR status) {
    const ULONG_PTR information[] = {0, reinterpret_cast<ULONG_PTR>(view_.get()), status};
    return Catch([&] { ::RaiseException(STATUS_IN_PAGE_ERROR, 0, 3, information); });
  };
  constexpr std::uint32_t kDeviceDataError = 0xC000009C;
  EXPECT_EQ(raise(kDeviceDataError), kDeviceDataError);
  EXPECT_EQ(raise(0), static_cast<std::uint32_t>(STATUS_IN_PAGE_ERROR));
}

// What the caller keeps in registers, and its locks, survive the unwinding.
TEST_F(CatchViewFaultTest, CallersStateIsKept) {
  const test::FailingView failing(view_.get(), kPage);
  std::mutex mutex;
  std::uint64_t sum = 0;
  for (std::uint64_t i = 1; i <= 1000; ++i) {
    const std::lock_guard guard(mutex);
    const std::uint64_t kept = i * i;
    EXPECT_NE(Catch([&] { *static_cast<volatile char*>(view_.get()) = 1; }), 0u);
    sum += kept;
  }
  EXPECT_EQ(sum, 333'833'500u);
  EXPECT_TRUE(mutex.try_lock());
  mutex.unlock();
}

using CatchViewFaultDeathTest = CatchViewFaultTest;

TEST_F(CatchViewFaultDeathTest, FaultElsewherePassesThrough) {
  volatile int* const nowhere = nullptr;
  EXPECT_EXIT((void)Catch([&] { *nowhere = 1; }),
              ::testing::ExitedWithCode(static_cast<int>(STATUS_ACCESS_VIOLATION)), "");
}

TEST_F(CatchViewFaultDeathTest, FaultRightBehindTheViewPassesThrough) {
  const test::FailingView failing(view_.get() + kPage, kPage);
  volatile char* const behind = view_.get() + kPage;
  EXPECT_EXIT((void)CatchViewFault(view_.get(), kPage, [&] { *behind = 1; }),
              ::testing::ExitedWithCode(static_cast<int>(STATUS_ACCESS_VIOLATION)), "");
}

// The file below a path of the host's that Wine knows; empty on Windows, where nobody can cut a
// file that is mapped.
std::string HostPath(const std::filesystem::path& path) {
  using Translate = char*(CDECL*)(const wchar_t*);
  const auto translate = reinterpret_cast<Translate>(reinterpret_cast<void*>(
      ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
  if (translate == nullptr) return {};
  char* const name = translate(path.c_str());
  const std::string copy = name != nullptr ? name : "";
  ::HeapFree(::GetProcessHeap(), 0, name);
  return copy;
}

TEST_F(CatchViewFaultTest, FileThatIsCutOffBelowItsMappingFails) {
  const std::string host_path = HostPath(path_);
  if (host_path.empty()) GTEST_SKIP() << "a mapped file cannot be cut here";
  const std::wstring command =
      LR"(Z:\usr\bin\truncate -s 4096 )" + std::wstring(host_path.begin(), host_path.end());
  const test::ChildProcess truncate(command);
  ASSERT_TRUE(test::PollUntil([&] { return std::filesystem::file_size(path_) == kPage; }));
  volatile char* const view = view_.get();
  EXPECT_EQ(Catch([&] { (void)view[kPage - 1]; }), 0u);
  EXPECT_NE(Catch([&] { (void)view[kPage]; }), 0u);
  EXPECT_NE(Catch([&] { view[2 * kPage] = 1; }), 0u);
}

}  // namespace
}  // namespace zel
