// The server routines of rpc/zel.idl, in its order; docs/rpc-interface.md says what each does.
//
// Called by the RPC runtime's stub on its worker threads, concurrently. The stub owns everything
// that a parameter refers to; what is [out] alone arrives zeroed.
// Errors: Win32 codes, 0 for success. A call in hand while the service stops answers
// ERROR_SHUTDOWN_IN_PROGRESS where it found less than there is, or was kept from its work. A call
// that cannot be answered ends in an RPC exception, raised where nothing is owned: frames are not
// unwound by one (win32/rpc_exception.h).
// No C++ exception leaves one: their work is noexcept, so memory that cannot be had ends the
// process, not a call in the runtime's frames.
#pragma once

#include <rpc.h>
#include <rpcndr.h>
#include <windows.h>

#include "rpc/zel_interface.h"

namespace zel {

error_status_t Ping(handle_t binding) noexcept;

// A `path_room` of 0 characters has no room for a string's end and raises RPC_S_INVALID_BOUND.
error_status_t ListFiles(handle_t binding, void** context, FileId* file_id, VolumeGuid* volume_guid,
                         unsigned short path_room, wchar_t* path);

// A `name_room` of 0 likewise.
error_status_t ListBitmaps(handle_t binding, VolumeGuid* volume_guid, FileId file_id,
                           void** context, wire::BitmapInfo* info, unsigned short name_room,
                           wchar_t* name);

// Raises what a push into the pipe raised.
error_status_t CopyBitmap(handle_t binding, BitmapId bitmap_id, wire::BytePipe* contents);

// A `block_size` of 0 raises STATUS_INTEGER_DIVIDE_BY_ZERO, after the file has been recorded as
// tracked.
error_status_t StartTracking(handle_t binding, wchar_t* path, std::uint32_t block_size,
                             wire::BitmapInfo* info);
error_status_t StartTracking2(handle_t binding, wchar_t* path, VolumeGuid* volume_guid,
                              FileId file_id, std::uint64_t file_size, std::uint32_t block_size,
                              wire::BitmapInfo* info);

error_status_t StopTracking(handle_t binding, wchar_t* path) noexcept;

error_status_t DeleteBitmap(handle_t binding, BitmapId bitmap_id) noexcept;

error_status_t SynchronizeBitmaps(handle_t binding, FileTime request_time) noexcept;

error_status_t GetDriverStatus(handle_t binding) noexcept;

// Raises what a push into the pipe raised.
error_status_t ZEL_GetTrackedFiles(handle_t binding, wire::BytePipe* stream);

// Free what a client left behind that went away in the middle of an enumeration.
void FileListContext_rundown(void* context) noexcept;
void BitmapListContext_rundown(void* context) noexcept;

// What the runtime calls them by: for RpcServerRegisterIf and RpcEpRegister, cast to RPC_IF_HANDLE.
// Lives as long as the process.
extern const RPC_SERVER_INTERFACE kZelServerInterface;

}  // namespace zel
