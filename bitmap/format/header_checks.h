// What loading a bitmap does to its header, and for which headers it refuses. Pure.
//
// A load calls MarkInUse, then NextHeaderStep until that accepts or refuses, taking each step that
// it names. Each edit is to be flushed before the next step.
#pragma once

#include <cstdint>

#include "bitmap/format/bitmap_header.h"

namespace zel {

enum class InUseMark {
  kWasClean,         // trusted until now
  kNewlyUnreliable,  // trusted until now, and never again
  kStillUnreliable,
};

// Marks a bitmap in use, before anything else is looked at. One that was not closed cleanly becomes
// unreliable and keeps its LastUpdateTime.
InUseMark MarkInUse(BitmapFileHeader& header, FileTime now);

enum class HeaderStep {
  kAccept,
  kUpgradeVersion,    // UpgradeVersion, and ask again
  kRepairHeaderSize,  // RepairHeaderSize, and ask again
  kRefuseBlockSize,   // not the one in the name, or no name to compare it with
  kRefuseMagic,
  kRefuseVersion,
  kRefuseHeaderSize,
};

// `name_block_size`: from the file's name; 0 when the name is malformed.
[[nodiscard]] HeaderStep NextHeaderStep(const BitmapFileHeader& header,
                                        std::uint32_t name_block_size);

// Fills in what a header of version 21 does not have.
void UpgradeVersion(BitmapFileHeader& header, BitmapId bitmap_id, FileTime name_creation_time);

// Some writers of old put the length of their 520-byte record here; the bits follow 512 bytes.
void RepairHeaderSize(BitmapFileHeader& header);

}  // namespace zel
