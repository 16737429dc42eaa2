// Says once that changes of a tracked file go by because it has no bitmap: it could not be found at
// the start, was removed by hand, or all were deleted.
//
// Threads: any, without a lock.
#pragma once

#include "files/types.h"

namespace zel {

// To be called when a change of the file was recorded in no bitmap. Logs a warning, one for each
// file and life of the service, when the file is tracked and not even an unusable bitmap of it is
// known.
void WarnOfMissingBitmap(const FileKey& file);

// While it lives, nothing is said of the file: it becomes tracked, and gets its first bitmap a
// moment after the driver has been told.
class BitmapInTheMaking {
 public:
  explicit BitmapInTheMaking(const FileKey& file);
  ~BitmapInTheMaking();
  BitmapInTheMaking(const BitmapInTheMaking&) = delete;
  BitmapInTheMaking& operator=(const BitmapInTheMaking&) = delete;

 private:
  const FileKey file_;
};

}  // namespace zel
