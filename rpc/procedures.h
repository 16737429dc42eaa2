// The server routines of rpc/zel.idl, in its order; docs/rpc-interface.md says what each does.
//
// Called by the RPC runtime's stub on its worker threads, concurrently. The stub owns everything
// that a parameter refers to; what is [out] alone arrives zeroed.
// Errors: Win32 codes, 0 for success. A call that cannot be answered ends in an RPC exception,
// raised where nothing is owned: frames are not unwound by one (win32/rpc_exception.h).
#pragma once

#include <rpc.h>
#include <windows.h>

#include "rpc/zel_interface.h"

namespace zel {

error_status_t Ping(handle_t binding);

// A `cchPath` of 0 has no room for a string's end and raises RPC_S_INVALID_BOUND.
error_status_t ListFiles(handle_t binding, void** Context, FileId* FileId, VolumeGuid* VolumeGuid,
                         unsigned short cchPath, wchar_t* Path);

// A `cchName` of 0 likewise.
error_status_t ListBitmaps(handle_t binding, VolumeGuid* VolumeGuid, FileId FileId, void** Context,
                           wire::BitmapInfo* Info, unsigned short cchName, wchar_t* Name);

// Raises what a push into the pipe raised.
error_status_t CopyBitmap(handle_t binding, BitmapId BitmapId, wire::BytePipe* Contents);

// A `BlockSize` of 0 raises STATUS_INTEGER_DIVIDE_BY_ZERO, after the file has been recorded as
// tracked.
error_status_t StartTracking(handle_t binding, wchar_t* Path, std::uint32_t BlockSize,
                             wire::BitmapInfo* Info);
error_status_t StartTracking2(handle_t binding, wchar_t* Path, VolumeGuid* VolumeGuid,
                              FileId FileId, std::uint64_t FileSize, std::uint32_t BlockSize,
                              wire::BitmapInfo* Info);

error_status_t StopTracking(handle_t binding, wchar_t* Path);

error_status_t DeleteBitmap(handle_t binding, BitmapId BitmapId);

error_status_t SynchronizeBitmaps(handle_t binding, FileTime RequestTime);

error_status_t GetDriverStatus(handle_t binding);

// Raises what a push into the pipe raised.
error_status_t ZEL_GetTrackedFiles(handle_t binding, wire::BytePipe* Stream);

// Free what a client left behind that went away in the middle of an enumeration.
void FileListContext_rundown(void* context);
void BitmapListContext_rundown(void* context);

}  // namespace zel
