#include "zelctl/rpc_zel_server.h"

#include "client/zel_client.h"
#include "zelctl/wide_text.h"

namespace zel::ctl {

namespace {

// The longest name of a bitmap file that an enumeration can hand over; longer ones end the call.
constexpr std::uint16_t kNameRoom = 32'767;

constexpr std::uint32_t kNoMoreItems = ERROR_NO_MORE_ITEMS;

Answer ToAnswer(const CallResult& result) {
  return {.rpc_status = result.rpc_status, .code = result.code};
}

BitmapEntry ToEntry(const wire::BitmapInfo& info, const std::wstring& name) {
  return {.id = info.BitmapId,
          .file = {info.VolumeGuid, info.FileId},
          .block_size = info.BlockSize,
          .creation_time = info.CreationTime,
          .file_size = info.FileSize,
          .file_name = ToUtf8(name)};
}

FileEntry ToEntry(const TrackedFile& file) {
  FileEntry entry = {.file = file.key, .path = ToUtf8(file.path), .bitmaps = {}};
  for (const TrackedFile::Bitmap& bitmap : file.bitmaps) {
    entry.bitmaps.push_back(bitmap.bitmap_id);
  }
  return entry;
}

class RpcZelServer : public ZelServer {
 public:
  explicit RpcZelServer(UniqueBinding binding) : client_(std::move(binding)) {}

  Answer Ping() override { return ToAnswer(client_.Ping()); }

  Answer GetTrackedFiles(std::vector<FileEntry>& files) override {
    std::vector<TrackedFile> tracked;
    const Answer answer = ToAnswer(client_.GetTrackedFiles(tracked));
    if (!answer.ok()) return answer;
    for (const TrackedFile& file : tracked) files.push_back(ToEntry(file));
    return answer;
  }

  Answer ListBitmaps(const FileKey& file, std::vector<BitmapEntry>& bitmaps) override {
    BitmapList list;
    for (;;) {
      NamedBitmap bitmap = {};
      Answer answer = ToAnswer(client_.ListBitmaps(file, list, kNameRoom, bitmap));
      if (answer.rpc_status == 0 && answer.code == kNoMoreItems) return {};
      if (!answer.ok()) return answer;
      bitmaps.push_back(ToEntry(bitmap.info, bitmap.name));
    }
  }

  Answer CopyBitmap(BitmapId id, std::vector<std::byte>& contents) override {
    return ToAnswer(client_.CopyBitmap(id, [&](std::span<const std::byte> bytes) {
      contents.insert(contents.end(), bytes.begin(), bytes.end());
    }));
  }

  Answer StartTracking(const std::string& path, std::uint32_t block_size,
                       BitmapEntry& bitmap) override {
    wire::BitmapInfo info = {};
    const Answer answer = ToAnswer(client_.StartTracking(ToWide(path), block_size, info));
    if (answer.ok()) bitmap = ToEntry(info, {});
    return answer;
  }

  Answer StopTracking(const std::string& path) override {
    return ToAnswer(client_.StopTracking(ToWide(path)));
  }
  Answer DeleteBitmap(BitmapId id) override { return ToAnswer(client_.DeleteBitmap(id)); }
  Answer SynchronizeBitmaps(FileTime time) override {
    return ToAnswer(client_.SynchronizeBitmaps(time));
  }
  Answer GetDriverStatus() override { return ToAnswer(client_.GetDriverStatus()); }

 private:
  ZelClient client_;
};

// A server that nobody can call.
class UnnamedServer : public ZelServer {
 public:
  explicit UnnamedServer(std::uint32_t rpc_status) : answer_{.rpc_status = rpc_status, .code = 0} {}

  Answer Ping() override { return answer_; }
  Answer GetTrackedFiles(std::vector<FileEntry>&) override { return answer_; }
  Answer ListBitmaps(const FileKey&, std::vector<BitmapEntry>&) override { return answer_; }
  Answer CopyBitmap(BitmapId, std::vector<std::byte>&) override { return answer_; }
  Answer StartTracking(const std::string&, std::uint32_t, BitmapEntry&) override { return answer_; }
  Answer StopTracking(const std::string&) override { return answer_; }
  Answer DeleteBitmap(BitmapId) override { return answer_; }
  Answer SynchronizeBitmaps(FileTime) override { return answer_; }
  Answer GetDriverStatus() override { return answer_; }

 private:
  Answer answer_;
};

}  // namespace

std::unique_ptr<ZelServer> ConnectRpcServer(const Request& request) {
  UniqueBinding binding;
  const std::uint32_t status = MakeBinding({.protocol_sequence = ToWide(request.protseq),
                                            .server = ToWide(request.server),
                                            .endpoint = ToWide(request.endpoint)},
                                           binding);
  if (status != RPC_S_OK) return std::make_unique<UnnamedServer>(status);
  return std::make_unique<RpcZelServer>(std::move(binding));
}

}  // namespace zel::ctl
