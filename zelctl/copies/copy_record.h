// What is known of a copy: of which file, as of when, whole or half way. Pure.
//
// Format: docs/file-format.md.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zelctl/block_files.h"

namespace zel::ctl {

// A run that has begun to change the copy, and with which bitmap.
struct HalfWay {
  BitmapId bitmap = 0;
  FileTime begun = 0;        // when the bitmap was begun
  FileTime taken = 0;        // when the run got it: it knows of no write after that
  std::uint64_t digest = 0;  // of its bytes
  std::uint64_t size = 0;    // that the run gives the copy
  FileTime from = 0;         // when it may have written the copy, by this machine's clock
  FileTime until = 0;

  bool operator==(const HalfWay&) const = default;
};

// A bitmap, told by when it was begun from a later one that got its id.
struct BegunBitmap {
  BitmapId id = 0;
  FileTime begun = 0;

  bool operator==(const BegunBitmap&) const = default;
};
using OwnBitmap = BegunBitmap;  // one that was begun for one copy alone

// A run that was about to have a bitmap begun. It is forgotten when the bitmap is written down, so
// one that is found was broken off, and may have left a bitmap that the file had not before.
struct Beginning {
  FileTime at = 0;  // by this machine's clock
  std::vector<BegunBitmap> before = {};

  bool operator==(const Beginning&) const = default;
};

// Times are the service's where nothing else is said. A record of a copy that does not exist yet
// has own bitmaps alone.
struct CopyRecord {
  FileIdentity of = {};     // the tracked file
  FileIdentity copy = {};   // the copy itself
  FileTime as_of = 0;       // every write up to here is in the copy
  FileTime read_until = 0;  // nothing that was written after this is in it, when it is whole
  std::uint64_t size = 0;   // of the copy when it was last whole, or as the run that left it half
                            // way found it; with the next member its stamp
  FileTime written = 0;     // when the file system says that it was last written
  std::optional<HalfWay> half_way = {};
  std::vector<OwnBitmap> bitmaps = {};  // oldest first
  std::optional<Beginning> beginning = {};

  bool operator==(const CopyRecord&) const = default;
};

[[nodiscard]] std::string FormatRecord(const CopyRecord& record);
// None for what FormatRecord does not write.
[[nodiscard]] std::optional<CopyRecord> ParseRecord(std::string_view text);

}  // namespace zel::ctl
