#include "bitmap/unread_directories.h"

#include <algorithm>
#include <utility>

#include "bitmap/bitmap_sweep.h"
#include "logging/log_message.h"
#include "win32/mutex.h"

namespace zel {

namespace {

// A disk that has gone makes each attempt wait, and log a line.
constexpr int kReadAtOneCall = 8;
constexpr int kMostCallsBetween = 64;

struct Unread {
  BitmapDirectory directory;
  int calls_between = 1;  // two attempts
  int calls_left = 1;     // until the next
};

Mutex unreadLock;
std::vector<Unread> unreadDirectories ZEL_GUARDED_BY(unreadLock);

// Takes out those whose turn it is.
std::vector<Unread> TakeDue() {
  const LockGuard guard(unreadLock);
  std::vector<Unread> due;
  std::erase_if(unreadDirectories, [&](Unread& unread) {
    unread.calls_left = std::max(unread.calls_left - 1, 0);
    if (unread.calls_left > 0 || due.size() == kReadAtOneCall) return false;
    due.push_back(unread);
    return true;
  });
  return due;
}

void PutBack(BitmapDirectory directory, int calls_between) {
  const LockGuard guard(unreadLock);
  unreadDirectories.push_back({std::move(directory), calls_between, calls_between});
}

}  // namespace

void SetUnreadDirectories(std::vector<BitmapDirectory> directories) {
  const LockGuard guard(unreadLock);
  unreadDirectories.clear();
  for (BitmapDirectory& directory : directories)
    unreadDirectories.push_back({std::move(directory)});
}

void ReadUnreadDirectories(FoundBitmap* found) {
  for (const Unread& unread : TakeDue()) {
    const int calls_between = std::min(unread.calls_between * 2, kMostCallsBetween);
    for (BitmapDirectory& still : FindBitmapFiles(unread.directory, found, ScansAreHurried)) {
      PutBack(std::move(still), calls_between);
    }
  }
}

void LogUnreadDirectories() {
  const LockGuard guard(unreadLock);
  for (const Unread& unread : unreadDirectories) {
    LogMessage(kBitmapError,
               L"Directory %s was never read: bitmaps in it may have missed changes\n",
               unread.directory.path.c_str());
  }
}

}  // namespace zel
