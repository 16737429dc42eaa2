#include "driver/missing_bitmaps.h"

#include <set>

#include "bitmap/bitmap_manager.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "tracking/tracked_file_table.h"
#include "win32/mutex.h"

namespace zel {

namespace {

struct MissingBitmaps {
  Mutex lock;
  std::multiset<FileKey> in_the_making ZEL_GUARDED_BY(lock);
  std::set<FileKey> reported ZEL_GUARDED_BY(lock);
};

// Never destroyed: threads may still use it while the process ends.
MissingBitmaps& Missing() {
  static MissingBitmaps& missing = *new MissingBitmaps;
  return missing;
}

bool IsReported(const FileKey& file) {
  MissingBitmaps& missing = Missing();
  const LockGuard guard(missing.lock);
  return missing.reported.contains(file);
}

bool IsInTheMaking(const FileKey& file) {
  MissingBitmaps& missing = Missing();
  const LockGuard guard(missing.lock);
  return missing.in_the_making.contains(file);
}

// False for a file that is in the list already.
bool Report(const FileKey& file) {
  MissingBitmaps& missing = Missing();
  const LockGuard guard(missing.lock);
  return missing.reported.insert(file).second;
}

}  // namespace

void WarnOfMissingBitmap(const FileKey& file) {
  // Bitmaps are known that cannot be used: no lock of the tracked files for each of its changes.
  if (IsReported(file) || !BitmapIdsOfFile(file).empty()) return;
  // In this order: a file is in the making before it is tracked, and until it has its bitmap.
  if (!IsTracked(file) || IsInTheMaking(file) || !BitmapIdsOfFile(file).empty()) return;
  if (!Report(file)) return;
  LogMessage(kGeneralWarn,
             L"A change was reported for Volume %s, FileId 0x%016I64x, which is tracked but has no "
             L"bitmap\n",
             GuidToString(file.volume).c_str(), file.file_id);
}

BitmapInTheMaking::BitmapInTheMaking(const FileKey& file) : file_(file) {
  MissingBitmaps& missing = Missing();
  const LockGuard guard(missing.lock);
  missing.in_the_making.insert(file_);
}

BitmapInTheMaking::~BitmapInTheMaking() {
  MissingBitmaps& missing = Missing();
  const LockGuard guard(missing.lock);
  missing.in_the_making.erase(missing.in_the_making.find(file_));
}

}  // namespace zel
