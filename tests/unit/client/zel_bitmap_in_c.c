/* The agent's header as a C compiler sees it. */
#include "client/zel_bitmap.h"

#include <stddef.h>

_Static_assert(sizeof(ZelBitmapHeader) == ZEL_BITMAP_HEADER_SIZE, "the header's size");

int BlockChangedInC(const uint8_t* bits, uint32_t bitmap_size, uint64_t block);

int BlockChangedInC(const uint8_t* bits, uint32_t bitmap_size, uint64_t block) {
  return ZelBlockChanged(bits, bitmap_size, block);
}
