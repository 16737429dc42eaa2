// What both sides of the RPC interface share besides the stub descriptions (rpc/zel_ndr_format.h):
// its identity and the C forms of the types in rpc/zel.idl. Pure.
#pragma once

#include <cstddef>
#include <cstdint>

#include "files/types.h"

namespace zel {

// An interface or a transfer syntax, in the layout of RPC_SYNTAX_IDENTIFIER.
struct SyntaxIdentifier {
  VolumeGuid id;  // a GUID like any other
  std::uint16_t major_version;
  std::uint16_t minor_version;
};

inline constexpr SyntaxIdentifier kZelInterface = {
    {0x7b941e5b, 0xf53f, 0x415d, {0xaa, 0xcb, 0xad, 0x79, 0x73, 0xd9, 0xe5, 0xde}}, 3, 0};
inline constexpr SyntaxIdentifier kNdrTransferSyntax = {
    {0x8a885d04, 0x1ceb, 0x11c9, {0x9f, 0xe8, 0x08, 0x00, 0x2b, 0x10, 0x48, 0x60}}, 2, 0};

// Operation numbers.
enum class Operation : std::uint16_t {
  kPing = 0,
  kListFiles = 1,
  kListBitmaps = 2,
  kCopyBitmap = 3,
  kStartTracking = 4,
  kStartTracking2 = 5,
  kStopTracking = 6,
  kDeleteBitmap = 7,
  kSynchronizeBitmaps = 8,
  kGetDriverStatus = 9,
  kGetTrackedFiles = 10,
};
inline constexpr std::size_t kOperations = 11;

namespace wire {

// zel::BitmapInfo with its padding spelled out: a structure goes over the wire as its bytes.
struct BitmapInfo {            // offset
  std::uint32_t FileSize;      //  0
  std::uint32_t padding_04;    //  4  0
  FileTime CreationTime;       //  8
  std::uint32_t BlockSize;     // 16
  std::uint32_t padding_14;    // 20  0
  zel::BitmapId BitmapId;      // 24
  zel::VolumeGuid VolumeGuid;  // 32
  zel::FileId FileId;          // 48
};
static_assert(sizeof(BitmapInfo) == 56 && alignof(BitmapInfo) == 8);
static_assert(offsetof(BitmapInfo, CreationTime) == 8);
static_assert(offsetof(BitmapInfo, BlockSize) == 16);
static_assert(offsetof(BitmapInfo, BitmapId) == 24);
static_assert(offsetof(BitmapInfo, VolumeGuid) == 32);
static_assert(offsetof(BitmapInfo, FileId) == 48);

// The C form of an [out] pipe. A server calls push with each chunk and, on every way out, once
// with no elements.
struct BytePipe {
  void (*pull)(char* state, unsigned char* buffer, std::uint32_t size, std::uint32_t* count);
  void (*push)(char* state, unsigned char* buffer, std::uint32_t count);
  void (*alloc)(char* state, std::uint32_t size, unsigned char** buffer, std::uint32_t* count);
  char* state;
};

}  // namespace wire
}  // namespace zel
