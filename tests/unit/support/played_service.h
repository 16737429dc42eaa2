// A tracked file with its history and a service that keeps bitmaps of it, both in memory, on the
// machine's clock unless the service's is said to be behind. Reports of writes reach the bitmaps
// late, as far as a synchronization or chance brings them. Each call can be the process's last,
// before or after it has had its effect.
#pragma once

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/support/bitmap_bytes.h"
#include "tests/unit/support/memory_files.h"
#include "zelctl/zel_server.h"

namespace zel::test {

class PlayedService : public ctl::ZelServer {
 public:
  PlayedService(MemoryMachine& machine, std::string path, std::mt19937& random)
      : machine_(machine), path_(std::move(path)), random_(random) {
    Live().id = kFile;
    Remember();
  }

  MemoryFile& Live() { return machine_.At(path_); }

  void Write(std::uint64_t offset, std::uint64_t length) {
    Bytes& bytes = Live().bytes;
    if (offset + length > bytes.size()) {
      bytes.resize(offset + length);
      ReportSize();
    }
    for (std::uint64_t at = offset; at < offset + length; ++at) {
      bytes[at] = static_cast<std::byte>(random_());
    }
    if (length > 0) waiting_.push_back({.stamp = Now(), .offset = offset, .length = length});
    Remember();
  }
  void Resize(std::uint64_t size) {
    Live().bytes.resize(size);
    ReportSize();
    Remember();
  }
  // It dies and starts again: what was in use cannot be trusted.
  void Crash() {
    for (auto& [id, bitmap] : bitmaps) {
      ChangeHeader(bitmap, [](BitmapFileHeader& header) { header.Unreliable = 1; });
    }
  }
  void DeliverSome() {
    if (!waiting_.empty()) Deliver(waiting_[random_() % waiting_.size()].stamp);
  }

  // The file at each moment when it was written, and at the first.
  std::vector<std::pair<FileTime, Bytes>> history;
  std::map<BitmapId, Bytes> bitmaps;
  std::set<BitmapId> unloadable;  // listed, and not sent
  bool is_away = false;
  FileTime behind = 0;  // its clock, behind the machine's

  ctl::Answer Ping() override { return {}; }
  ctl::Answer GetDriverStatus() override { return {}; }
  ctl::Answer StopTracking(const std::string&) override { return {}; }
  ctl::Answer GetTrackedFiles(std::vector<ctl::FileEntry>& files) override {
    if (!IsReached()) return kGone;
    files.push_back({.file = {kVolume, kFile}, .path = path_, .bitmaps = {}});
    return After();
  }
  ctl::Answer ListBitmaps(const FileKey&, std::vector<ctl::BitmapEntry>& listed) override {
    if (!IsReached()) return kGone;
    for (const auto& [id, bytes] : bitmaps) listed.push_back(EntryOf(id));
    return After();
  }
  ctl::Answer CopyBitmap(BitmapId id, const ctl::BitmapSink& sink) override {
    if (!IsReached()) return kGone;
    if (!bitmaps.contains(id) || unloadable.contains(id)) return {.rpc_status = 0, .code = 1168};
    Bytes bytes = bitmaps[id];
    ChangeHeader(bytes, [](BitmapFileHeader& header) { header.ClosedCleanly = 0; });
    if (const std::uint32_t code = sink(bytes)) return {.rpc_status = code, .code = 0};
    return After();
  }
  // Reports of writes from before reach the new bitmap too, or are through already.
  ctl::Answer StartTracking(const std::string&, std::uint32_t block_size,
                            ctl::BitmapEntry& bitmap) override {
    if (!IsReached()) return kGone;
    BitmapId id = next_id_;
    if (!free_ids_.empty() && random_() % 2 == 0) {
      id = free_ids_.back();
      free_ids_.pop_back();
    } else {
      ++next_id_;
    }
    bitmaps[id] = MakeBitmapBytes(Live().bytes.size(), block_size, Now());
    ChangeHeader(bitmaps[id], [id](BitmapFileHeader& header) { header.BitmapId = id; });
    bitmap = EntryOf(id);
    return After();
  }
  ctl::Answer DeleteBitmap(BitmapId id) override {
    if (!IsReached()) return kGone;
    if (bitmaps.erase(id) == 1) free_ids_.push_back(id);
    return After();
  }
  ctl::Answer SynchronizeBitmaps(FileTime time) override {
    if (!IsReached()) return kGone;
    if (time > Now()) return {.rpc_status = 0, .code = 1460};
    Deliver(time);
    return After();
  }

 private:
  struct Report {
    FileTime stamp;
    std::uint64_t offset;
    std::uint64_t length;
  };
  static constexpr ctl::Answer kGone = {.rpc_status = 1722, .code = 0};

  [[nodiscard]] FileTime Now() const { return machine_.now - behind; }
  bool IsReached() { return !is_away && !machine_.death.Strikes(); }
  ctl::Answer After() { return machine_.death.Strikes() ? kGone : ctl::Answer{}; }

  ctl::BitmapEntry EntryOf(BitmapId id) {
    const BitmapFileHeader header = HeaderOf(bitmaps[id]);
    return {.id = id,
            .file = {kVolume, kFile},
            .block_size = header.BlockSize,
            .creation_time = header.NameCreationTime,
            .file_size = 0,
            .file_name = {}};
  }
  static BitmapFileHeader HeaderOf(const Bytes& bytes) {
    BitmapFileHeader header;
    std::memcpy(&header, bytes.data(), sizeof header);
    return header;
  }
  void Remember() { history.emplace_back(machine_.now, Live().bytes); }

  void Deliver(FileTime until) {
    for (const Report& report : waiting_) {
      if (report.stamp > until) continue;
      for (auto& [id, bytes] : bitmaps) {
        const std::uint64_t block_size = HeaderOf(bytes).BlockSize;
        Mark(bytes, report.offset / block_size,
             (report.offset + report.length - 1) / block_size + 1);
      }
    }
    std::erase_if(waiting_, [until](const Report& report) { return report.stamp <= until; });
  }
  // Sizes reach the bitmaps at once.
  void ReportSize() {
    const std::uint64_t size = Live().bytes.size();
    for (auto& [id, bytes] : bitmaps) {
      const BitmapFileHeader header = HeaderOf(bytes);
      if (header.FileSize == size) continue;
      ChangeHeader(bytes, [](BitmapFileHeader& changed) { changed.SizeChanged = 1; });
      if (size < header.FileSize) Mark(bytes, size / header.BlockSize, ~std::uint64_t{0});
    }
  }
  static void Mark(Bytes& bitmap, std::uint64_t first, std::uint64_t end) {
    const std::uint64_t bits = (bitmap.size() - kBitmapHeaderSize) * 8;
    if (end > bits) {
      ChangeHeader(bitmap, [](BitmapFileHeader& changed) { changed.SizeChanged = 1; });
    }
    for (std::uint64_t block = first; block < std::min(end, bits); ++block) SetBit(bitmap, block);
  }

  MemoryMachine& machine_;
  const std::string path_;
  std::mt19937& random_;
  std::vector<Report> waiting_;
  std::vector<BitmapId> free_ids_;
  BitmapId next_id_ = 1;
};

}  // namespace zel::test
