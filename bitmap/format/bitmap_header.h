// The first 512 bytes of a bitmap file. Pure.
//
// Format: docs/file-format.md. All integers little-endian; the bit area follows the header.
#pragma once

#include <cstddef>
#include <cstdint>

#include "files/types.h"

namespace zel {

inline constexpr std::uint32_t kBitmapMagic = 0x624C455A;  // the bytes "ZELb"
inline constexpr std::uint16_t kBitmapHeaderSize = 512;
inline constexpr std::uint16_t kOldBitmapHeaderSize = 520;  // repaired on load
inline constexpr std::uint16_t kBitmapVersion = 22;
inline constexpr std::uint16_t kOldBitmapVersion = 21;  // upgraded on load

// Every field lies at a multiple of its size, so that the layout needs no packing and the fields
// that several threads write can be atomic.
struct BitmapFileHeader {         // offset
  std::uint32_t Magic;            // 0x00
  std::uint16_t HeaderSize;       // 0x04
  std::uint16_t Version;          // 0x06
  VolumeGuid Volume;              // 0x08  of the tracked file
  zel::FileId FileId;             // 0x18  of the tracked file
  FileTime CreationTime;          // 0x20
  FileTime InitialTime;           // 0x28  equal to CreationTime
  FileTime LastUpdateTime;        // 0x30  last load or last change; replaced atomically
  std::uint32_t BlockSize;        // 0x38  bytes of the tracked file per bit
  std::uint8_t ClosedCleanly;     // 0x3C  0 while loaded, and after a crash while loaded
  std::uint8_t reserved_3d;       // 0x3D
  std::uint8_t SizeChanged;       // 0x3E
  std::uint8_t Unreliable;        // 0x3F  never cleared
  std::uint32_t BitmapSize;       // 0x40  bytes after the header
  std::uint32_t reserved_44;      // 0x44
  std::uint64_t FileSize;         // 0x48  bytes of the tracked file at creation
  zel::BitmapId BitmapId;         // 0x50  file index of the bitmap file
  FileTime NameCreationTime;      // 0x58  as encoded in the file's name
  std::uint8_t reserved_60[416];  // 0x60
};

static_assert(sizeof(BitmapFileHeader) == kBitmapHeaderSize);
static_assert(offsetof(BitmapFileHeader, Magic) == 0x00);
static_assert(offsetof(BitmapFileHeader, HeaderSize) == 0x04);
static_assert(offsetof(BitmapFileHeader, Version) == 0x06);
static_assert(offsetof(BitmapFileHeader, Volume) == 0x08);
static_assert(offsetof(BitmapFileHeader, FileId) == 0x18);
static_assert(offsetof(BitmapFileHeader, CreationTime) == 0x20);
static_assert(offsetof(BitmapFileHeader, InitialTime) == 0x28);
static_assert(offsetof(BitmapFileHeader, LastUpdateTime) == 0x30);
static_assert(offsetof(BitmapFileHeader, BlockSize) == 0x38);
static_assert(offsetof(BitmapFileHeader, ClosedCleanly) == 0x3C);
static_assert(offsetof(BitmapFileHeader, SizeChanged) == 0x3E);
static_assert(offsetof(BitmapFileHeader, Unreliable) == 0x3F);
static_assert(offsetof(BitmapFileHeader, BitmapSize) == 0x40);
static_assert(offsetof(BitmapFileHeader, FileSize) == 0x48);
static_assert(offsetof(BitmapFileHeader, BitmapId) == 0x50);
static_assert(offsetof(BitmapFileHeader, NameCreationTime) == 0x58);

}  // namespace zel
