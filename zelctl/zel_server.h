// The service as the commands see it: the operations of the RPC interface that they use. Pure.
//
// Errors: each call answers whether it got through, and what the service said; outputs count when
// it said 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "files/types.h"

namespace zel::ctl {

struct Answer {
  std::uint32_t rpc_status = 0;  // not 0: the call did not get through, or was broken off
  std::uint32_t code = 0;        // of the service

  [[nodiscard]] bool ok() const { return rpc_status == 0 && code == 0; }
};

struct BitmapEntry {
  BitmapId id = 0;
  FileKey file = {};
  std::uint32_t block_size = 0;
  FileTime creation_time = 0;
  std::uint32_t file_size = 0;  // bytes of the bitmap file
  std::string file_name = {};   // the bitmap file's path in UTF-8; empty where it is not told
};

struct FileEntry {
  FileKey file = {};
  std::string path;  // UTF-8
  std::vector<BitmapId> bitmaps;
};

// Takes what a bitmap is sent in, in order, in pieces of any size, on the caller's thread. Whoever
// answers another code than 0 gets no more, and the call is broken off with it.
using BitmapSink = std::function<std::uint32_t(std::span<const std::byte> bytes)>;

class ZelServer {
 public:
  virtual ~ZelServer() = default;

  [[nodiscard]] virtual Answer Ping() = 0;
  [[nodiscard]] virtual Answer GetTrackedFiles(std::vector<FileEntry>& files) = 0;
  // A whole enumeration.
  [[nodiscard]] virtual Answer ListBitmaps(const FileKey& file,
                                           std::vector<BitmapEntry>& bitmaps) = 0;
  // What the sink has had counts when the answer is good.
  [[nodiscard]] virtual Answer CopyBitmap(BitmapId id, const BitmapSink& sink) = 0;
  [[nodiscard]] virtual Answer StartTracking(const std::string& path, std::uint32_t block_size,
                                             BitmapEntry& bitmap) = 0;
  [[nodiscard]] virtual Answer StopTracking(const std::string& path) = 0;
  [[nodiscard]] virtual Answer DeleteBitmap(BitmapId id) = 0;
  [[nodiscard]] virtual Answer SynchronizeBitmaps(FileTime time) = 0;
  [[nodiscard]] virtual Answer GetDriverStatus() = 0;

  // Worth knowing of the way that the calls so far have gone; empty for nothing.
  [[nodiscard]] virtual std::string Remark() const { return {}; }
};

// A whole bitmap in memory.
[[nodiscard]] Answer CopyBitmapTo(ZelServer& server, BitmapId id, std::vector<std::byte>& contents);

}  // namespace zel::ctl
