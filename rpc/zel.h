/* What the MIDL compiler makes of zel.idl for programs in C: declarations that a client calls the
   service by. The client's stub, which it makes beside this, carries the calls out. */
#ifndef ZEL_RPC_ZEL_H
#define ZEL_RPC_ZEL_H

#include <rpc.h>
#include <rpcndr.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct BitmapInfo {
  unsigned long FileSize;
  unsigned hyper CreationTime;
  unsigned long BlockSize;
  unsigned hyper BitmapId;
  GUID VolumeGuid;
  unsigned hyper FileId;
} BitmapInfo;

typedef void* FileListContext;
typedef void* BitmapListContext;

typedef struct pipe_BytePipe {
  void(__RPC_USER* pull)(char* state, byte* buf, unsigned long esize, unsigned long* ecount);
  void(__RPC_USER* push)(char* state, byte* buf, unsigned long ecount);
  void(__RPC_USER* alloc)(char* state, unsigned long bsize, byte** buf, unsigned long* bcount);
  char* state;
} BytePipe;

error_status_t Ping(handle_t Binding);

error_status_t ListFiles(handle_t Binding, FileListContext* Context, unsigned hyper* FileId,
                         GUID* VolumeGuid, unsigned short cchPath, wchar_t* Path);

error_status_t ListBitmaps(handle_t Binding, GUID* VolumeGuid, unsigned hyper FileId,
                           BitmapListContext* Context, BitmapInfo* Info, unsigned short cchName,
                           wchar_t* Name);

error_status_t CopyBitmap(handle_t Binding, unsigned hyper BitmapId, BytePipe* Contents);

error_status_t StartTracking(handle_t Binding, wchar_t* Path, unsigned long BlockSize,
                             BitmapInfo* Info);

error_status_t StartTracking2(handle_t Binding, wchar_t* Path, GUID* VolumeGuid,
                              unsigned hyper FileId, unsigned hyper FileSize,
                              unsigned long BlockSize, BitmapInfo* Info);

error_status_t StopTracking(handle_t Binding, wchar_t* Path);

error_status_t DeleteBitmap(handle_t Binding, unsigned hyper BitmapId);

error_status_t SynchronizeBitmaps(handle_t Binding, unsigned hyper RequestTime);

error_status_t GetDriverStatus(handle_t Binding);

error_status_t ZEL_GetTrackedFiles(handle_t Binding, BytePipe* Stream);

#ifdef __cplusplus
}
#endif

#endif
