// Pins: while one exists its bitmap is neither unloaded by a scan nor deleted, and it stays mapped
// whatever happens to its record.
//
// Threads: made under bitmapCacheLock by the manager; used and released without it, by one thread
// at a time.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "bitmap/bitmap_data.h"

namespace zel {

// One pin, or none.
class [[nodiscard]] PinnedBitmap {
 public:
  PinnedBitmap() noexcept = default;
  // Pins `data`. The caller holds bitmapCacheLock, shared or not.
  explicit PinnedBitmap(std::shared_ptr<BitmapData> data) noexcept : data_(std::move(data)) {
    data_->InUseCount.fetch_add(1, std::memory_order_relaxed);
  }
  PinnedBitmap(PinnedBitmap&&) noexcept = default;
  PinnedBitmap& operator=(PinnedBitmap&& other) noexcept {
    std::swap(data_, other.data_);
    return *this;
  }
  // Release: whoever then finds the bitmap unpinned sees everything that was done to it.
  ~PinnedBitmap() {
    if (data_) data_->InUseCount.fetch_sub(1, std::memory_order_release);
  }

  explicit operator bool() const noexcept { return data_ != nullptr; }
  BitmapData& operator*() const noexcept { return *data_; }
  BitmapData* operator->() const noexcept { return data_.get(); }

  // Shares the ownership without the pin.
  [[nodiscard]] const std::shared_ptr<BitmapData>& data() const noexcept { return data_; }

 private:
  std::shared_ptr<BitmapData> data_;
};

// The pins of one file's bitmaps, in order. Up to four take no heap.
class [[nodiscard]] PinnedBitmaps {
 public:
  PinnedBitmaps() noexcept = default;
  PinnedBitmaps(PinnedBitmaps&& other) noexcept
      : few_(std::move(other.few_)),
        many_(std::move(other.many_)),
        size_(std::exchange(other.size_, 0)) {}
  PinnedBitmaps& operator=(PinnedBitmaps&&) = delete;

  void Add(PinnedBitmap bitmap) {
    if (size_ == few_.size()) std::ranges::move(few_, std::back_inserter(many_));
    if (size_ < few_.size()) {
      few_[size_] = std::move(bitmap);
    } else {
      many_.push_back(std::move(bitmap));
    }
    ++size_;
  }

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
  [[nodiscard]] const PinnedBitmap* begin() const noexcept {
    return size_ <= few_.size() ? few_.data() : many_.data();
  }
  [[nodiscard]] const PinnedBitmap* end() const noexcept { return begin() + size_; }
  const PinnedBitmap& operator[](std::size_t index) const noexcept { return begin()[index]; }

 private:
  std::array<PinnedBitmap, 4> few_;
  std::vector<PinnedBitmap> many_;  // all of them, once there are more than four
  std::size_t size_ = 0;
};

}  // namespace zel
