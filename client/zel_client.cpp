#include "client/zel_client.h"

#include "client/zel_client_stubs.h"

namespace zel {

namespace {

template <class... Arguments>
CallResult Call(const UniqueBinding& binding, Operation operation, Arguments... arguments) {
  CallResult result;
  result.rpc_status = CallOperation(operation, binding.get(), result.code, arguments...);
  return result;
}

// Runs one call of an enumeration, which changes its context.
template <class CallWithContext>
CallResult CallWith(UniqueResource<ServerContextTraits>& list, CallWithContext call) {
  void* context = list.release();
  const CallResult result = call(&context);
  list.reset(context);
  return result;
}

// The interface takes the caller's strings by pointers that it could write through, and does not.
wchar_t* InString(const std::wstring& text) {
  return const_cast<wchar_t*>(text.c_str());
}

}  // namespace

void CloseServerContext(void* value) noexcept {
  // It raises for what is no context; this is one.
  (void)CatchRpcException([&] { ::RpcSsDestroyClientContext(&value); });
}

CallResult ZelClient::Ping() const {
  return Call(binding_, Operation::kPing);
}

CallResult ZelClient::ListFiles(FileList& list, std::uint16_t path_room, ListedFile& file) const {
  std::wstring path(path_room, L'\0');
  const CallResult result = CallWith(list, [&](void** context) {
    return Call(binding_, Operation::kListFiles, context, &file.key.file_id, &file.key.volume,
                path_room, path.data());
  });
  file.path = path.c_str();
  return result;
}

CallResult ZelClient::ListBitmaps(const FileKey& file, BitmapList& list, std::uint16_t name_room,
                                  NamedBitmap& bitmap) const {
  std::wstring name(name_room, L'\0');
  const CallResult result = CallWith(list, [&](void** context) {
    return Call(binding_, Operation::kListBitmaps, &file.volume, file.file_id, context,
                &bitmap.info, name_room, name.data());
  });
  bitmap.name = name.c_str();
  return result;
}

CallResult ZelClient::CopyBitmap(BitmapId bitmap_id, const ByteSink& contents) const {
  ReceivingPipe pipe(contents);
  return Call(binding_, Operation::kCopyBitmap, bitmap_id, pipe.get());
}

CallResult ZelClient::StartTracking(const std::wstring& path, std::uint32_t block_size,
                                    wire::BitmapInfo& info) const {
  return Call(binding_, Operation::kStartTracking, InString(path), block_size, &info);
}

CallResult ZelClient::StartTracking2(const std::wstring& path, const FileKey& file,
                                     std::uint64_t file_size, std::uint32_t block_size,
                                     wire::BitmapInfo& info) const {
  return Call(binding_, Operation::kStartTracking2, InString(path), &file.volume, file.file_id,
              file_size, block_size, &info);
}

CallResult ZelClient::StopTracking(const std::wstring& path) const {
  return Call(binding_, Operation::kStopTracking, InString(path));
}

CallResult ZelClient::DeleteBitmap(BitmapId bitmap_id) const {
  return Call(binding_, Operation::kDeleteBitmap, bitmap_id);
}

CallResult ZelClient::SynchronizeBitmaps(FileTime request_time) const {
  return Call(binding_, Operation::kSynchronizeBitmaps, request_time);
}

CallResult ZelClient::GetDriverStatus() const {
  return Call(binding_, Operation::kGetDriverStatus);
}

CallResult ZelClient::GetTrackedFiles(std::vector<TrackedFile>& files) const {
  std::vector<std::byte> stream;
  const ByteSink append = [&](std::span<const std::byte> bytes) {
    stream.insert(stream.end(), bytes.begin(), bytes.end());
    return ERROR_SUCCESS;
  };
  ReceivingPipe pipe(append);
  CallResult result = Call(binding_, Operation::kGetTrackedFiles, pipe.get());
  if (result.ok() && ReadTrackedFiles(stream, files) != nullptr) {
    result.rpc_status = RPC_X_BAD_STUB_DATA;
  }
  return result;
}

}  // namespace zel
