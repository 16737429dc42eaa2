#include "tests/portable/support/memory_bitmap_files.h"

#include <atomic>
#include <cstring>

#include "bitmap/bitmap_cache.h"
#include "bitmap/format/new_bitmap.h"
#include "files/layout.h"

namespace zel::test {

namespace {

constexpr std::uint32_t kFileNotFound = 2;
constexpr std::uint32_t kSharingViolation = 32;
constexpr std::uint32_t kWriteFault = 29;

// As one that is half way through a flush sees it: byte by byte, while others set bits.
void Copy(std::vector<std::uint64_t>& from, std::vector<std::uint64_t>& to) {
  for (std::size_t i = 0; i < from.size(); ++i) {
    to[i] = std::atomic_ref(from[i]).load(std::memory_order_relaxed);
  }
}

}  // namespace

struct MemoryBitmapFiles::Stored {
  std::uint32_t size = 0;
  std::vector<std::uint64_t> cache;
  std::vector<std::uint64_t> device;
  std::mutex device_mutex;
  FileId file = 0;
  BitmapId id = 0;
  bool is_open = false;  // these under the files' mutex
  bool is_held = false;
  bool is_held_sharing = false;
  bool has_mark = false;

  BitmapContents Contents(std::vector<std::uint64_t>& words) {
    std::vector<std::uint64_t> copy(words.size());
    Copy(words, copy);
    BitmapContents contents;
    std::memcpy(&contents.header, copy.data(), sizeof contents.header);
    const std::uint64_t* const bits = copy.data() + sizeof(BitmapFileHeader) / 8;
    for (std::uint32_t bit = 0; bit < contents.header.BitmapSize * 8; ++bit) {
      contents.bits.push_back((bits[bit / 64] >> bit % 64 & 1) != 0);
    }
    return contents;
  }
};

class MemoryBitmapFiles::Opened : public BitmapFile {
 public:
  Opened(MemoryBitmapFiles& files, std::wstring path, std::shared_ptr<Stored> stored)
      : files_(files), path_(std::move(path)), stored_(std::move(stored)) {
    header_ = reinterpret_cast<BitmapFileHeader*>(stored_->cache.data());
    size_ = stored_->size;
  }
  ~Opened() override {
    files_.Call(FileOperation::kClose, path_);
    const std::lock_guard guard(files_.mutex_);
    stored_->is_open = false;
  }

  std::uint32_t FlushBitmapHeader() override {
    files_.Call(FileOperation::kFlushHeader, path_);
    return 0;
  }
  std::uint32_t FlushView() override {
    files_.Call(FileOperation::kFlushView, path_);
    if (files_.flushes_fail_) return kWriteFault;
    if (files_.views_reach_device_) CopyToDevice();
    return 0;
  }
  std::uint32_t FlushToDevice() override {
    files_.Call(FileOperation::kFlushToDevice, path_);
    CopyToDevice();
    return 0;
  }

 private:
  void CopyToDevice() {
    const std::lock_guard guard(stored_->device_mutex);
    Copy(stored_->cache, stored_->device);
  }

  MemoryBitmapFiles& files_;
  const std::wstring path_;
  const std::shared_ptr<Stored> stored_;
};

std::wstring MemoryBitmapFiles::Create(FileId file, BitmapId id, std::uint32_t bits) {
  const NewBitmap bitmap = {.volume_guid = kVolume,
                            .file_id = file,
                            .creation_time = id,
                            .bitmap_size = bits / 8,
                            .block_size = kBlockSize,
                            .file_size = std::uint64_t{bits} * kBlockSize};
  const std::wstring path =
      L"M:\\" + std::to_wstring(file) + L"\\" + FormatBitmapName(id, kBlockSize);
  const auto stored = std::make_shared<Stored>();
  stored->file = file;
  stored->id = id;
  stored->size = NewBitmapLength(bitmap.bitmap_size);
  stored->cache.resize(stored->size / 8 + 1);
  const BitmapFileHeader header = ComposeNewBitmapBytes(bitmap, id).header;
  std::memcpy(stored->cache.data(), &header, sizeof header);
  stored->device = stored->cache;
  {
    const std::lock_guard guard(mutex_);
    files_[path] = stored;
  }
  AddBitmap(kVolume, file, id, path, stored->size);
  return path;
}

std::shared_ptr<MemoryBitmapFiles::Stored> MemoryBitmapFiles::Find(const std::wstring& path) {
  const std::lock_guard guard(mutex_);
  const auto found = files_.find(path);
  return found == files_.end() ? nullptr : found->second;
}

bool MemoryBitmapFiles::Exists(const std::wstring& path) {
  return Find(path) != nullptr;
}

bool MemoryBitmapFiles::IsOpen(const std::wstring& path) {
  const std::lock_guard guard(mutex_);
  return files_.contains(path) && files_[path]->is_open;
}

BitmapContents MemoryBitmapFiles::InCache(const std::wstring& path) {
  const auto stored = Find(path);
  return stored->Contents(stored->cache);
}

BitmapContents MemoryBitmapFiles::OnDevice(const std::wstring& path) {
  const auto stored = Find(path);
  const std::lock_guard guard(stored->device_mutex);
  return stored->Contents(stored->device);
}

void MemoryBitmapFiles::LeaveInUse(const std::wstring& path) {
  reinterpret_cast<BitmapFileHeader*>(Find(path)->cache.data())->ClosedCleanly = 0;
}

void MemoryBitmapFiles::Hold(const std::wstring& path, bool held) {
  const std::lock_guard guard(mutex_);
  files_.at(path)->is_held = held;
}

void MemoryBitmapFiles::HoldSharing(const std::wstring& path, bool held) {
  const std::lock_guard guard(mutex_);
  files_.at(path)->is_held_sharing = held;
}

bool MemoryBitmapFiles::HasMark(const std::wstring& path) {
  const std::lock_guard guard(mutex_);
  return files_.at(path)->has_mark;
}

void MemoryBitmapFiles::FailView(const std::wstring& path, int touches) {
  touches_until_fault_ = touches;
  failing_view_ = Find(path)->cache.data();
}

std::uint32_t MemoryBitmapFiles::Touch(const void* view) {
  if (view != failing_view_) return 0;
  return touches_until_fault_-- > 0 ? 0 : kViewFault;
}

void MemoryBitmapFiles::StartAnew(End end) {
  std::vector<std::shared_ptr<BitmapRecord>> records;
  {
    const LockGuard guard(bitmapCacheLock);
    for (const auto& [file, of_file] : KnownBitmaps().entries()) {
      records.insert(records.end(), of_file.begin(), of_file.end());
    }
    for (const auto& record : records) KnownBitmaps().Erase(record);
  }
  records.clear();  // closes what is open
  std::map<std::wstring, std::shared_ptr<Stored>> files;
  {
    const std::lock_guard guard(mutex_);
    files = files_;
  }
  for (const auto& [path, stored] : files) {
    if (end == End::kPowerCut) Copy(stored->device, stored->cache);
    AddBitmap(kVolume, stored->file, stored->id, path, stored->size);
  }
}

std::unique_ptr<BitmapFile> MemoryBitmapFiles::Open(const std::wstring& path, OpenError& error) {
  Call(FileOperation::kOpen, path);
  const std::lock_guard guard(mutex_);
  const auto found = files_.find(path);
  if (found == files_.end() || found->second->is_open || found->second->is_held ||
      found->second->is_held_sharing) {
    error = {OpenStep::kOpen, found == files_.end() ? kFileNotFound : kSharingViolation};
    return nullptr;
  }
  found->second->is_open = true;
  return std::make_unique<Opened>(*this, path, found->second);
}

std::uint32_t MemoryBitmapFiles::Delete(const std::wstring& path) {
  Call(FileOperation::kDelete, path);
  const std::lock_guard guard(mutex_);
  const auto found = files_.find(path);
  if (found == files_.end()) return kFileNotFound;
  const Stored& stored = *found->second;
  if (stored.is_open || stored.is_held || stored.is_held_sharing) return kSharingViolation;
  files_.erase(found);
  return 0;
}

std::uint32_t MemoryBitmapFiles::Distrust(const std::wstring& path) {
  Call(FileOperation::kDistrust, path);
  const auto stored = Find(path);
  if (stored == nullptr) return kFileNotFound;
  {
    const std::lock_guard guard(mutex_);
    if (stored->is_held || stored->is_open) return kSharingViolation;
  }
  reinterpret_cast<BitmapFileHeader*>(stored->cache.data())->Unreliable = 1;
  const std::lock_guard guard(stored->device_mutex);
  Copy(stored->cache, stored->device);
  return 0;
}

std::uint32_t MemoryBitmapFiles::LeaveMissedMark(const std::wstring& path) {
  Call(FileOperation::kLeaveMark, path);
  if (marks_fail_) return kWriteFault;
  const std::lock_guard guard(mutex_);
  files_.at(path)->has_mark = true;
  return 0;
}

std::uint32_t MemoryBitmapFiles::RemoveMissedMark(const std::wstring& path) {
  Call(FileOperation::kRemoveMark, path);
  const std::lock_guard guard(mutex_);
  if (const auto found = files_.find(path); found != files_.end()) found->second->has_mark = false;
  return 0;
}

bool MemoryBitmapFiles::HasMissedMark(const std::wstring& path) {
  Call(FileOperation::kLookForMark, path);
  const std::lock_guard guard(mutex_);
  const auto found = files_.find(path);
  return found != files_.end() && found->second->has_mark;
}

MemoryBitmapFiles& Files() {
  static MemoryBitmapFiles files;
  return files;
}

void Gate::Pass() {
  std::unique_lock lock(mutex_);
  ++waiting_;
  changed_.notify_all();
  changed_.wait(lock, [&] { return open_; });
  --waiting_;
}

void Gate::WaitForThreads(int threads) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return waiting_ >= threads; });
}

void Gate::Open() {
  const std::lock_guard guard(mutex_);
  open_ = true;
  changed_.notify_all();
}

}  // namespace zel::test
