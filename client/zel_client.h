// A client of the RPC interface: one function for each operation (docs/rpc-interface.md).
//
// Errors: values, never exceptions. CallResult tells a call that failed from one that the service
// answered with an error; outputs count for an answered call only.
// Threads: any thread may call; one enumeration belongs to one thread at a time.
// Lifetime: enumerations end before their client.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/binding.h"
#include "client/receiving_pipe.h"
#include "client/tracked_files_reader.h"
#include "rpc/zel_interface.h"

namespace zel {

struct CallResult {
  std::uint32_t rpc_status =
      0;  // not 0: the call failed; an RPC status, the server's fault, or what a sink answered
  std::uint32_t code = 0;  // the service's answer

  [[nodiscard]] bool ok() const { return rpc_status == 0 && code == 0; }
  bool operator==(const CallResult&) const = default;
};

// The service's context of an enumeration: empty before the first call and after the last. One
// that is given up is freed by the service when the client's connection ends.
void CloseServerContext(void* context) noexcept;
using ServerContextTraits = NullTraits<void*, CloseServerContext>;
using FileList = UniqueResource<ServerContextTraits>;
using BitmapList = UniqueResource<ServerContextTraits>;

struct ListedFile {
  FileKey key;
  std::wstring path;
};

struct NamedBitmap {
  wire::BitmapInfo info;
  std::wstring name;  // the bitmap file's full path
};

class ZelClient {
 public:
  explicit ZelClient(UniqueBinding binding) : binding_(std::move(binding)) {}

  [[nodiscard]] CallResult Ping() const;

  // The path arrives cut to `path_room` / 2 characters. A room of 0 fails the call.
  [[nodiscard]] CallResult ListFiles(FileList& list, std::uint16_t path_room,
                                     ListedFile& file) const;
  [[nodiscard]] CallResult ListBitmaps(const FileKey& file, BitmapList& list,
                                       std::uint16_t name_room, NamedBitmap& bitmap) const;

  // `contents` gets the bitmap file as the service has it in memory, on the caller's thread. What
  // it has had counts for an answer of 0 only.
  [[nodiscard]] CallResult CopyBitmap(BitmapId bitmap_id, const ByteSink& contents) const;

  [[nodiscard]] CallResult StartTracking(const std::wstring& path, std::uint32_t block_size,
                                         wire::BitmapInfo& info) const;
  [[nodiscard]] CallResult StartTracking2(const std::wstring& path, const FileKey& file,
                                          std::uint64_t file_size, std::uint32_t block_size,
                                          wire::BitmapInfo& info) const;
  [[nodiscard]] CallResult StopTracking(const std::wstring& path) const;

  [[nodiscard]] CallResult DeleteBitmap(BitmapId bitmap_id) const;
  [[nodiscard]] CallResult SynchronizeBitmaps(FileTime request_time) const;
  [[nodiscard]] CallResult GetDriverStatus() const;
  [[nodiscard]] CallResult GetTrackedFiles(std::vector<TrackedFile>& files) const;

 private:
  UniqueBinding binding_;
};

}  // namespace zel
