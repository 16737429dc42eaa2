// Operator new and delete of the integration tests: each block ends at a page that nobody may
// touch, and the pages of a freed one are gone for good, so that a read or write past the end or
// after the end of life faults where it is made. What is written before a block, or into the few
// bytes that its alignment leaves after it, is found when it is freed. The pure modules have
// AddressSanitizer for this; MinGW has none, and Windows has the same in its page heap.
#include <windows.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <span>

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kAlignment = alignof(std::max_align_t);
constexpr unsigned char kFill = 0xFD;

// A guarded block takes some fifty times as long as one of malloc's, and two of the 65,530 mappings
// that Linux gives a process. What a test makes after so many is of the kinds that it made before.
constexpr std::size_t kMostBlocks = 20'000;
constexpr std::size_t kArenaPages = 262'144;

struct Block {
  unsigned char* begin;
  std::size_t size;
  std::span<unsigned char> pages;  // that it lies at the end of
  bool freed;
};

// Constant before any constructor runs. Addresses are given once: the arena is never given back.
constinit SRWLOCK lock = SRWLOCK_INIT;
constinit unsigned char* arena = nullptr;
constinit std::size_t pages_given = 0;
constinit std::size_t blocks_given = 0;
constinit std::array<Block, kMostBlocks> blocks{};
constinit std::array<std::uint16_t, kArenaPages> block_of_page{};

class Locked {
 public:
  Locked() { ::AcquireSRWLockExclusive(&lock); }
  ~Locked() { ::ReleaseSRWLockExclusive(&lock); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;
};

[[noreturn]] void Fail(const char* what, const Block& block) {
  std::fprintf(stderr, "guarded heap: %s a block of %zu bytes\n", what, block.size);
  std::fflush(stderr);
  std::abort();
}

constexpr std::size_t RoundUp(std::size_t bytes, std::size_t unit) {
  return (bytes + unit - 1) / unit * unit;
}

std::span<unsigned char> BytesBefore(const Block& block) {
  return {block.pages.data(), block.begin};
}

std::span<unsigned char> BytesAfter(const Block& block) {
  return {block.begin + block.size, block.pages.data() + block.pages.size()};
}

// The pages of a block, with one that stays out of reach after them; empty: there are no more.
std::span<unsigned char> GivePages(std::size_t bytes) {
  if (arena == nullptr) {
    arena = static_cast<unsigned char*>(
        ::VirtualAlloc(nullptr, kArenaPages * kPage, MEM_RESERVE, PAGE_NOACCESS));
  }
  const std::size_t left = (kArenaPages - pages_given) * kPage;
  if (arena == nullptr || bytes + kPage > left) return {};
  unsigned char* const pages = arena + pages_given * kPage;
  if (::VirtualAlloc(pages, bytes, MEM_COMMIT, PAGE_READWRITE) == nullptr) return {};
  pages_given += bytes / kPage + 1;
  return {pages, bytes};
}

// nullptr: there is no room for one more.
void* AllocateGuarded(std::size_t size) {
  const Locked locked;
  if (blocks_given == kMostBlocks || size > kArenaPages * kPage) return nullptr;
  const std::span<unsigned char> pages = GivePages(RoundUp(size, kPage));
  if (pages.empty()) return nullptr;
  unsigned char* const begin = pages.data() + pages.size() - RoundUp(size, kAlignment);
  Block& block = blocks[blocks_given] = {begin, size, pages, false};
  for (unsigned char& byte : BytesBefore(block)) byte = kFill;
  for (unsigned char& byte : BytesAfter(block)) byte = kFill;
  block_of_page[static_cast<std::size_t>(begin - arena) / kPage] =
      static_cast<std::uint16_t>(blocks_given++);
  return begin;
}

bool Intact(std::span<const unsigned char> bytes) {
  for (const unsigned char byte : bytes) {
    if (byte != kFill) return false;
  }
  return true;
}

// False: the address is not of a guarded block.
bool FreeGuarded(const void* address) {
  const Locked locked;
  const auto* const at = static_cast<const unsigned char*>(address);
  if (arena == nullptr || at < arena || at >= arena + kArenaPages * kPage) return false;
  Block& block = blocks[block_of_page[static_cast<std::size_t>(at - arena) / kPage]];
  if (block.begin != at) Fail("free inside of", block);
  if (block.freed) Fail("second free of", block);
  if (!Intact(BytesBefore(block))) Fail("write before", block);
  if (!Intact(BytesAfter(block))) Fail("write past the end of", block);
  ::VirtualFree(block.pages.data(), block.pages.size(), MEM_DECOMMIT);
  block.freed = true;
  return true;
}

}  // namespace

void* operator new(std::size_t size) {
  if (size == 0) size = 1;  // each block has an address of its own, not the next page's
  void* block = AllocateGuarded(size);
  if (block == nullptr) block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void operator delete(void* block) noexcept {
  if (block != nullptr && !FreeGuarded(block)) std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}
