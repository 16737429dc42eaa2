// What the driver reports of a file, recorded in every bitmap of it: the one door from the driver's
// messages to the bitmaps. A file without bitmaps is no error; each returns in how many bitmaps the
// report was recorded.
//
// Threads: any, without a lock. None waits for another file, or for the device: marks that are new
// are handed to the flusher. (The first report for a file that is refused flushes its mark.)
// Cost of a write: the lookup, a time stamp and the bits; no heap, no system call while the bitmaps
// are loaded and the write lies inside of them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bitmap/flusher.h"
#include "files/types.h"

namespace zel {

// A write of `length` bytes at `offset`: sets the bits of its blocks. One that passes a bitmap's
// end marks it SizeChanged.
std::size_t UpdateBitmapsForFile(FileId file_id, const VolumeGuid& volume_guid,
                                 std::uint64_t offset, std::uint32_t length);

// The file's size is now `new_size` bytes: marks every bitmap made for another size SizeChanged,
// and sets the bits from the new end on when the file was larger when the bitmap was made.
std::size_t ApplySizeChange(FileId file_id, const VolumeGuid& volume_guid, std::uint64_t new_size);

// The driver could not report everything: marks the bitmaps Unreliable, and logs those that were
// not.
std::size_t MarkUnreportedChanges(FileId file_id, const VolumeGuid& volume_guid);

// The reports that have been recorded until it is made. What they set is in the file cache; a power
// cut cannot take it from a bitmap that looks clean once their marks are on the device.
class RecordedReports {
 public:
  // Does not wait. A mark that could not be flushed has been logged, and counts.
  [[nodiscard]] bool AreSafe() const { return marks_.AreFlushed(); }

 private:
  MarksOwed marks_;
};

}  // namespace zel
