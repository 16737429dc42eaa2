#include "bitmap/flusher.h"

namespace zel {

namespace {

// They wait for the device rather than compute.
constexpr std::size_t kFlusherThreads = 32;

// Never destroyed: threads may still use it while the process ends.
ThreadPool& Flusher() {
  static ThreadPool& flusher = *new ThreadPool;
  return flusher;
}

}  // namespace

void StartFlusher() {
  Flusher().Start(kFlusherThreads);
}

void StopFlusher() {
  Flusher().Stop();
}

// The exchange publishes the mark to whoever takes the debt over.
void OweMark(const std::shared_ptr<BitmapData>& data) {
  if (data->OwesMark.exchange(true, std::memory_order_acq_rel)) return;
  Flusher().Post([data] { FlushOwedMark(*data); });
}

MarksOwed::MarksOwed() : handed_over_(Flusher().Posted()) {}

bool MarksOwed::AreFlushed() const {
  return Flusher().HaveEnded(handed_over_);
}

void RunSideBySide(std::size_t count, BatchShare share,
                   const std::function<void(std::size_t)>& job) {
  Flusher().RunAll(count, share == BatchShare::kAll ? kFlusherThreads : kFlusherThreads / 2, job);
}

}  // namespace zel
