// Pins: while one exists its bitmap is neither unloaded nor deleted.
//
// Threads: made under bitmapCacheLock by the manager; used and released without it, by one thread
// at a time.
#pragma once

#include <utility>

#include "bitmap/bitmap_data.h"

namespace zel {

// One pin, or none.
class [[nodiscard]] PinnedBitmap {
 public:
  PinnedBitmap() noexcept = default;
  // Pins `data`. The caller holds bitmapCacheLock.
  explicit PinnedBitmap(BitmapData& data) noexcept : data_(&data) {
    data.InUseCount.fetch_add(1, std::memory_order_acq_rel);
  }
  PinnedBitmap(PinnedBitmap&& other) noexcept : data_(std::exchange(other.data_, nullptr)) {}
  PinnedBitmap& operator=(PinnedBitmap&& other) noexcept {
    std::swap(data_, other.data_);
    return *this;
  }
  ~PinnedBitmap() {
    if (data_ != nullptr) data_->InUseCount.fetch_sub(1, std::memory_order_release);
  }

  explicit operator bool() const noexcept { return data_ != nullptr; }
  BitmapData& operator*() const noexcept { return *data_; }
  BitmapData* operator->() const noexcept { return data_; }

 private:
  BitmapData* data_ = nullptr;
};

}  // namespace zel
