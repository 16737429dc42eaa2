// Stands in for the client stub in C that MIDL makes of rpc/zel.idl: each operation of rpc/zel.h is
// a call of the engine with the shipped tables.
#include <cstddef>

#include "client/zel_client_stubs.h"
#include "rpc/zel.h"

namespace {

static_assert(sizeof(BitmapInfo) == sizeof(zel::wire::BitmapInfo));
static_assert(offsetof(BitmapInfo, CreationTime) == offsetof(zel::wire::BitmapInfo, CreationTime));
static_assert(offsetof(BitmapInfo, BlockSize) == offsetof(zel::wire::BitmapInfo, BlockSize));
static_assert(offsetof(BitmapInfo, BitmapId) == offsetof(zel::wire::BitmapInfo, BitmapId));
static_assert(offsetof(BitmapInfo, VolumeGuid) == offsetof(zel::wire::BitmapInfo, VolumeGuid));
static_assert(offsetof(BitmapInfo, FileId) == offsetof(zel::wire::BitmapInfo, FileId));
static_assert(sizeof(BytePipe) == sizeof(zel::wire::BytePipe));
static_assert(offsetof(BytePipe, push) == offsetof(zel::wire::BytePipe, push));
static_assert(offsetof(BytePipe, alloc) == offsetof(zel::wire::BytePipe, alloc));
static_assert(offsetof(BytePipe, state) == offsetof(zel::wire::BytePipe, state));

// What the engine raises goes to the caller, as with MIDL's stub.
template <class... Arguments>
error_status_t Call(zel::Operation operation, Arguments... arguments) {
  const CLIENT_CALL_RETURN result =
      ::NdrClientCall2(const_cast<MIDL_STUB_DESC*>(&zel::kZelClientStubs),
                       const_cast<unsigned char*>(zel::ProcedureFormat(operation)), arguments...);
  return static_cast<error_status_t>(result.Simple);
}

}  // namespace

using zel::Operation;

error_status_t Ping(handle_t binding) {
  return Call(Operation::kPing, binding);
}

error_status_t ListFiles(handle_t binding, FileListContext* context, unsigned hyper* file_id,
                         GUID* volume, unsigned short room, wchar_t* path) {
  return Call(Operation::kListFiles, binding, context, file_id, volume, room, path);
}

error_status_t ListBitmaps(handle_t binding, GUID* volume, unsigned hyper file_id,
                           BitmapListContext* context, BitmapInfo* info, unsigned short room,
                           wchar_t* name) {
  return Call(Operation::kListBitmaps, binding, volume, file_id, context, info, room, name);
}

error_status_t CopyBitmap(handle_t binding, unsigned hyper bitmap_id, BytePipe* contents) {
  return Call(Operation::kCopyBitmap, binding, bitmap_id, contents);
}

error_status_t StartTracking(handle_t binding, wchar_t* path, unsigned long block_size,
                             BitmapInfo* info) {
  return Call(Operation::kStartTracking, binding, path, block_size, info);
}

error_status_t StartTracking2(handle_t binding, wchar_t* path, GUID* volume, unsigned hyper file_id,
                              unsigned hyper file_size, unsigned long block_size,
                              BitmapInfo* info) {
  return Call(Operation::kStartTracking2, binding, path, volume, file_id, file_size, block_size,
              info);
}

error_status_t StopTracking(handle_t binding, wchar_t* path) {
  return Call(Operation::kStopTracking, binding, path);
}

error_status_t DeleteBitmap(handle_t binding, unsigned hyper bitmap_id) {
  return Call(Operation::kDeleteBitmap, binding, bitmap_id);
}

error_status_t SynchronizeBitmaps(handle_t binding, unsigned hyper time) {
  return Call(Operation::kSynchronizeBitmaps, binding, time);
}

error_status_t GetDriverStatus(handle_t binding) {
  return Call(Operation::kGetDriverStatus, binding);
}

error_status_t ZEL_GetTrackedFiles(handle_t binding, BytePipe* stream) {
  return Call(Operation::kGetTrackedFiles, binding, stream);
}
