#include "win32/unique_resource.h"

#include <gtest/gtest.h>

#include "tests/integration/support/handle_count.h"
#include "win32/handles.h"

namespace zel {
namespace {

// Whether `handle` is open, asked without touching what it names.
bool IsOpen(HANDLE handle) {
  DWORD flags = 0;
  return ::GetHandleInformation(handle, &flags) != 0;
}

HANDLE NewEvent() {
  return ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

TEST(UniqueResourceTest, ClosesWhatItOwnsWhenItGoes) {
  HANDLE event = nullptr;
  {
    UniqueEvent owner(NewEvent());
    event = owner.get();
    EXPECT_TRUE(owner);
    EXPECT_TRUE(IsOpen(event));
  }
  EXPECT_FALSE(IsOpen(event));
}

TEST(UniqueResourceTest, HandlesAreCounted) {
  const std::size_t before = test::HandleCount();
  {
    const UniqueEvent first(NewEvent());
    const UniqueEvent second(NewEvent());
    EXPECT_EQ(test::HandleCount(), before + 2);
  }
  EXPECT_EQ(test::HandleCount(), before);
}

TEST(UniqueResourceTest, MovingPassesTheOwnershipOnAndClosesTheTargetsOwn) {
  UniqueEvent first(NewEvent());
  UniqueEvent second(NewEvent());
  const HANDLE moved = first.get();
  const HANDLE replaced = second.get();
  second = std::move(first);
  EXPECT_EQ(second.get(), moved);
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): the moved-from state is the subject
  EXPECT_TRUE(IsOpen(moved));
  EXPECT_FALSE(IsOpen(replaced));
}

TEST(UniqueResourceTest, ReleaseGivesTheHandleUpOpen) {
  UniqueEvent owner(NewEvent());
  const HANDLE event = owner.release();
  EXPECT_FALSE(owner);
  EXPECT_TRUE(IsOpen(event));
  ::CloseHandle(event);
}

TEST(UniqueResourceTest, ResetKeepsTheLastError) {
  UniqueRegistryKey key;
  ASSERT_EQ(::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software", 0, KEY_READ, key.put()), 0);
  UniqueFind find(INVALID_HANDLE_VALUE);
  UniqueEvent event(NewEvent());
  ::SetLastError(1234);
  key.reset();
  find.reset();
  event.reset();
  EXPECT_EQ(::GetLastError(), 1234u);
}

TEST(UniqueResourceTest, BothEmptyFileHandleValuesAreEmpty) {
  EXPECT_FALSE(UniqueFile(nullptr));
  EXPECT_FALSE(UniqueFile(INVALID_HANDLE_VALUE));
  EXPECT_FALSE(UniqueFile());
}

}  // namespace
}  // namespace zel
