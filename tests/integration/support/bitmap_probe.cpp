// The other process of the bitmap tests: works on the bitmap file that it is told.
//
//   bitmap_probe unload PATH         loads the bitmap, marks it, sets a bit, unloads it; each step
//                                    begins with a line on standard output
//   bitmap_probe hold PATH EVENT     loads it, sets every third bit and every bit of [1000, 3000),
//                                    sets the named event and waits to be terminated
#include <windows.h>

#include <cstdio>
#include <string_view>

#include "bitmap/zel_set_bits.h"
#include "tests/integration/support/bitmap_file.h"
#include "tests/integration/support/wait_to_be_killed.h"

namespace zel::test {
namespace {

constexpr std::uint64_t kGrown = std::uint64_t{1} << 40;  // a file's size behind every bitmap

void Say(const char* step) {
  std::puts(step);
  std::fflush(stdout);
}

int RunUnload(BitmapRecord& record) {
  Say("load");
  if (!Load(record)) return 1;
  ChangeBitmap& changes = *record.Data->Changes;
  Say("mark");
  Note(record.Data, changes.RecordSize(kGrown, kCreated));
  Say("mark again");
  Note(record.Data, changes.RecordSize(kGrown + 1, kCreated));
  Say("set");
  Note(record.Data, changes.RecordWrite(kBlockSize, 1, kCreated).owed);
  Say("unload");
  Unload(record);
  Say("end");
  return 0;
}

int RunHold(BitmapRecord& record, const wchar_t* event_name) {
  if (!Load(record)) return 1;
  const RtlBitmap* const bitmap = &record.Data->BitmapHeader;
  for (std::uint32_t bit = 0; bit < bitmap->SizeOfBitMap; bit += 3) ZelSetBits(bitmap, bit, 1);
  ZelSetBits(bitmap, 1000, 2000);
  return WaitToBeKilled(event_name);
}

}  // namespace
}  // namespace zel::test

int wmain(int count, wchar_t** arguments) {
  if (count < 3) return 2;
  const std::wstring_view task = arguments[1];
  zel::BitmapRecord record;
  zel::test::DescribeRecord(record, arguments[2]);
  if (task == L"unload" && count == 3) return zel::test::RunUnload(record);
  if (task == L"hold" && count == 4) return zel::test::RunHold(record, arguments[3]);
  return 2;
}
