/* The bitmap file, for an agent in C: what CopyBitmap (rpc/zel.idl) hands over.
 *
 * A header of 512 bytes, then the bits: one for each block of BlockSize bytes of the tracked file,
 * bit i in byte i / 8 with the value 1 << (i % 8); set when the block has changed. All integers are
 * little-endian, as on every machine that the service runs on. docs/file-format.md says which files
 * are valid, docs/operations.md ("Backing up with the service") what to do with each.
 *
 * C11 or C++11, no Windows header.
 */
#ifndef ZEL_BITMAP_H
#define ZEL_BITMAP_H

#include <stdint.h>

enum {
  ZEL_BITMAP_MAGIC = 0x624C455A, /* the bytes "ZELb" */
  ZEL_BITMAP_HEADER_SIZE = 512,
  ZEL_BITMAP_VERSION = 22
};

typedef struct ZelBitmapHeader { /* offset */
  uint32_t Magic;                /* 0x00  ZEL_BITMAP_MAGIC */
  uint16_t HeaderSize;           /* 0x04  ZEL_BITMAP_HEADER_SIZE */
  uint16_t Version;              /* 0x06  ZEL_BITMAP_VERSION */
  uint8_t VolumeGuid[16];        /* 0x08  of the tracked file; as a GUID lies in memory */
  uint64_t FileId;               /* 0x18  of the tracked file: its file index */
  uint64_t CreationTime;         /* 0x20  FILETIME, as all times here */
  uint64_t InitialTime;          /* 0x28  equal to CreationTime */
  uint64_t LastUpdateTime;       /* 0x30  last load or last change */
  uint32_t BlockSize;            /* 0x38  bytes of the tracked file per bit; not 0 */
  uint8_t ClosedCleanly;         /* 0x3C  0 in a bitmap that is in use, as CopyBitmap may find it */
  uint8_t Reserved3D;            /* 0x3D */
  uint8_t SizeChanged;           /* 0x3E  1: ask the tracked file itself for its size */
  uint8_t Unreliable;            /* 0x3F  1: changes may be missing, copy the whole file */
  uint32_t BitmapSize;           /* 0x40  bytes after the header */
  uint32_t Reserved44;           /* 0x44 */
  uint64_t FileSize;             /* 0x48  bytes of the tracked file when the bitmap was made */
  uint64_t BitmapId;             /* 0x50 */
  uint64_t NameCreationTime;     /* 0x58  as encoded in the bitmap file's name */
  uint8_t Reserved60[416];       /* 0x60 */
} ZelBitmapHeader;

/* Whether block `block` has changed. `bits` are the BitmapSize bytes after the header; what lies
 * behind them was not counted and has changed. */
static inline int ZelBlockChanged(const uint8_t* bits, uint32_t bitmap_size, uint64_t block) {
  return block / 8 >= bitmap_size || (bits[block / 8] >> (block % 8) & 1) != 0;
}

#endif
