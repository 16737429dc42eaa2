#include "driver/reader_barrier.h"

#include <utility>

namespace zel {

ReaderBarrier::ReaderBarrier(std::shared_ptr<ReaderStates> readers,
                             const std::function<void(std::size_t reader)>& wake)
    : readers_(std::move(readers)) {
  if (readers_ == nullptr) return;
  for (std::size_t i = 0; i < probes_.size(); ++i) {
    ReaderState& reader = (*readers_)[i];
    const std::uint64_t epoch = reader.epoch_.load(std::memory_order_acquire);
    if (epoch % 2 == 0) continue;
    probes_[i] = {epoch, reader.probe_.fetch_add(1, std::memory_order_acq_rel) + 1};
    wake(i);
  }
}

bool ReaderBarrier::Passed() const {
  for (std::size_t i = 0; i < probes_.size(); ++i) {
    const Probe& probe = probes_[i];
    if (probe.epoch == 0) continue;
    const ReaderState& reader = (*readers_)[i];
    const bool same_read = reader.epoch_.load(std::memory_order_acquire) == probe.epoch;
    if (same_read && reader.acknowledged_.load(std::memory_order_acquire) < probe.number) {
      return false;
    }
  }
  return true;
}

}  // namespace zel
