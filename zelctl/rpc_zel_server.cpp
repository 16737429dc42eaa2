#include "zelctl/rpc_zel_server.h"

#include <chrono>
#include <functional>
#include <type_traits>
#include <utility>

#include "client/zel_client.h"
#include "zelctl/call_within.h"
#include "zelctl/fallback_server.h"
#include "zelctl/stream_within.h"
#include "zelctl/wide_text.h"

namespace zel::ctl {

namespace {

// The longest name of a bitmap file that an enumeration can hand over; longer ones end the call.
constexpr std::uint16_t kNameRoom = 32'767;

constexpr std::uint32_t kNoMoreItems = ERROR_NO_MORE_ITEMS;

constexpr Answer kLate = {.rpc_status = RPC_S_CALL_CANCELLED, .code = 0};

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

// Each call that is given up goes on without this object: it shares the client and owns the rest.
class RpcZelServer : public ZelServer {
 public:
  RpcZelServer(UniqueBinding binding, std::chrono::seconds timeout)
      : client_(std::make_shared<ZelClient>(std::move(binding))), timeout_(timeout) {}

  Answer Ping() override {
    return Call([](const ZelClient& client) { return client.Ping(); });
  }

  Answer GetTrackedFiles(std::vector<FileEntry>& files) override {
    return Call(files, [](const ZelClient& client, std::vector<FileEntry>& listed) {
      std::vector<TrackedFile> tracked;
      const Answer answer = ToAnswer(client.GetTrackedFiles(tracked));
      for (const TrackedFile& file : tracked) listed.push_back(ToEntry(file));
      return answer;
    });
  }

  Answer ListBitmaps(const FileKey& file, std::vector<BitmapEntry>& bitmaps) override {
    return Call(bitmaps, [file](const ZelClient& client, std::vector<BitmapEntry>& listed) {
      return ListAll(client, file, listed);
    });
  }

  Answer CopyBitmap(BitmapId id, const BitmapSink& sink) override {
    return StreamWithin<Answer>(
        timeout_,
        [client = client_, id](const BitmapSink& taken) {
          return ToAnswer(client->CopyBitmap(id, taken));
        },
        sink, kLate);
  }

  Answer StartTracking(const std::string& path, std::uint32_t block_size,
                       BitmapEntry& bitmap) override {
    return Call(bitmap, [path, block_size](const ZelClient& client, BitmapEntry& begun) {
      wire::BitmapInfo info = {};
      const Answer answer = ToAnswer(client.StartTracking(ToWide(path), block_size, info));
      if (answer.ok()) begun = ToEntry(info, {});
      return answer;
    });
  }

  Answer StopTracking(const std::string& path) override {
    return Call([path](const ZelClient& client) { return client.StopTracking(ToWide(path)); });
  }
  Answer DeleteBitmap(BitmapId id) override {
    return Call([id](const ZelClient& client) { return client.DeleteBitmap(id); });
  }
  Answer SynchronizeBitmaps(FileTime time) override {
    return Call([time](const ZelClient& client) { return client.SynchronizeBitmaps(time); });
  }
  Answer GetDriverStatus() override {
    return Call([](const ZelClient& client) { return client.GetDriverStatus(); });
  }

 private:
  template <class Output>
  using Reader = std::function<Answer(const ZelClient& client, Output& output)>;

  [[nodiscard]] static Answer ListAll(const ZelClient& client, const FileKey& file,
                                      std::vector<BitmapEntry>& bitmaps) {
    BitmapList list;
    for (;;) {
      NamedBitmap bitmap = {};
      Answer answer = ToAnswer(client.ListBitmaps(file, list, kNameRoom, bitmap));
      if (answer.rpc_status == 0 && answer.code == kNoMoreItems) return {};
      if (!answer.ok()) return answer;
      bitmaps.push_back(ToEntry(bitmap.info, bitmap.name));
    }
  }

  template <class Output>
  [[nodiscard]] Answer Call(Output& output, std::type_identity_t<Reader<Output>> read) {
    using Result = std::pair<Answer, Output>;
    const Result late = {kLate, {}};
    Result result = CallWithin<Result>(
        timeout_,
        [client = client_, read = std::move(read)] {
          Result own = {};
          own.first = read(*client, own.second);
          return own;
        },
        late);
    if (result.first.ok()) output = std::move(result.second);
    return result.first;
  }
  [[nodiscard]] Answer Call(std::function<CallResult(const ZelClient& client)> call) {
    struct Nothing {};
    Nothing nothing;
    return Call<Nothing>(nothing, [call = std::move(call)](const ZelClient& client, Nothing&) {
      return ToAnswer(call(client));
    });
  }

  std::shared_ptr<ZelClient> client_;
  const std::chrono::seconds timeout_;
};

// A server that nobody can call.
class UnnamedServer : public ZelServer {
 public:
  explicit UnnamedServer(std::uint32_t rpc_status) : answer_{.rpc_status = rpc_status, .code = 0} {}

  Answer Ping() override { return answer_; }
  Answer GetTrackedFiles(std::vector<FileEntry>&) override { return answer_; }
  Answer ListBitmaps(const FileKey&, std::vector<BitmapEntry>&) override { return answer_; }
  Answer CopyBitmap(BitmapId, const BitmapSink&) override { return answer_; }
  Answer StartTracking(const std::string&, std::uint32_t, BitmapEntry&) override { return answer_; }
  Answer StopTracking(const std::string&) override { return answer_; }
  Answer DeleteBitmap(BitmapId) override { return answer_; }
  Answer SynchronizeBitmaps(FileTime) override { return answer_; }
  Answer GetDriverStatus() override { return answer_; }

 private:
  Answer answer_;
};

std::unique_ptr<ZelServer> Connect(const Request& request, bool authenticates) {
  UniqueBinding binding;
  std::uint32_t status = MakeBinding({.protocol_sequence = ToWide(request.protseq),
                                      .server = ToWide(request.server),
                                      .endpoint = ToWide(request.endpoint)},
                                     binding);
  if (status == RPC_S_OK && authenticates) status = Authenticate(binding);
  if (status != RPC_S_OK) return std::make_unique<UnnamedServer>(status);
  return std::make_unique<RpcZelServer>(std::move(binding),
                                        std::chrono::seconds(request.timeout_s.value_or(0)));
}

}  // namespace

std::unique_ptr<ZelServer> ConnectRpcServer(const Request& request) {
  const auto authentication = request.authentication.value_or(Authentication::kNone);
  if (authentication != Authentication::kNtlmOrNone) {
    return Connect(request, authentication == Authentication::kNtlm);
  }
  return std::make_unique<FallbackServer>(Connect(request, true), Connect(request, false));
}

}  // namespace zel::ctl
