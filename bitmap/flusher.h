// The threads that take bitmaps to the device, side by side: what waits for a disk waits here.
//
// Marks are handed over and flushed when their turn comes; unloading many bitmaps at once is a
// batch that is waited for. Without threads, before StartFlusher and after StopFlusher, whoever
// hands something over does it.
//
// Threads: any, without bitmapCacheLock and without a FlushLock.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "bitmap/bitmap_data.h"
#include "win32/thread_pool.h"

namespace zel {

void StartFlusher();

// Flushes what has been handed over and ends the threads. Any number of times, also at once.
void StopFlusher();

// Hands a new mark over. A mark that follows while it waits is flushed with it.
void OweMark(const std::shared_ptr<BitmapData>& data);

// The marks that were handed over until it was made.
class MarksOwed {
 public:
  MarksOwed();

  // Whether they are on the device, or their failures logged. Does not wait.
  [[nodiscard]] bool AreFlushed() const;

 private:
  ThreadPool::Mark handed_over_;
};

// How many of the threads a batch may have: half leaves the others to the marks.
enum class BatchShare { kHalf, kAll };

// Calls job(0) to job(count - 1), each once, side by side, and returns when all have ended. Without
// threads in order.
void RunSideBySide(std::size_t count, BatchShare share,
                   const std::function<void(std::size_t)>& job);

}  // namespace zel
