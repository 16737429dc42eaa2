// That the integration tests end where a block of the heap or a handle is misused.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <memory>

#include "win32/handles.h"

namespace zel {
namespace {

constexpr int kAccessViolation = static_cast<int>(0xC0000005);
constexpr int kAborted = 3;

// A block whose address the compiler does not see through.
unsigned char* Allocate(std::size_t size) {
  auto* volatile block = static_cast<unsigned char*>(::operator new(size));
  return block;
}

// A free that the compiler does not see either.
void Free(unsigned char* block) {
  void (*volatile free)(void*) = [](void* freed) { ::operator delete(freed); };
  free(block);
}

TEST(GuardedHeap, AccessPastTheEndFaults) {
  unsigned char* const block = Allocate(64);
  EXPECT_EXIT(block[64] = 1, ::testing::ExitedWithCode(kAccessViolation), "");
  EXPECT_EXIT(std::printf("%d", block[64 + 4000]), ::testing::ExitedWithCode(kAccessViolation), "");
  Free(block);
}

TEST(GuardedHeap, AccessToAFreedBlockFaults) {
  const auto use_freed = [] {
    unsigned char* const block = Allocate(64);
    Free(block);
    for (int others = 0; others < 1000; ++others) Free(Allocate(64));
    block[0] = 1;
  };
  EXPECT_EXIT(use_freed(), ::testing::ExitedWithCode(kAccessViolation), "");
}

TEST(GuardedHeap, WritesIntoTheSlackAreFoundWhenTheBlockIsFreed) {
  const auto write_at = [](std::ptrdiff_t index) {
    unsigned char* const block = Allocate(61);
    block[index] = 1;
    Free(block);
  };
  EXPECT_EXIT(write_at(61), ::testing::ExitedWithCode(kAborted),
              "write past the end of a block of 61");
  EXPECT_EXIT(write_at(-1), ::testing::ExitedWithCode(kAborted), "write before a block of 61");
}

TEST(GuardedHeap, ASecondFreeEndsTheProgram) {
  const auto free_twice = [] {
    unsigned char* const block = Allocate(64);
    Free(block);
    Free(block);
  };
  EXPECT_EXIT(free_twice(), ::testing::ExitedWithCode(kAborted), "second free of a block");
}

TEST(StrictCloses, ASecondCloseEndsTheProgram) {
  const auto close_twice = [] {
    const HANDLE event = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const UniqueEvent first(event);
    const UniqueEvent second(event);
  };
  EXPECT_EXIT(close_twice(), ::testing::ExitedWithCode(kAborted), "CloseHandle.* failed: 6");
}

TEST(StrictCloses, ASecondUnmapEndsTheProgram) {
  const auto unmap_twice = [] {
    const UniqueMapping mapping(
        ::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, nullptr));
    void* const view = ::MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0);
    const UniqueView<void> first(view);
    const UniqueView<void> second(view);
  };
  EXPECT_EXIT(unmap_twice(), ::testing::ExitedWithCode(kAborted), "UnmapViewOfFile.* failed: 487");
}

}  // namespace
}  // namespace zel
