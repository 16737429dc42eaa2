#include "rpc/zel_ndr_format.h"

#include <algorithm>

namespace zel {

namespace {

template <std::size_t... Sizes>
consteval auto Join(const std::array<std::uint8_t, Sizes>&... parts) {
  std::array<std::uint8_t, (Sizes + ... + 0)> joined = {};
  auto end = joined.begin();
  ((end = std::copy(parts.begin(), parts.end(), end)), ...);
  return joined;
}

template <class... Bytes>
consteval std::array<std::uint8_t, sizeof...(Bytes)> B(Bytes... bytes) {
  return {static_cast<std::uint8_t>(bytes)...};
}

// A 16-bit and a 32-bit number, little-endian. Relative offsets are negative.
consteval auto S(int value) {
  return B(value & 0xFF, value >> 8 & 0xFF);
}
consteval auto L(int value) {
  return Join(S(value), S(value >> 16));
}

// The engine's format characters.
enum : std::uint8_t {
  kByte = 0x01,
  kShort = 0x06,
  kUshort = 0x07,
  kLong = 0x08,
  kHyper = 0x0b,
  kErrorStatus = 0x10,
  kReferencePointer = 0x11,
  kStruct = 0x15,
  kFixedArray = 0x1d,
  kConformantWideString = 0x25,
  kBindContext = 0x30,
  kBindPrimitive = 0x32,
  kPad4 = 0x40,
  kStringSized = 0x44,
  kEmbeddedType = 0x4c,
  kEnd = 0x5b,
  kPad = 0x5c,
  kPipe = 0xb5,
};
constexpr int kParameterAsCount = 0x20;  // or'ed with the count's type

// Where the parameters lie on the server's stack: 8 bytes each, the binding handle first.
consteval int Stack(int position) {
  return position * 8;
}

// ---- Types ----

constexpr auto kNoType = S(0);  // so that no type has the offset 0
constexpr int kFileListContextAt = kNoType.size();

// Context handles, by reference, in and out: the rundown routine's number, then the number among
// the procedure's contexts.
constexpr auto kFileListContext = B(kBindContext, 0xe0, 0, 0);
constexpr int kBitmapListContextAt = kFileListContextAt + kFileListContext.size();
constexpr auto kBitmapListContext = B(kBindContext, 0xe0, 1, 0);
constexpr int kWideStringAt = kBitmapListContextAt + kBitmapListContext.size() + 2;

// [string] wchar_t*: parameters name what it refers to.
constexpr auto kWideString = B(kReferencePointer, 0x08, kConformantWideString, kPad);
constexpr int kHyperOutAt = kWideStringAt - 2 + kWideString.size();

// hyper*, allocated on the stack.
constexpr auto kHyperOut = B(kReferencePointer, 0x0c, kHyper, kPad);
constexpr int kGuidBytesAt = kHyperOutAt + kHyperOut.size();

// GUID: its last 8 bytes, and the structure.
constexpr auto kGuidBytes = Join(B(kFixedArray, 0), S(8), B(kByte, kEnd));
constexpr int kGuidAt = kGuidBytesAt + kGuidBytes.size();
constexpr auto kGuid = Join(B(kStruct, 3), S(16), B(kLong, kShort, kShort, kEmbeddedType, 0),
                            S(kGuidBytesAt - (kGuidAt + 9)), B(kEnd));
constexpr int kBitmapInfoAt = kGuidAt + kGuid.size();

// BitmapInfo: FileSize, CreationTime, BlockSize, BitmapId, VolumeGuid, FileId.
constexpr auto kBitmapInfo =
    Join(B(kStruct, 7), S(sizeof(wire::BitmapInfo)),  //
         B(kLong, kPad4, kHyper), B(kLong, kPad4, kHyper), B(kEmbeddedType, 0),
         S(kGuidAt - (kBitmapInfoAt + 12)), B(kHyper, kEnd));
constexpr int kListFilesPathAt = kBitmapInfoAt + kBitmapInfo.size();

// [string, size_is(count)] wchar_t*: where the count lies, and that it is known before the string.
consteval auto SizedString(int count_position) {
  return Join(B(kConformantWideString, kStringSized, kParameterAsCount | kUshort, 0),
              S(Stack(count_position)), S(1));
}
constexpr auto kListFilesPath = SizedString(4);
constexpr int kListBitmapsNameAt = kListFilesPathAt + kListFilesPath.size();
constexpr auto kListBitmapsName = SizedString(5);
constexpr int kPipeElementAt = kListBitmapsNameAt + kListBitmapsName.size();

// pipe byte: its element, and the pipe with the element's size in memory and on the wire.
constexpr auto kPipeElement = B(kByte, kPad);
constexpr int kBytePipeAt = kPipeElementAt + kPipeElement.size();
constexpr auto kBytePipe = Join(B(kPipe, 0), S(kPipeElementAt - (kBytePipeAt + 2)), S(1), S(1));

// ---- Parameters ----

// What a parameter's flags say.
enum : int {
  kMustSize = 0x0001,
  kMustFree = 0x0002,
  kIsPipe = 0x0004,
  kIn = 0x0008,
  kOut = 0x0010,
  kReturn = 0x0020,
  kBaseType = 0x0040,
  kSimpleReference = 0x0100,
};

// The room that the server keeps for what a parameter refers to.
template <class T>
consteval int Room() {
  static_assert(sizeof(T) % 8 == 0 && sizeof(T) <= 56);
  return static_cast<int>(sizeof(T) / 8) << 13;
}

consteval auto BaseParameter(int flags, int position, std::uint8_t type) {
  return Join(S(flags | kBaseType), S(Stack(position)), B(type, 0));
}
consteval auto Parameter(int flags, int position, int type_at) {
  return Join(S(flags), S(Stack(position)), S(type_at));
}

consteval auto LongIn(int position) {
  return BaseParameter(kIn, position, kLong);
}
consteval auto UshortIn(int position) {
  return BaseParameter(kIn, position, kUshort);
}
consteval auto HyperIn(int position) {
  return BaseParameter(kIn, position, kHyper);
}
consteval auto HyperOut(int position) {
  return BaseParameter(kOut | kSimpleReference | Room<std::uint64_t>(), position, kHyper);
}
consteval auto GuidIn(int position) {
  return Parameter(kIn | kMustFree | kSimpleReference, position, kGuidAt);
}
consteval auto GuidOut(int position) {
  return Parameter(kOut | kMustFree | kSimpleReference | Room<VolumeGuid>(), position, kGuidAt);
}
consteval auto BitmapInfoOut(int position) {
  return Parameter(kOut | kMustFree | kSimpleReference | Room<wire::BitmapInfo>(), position,
                   kBitmapInfoAt);
}
consteval auto WideStringIn(int position) {
  return Parameter(kIn | kMustSize | kMustFree | kSimpleReference, position, kWideStringAt);
}
consteval auto SizedStringOut(int position, int type_at) {
  return Parameter(kOut | kMustSize | kMustFree | kSimpleReference, position, type_at);
}
consteval auto Context(int position, int type_at) {
  return Parameter(kIn | kOut | kSimpleReference, position, type_at);
}
// 32 bytes in 64-bit code: four pointers, which the natively built tests do not measure.
consteval auto PipeOut(int position) {
  return Parameter(kOut | kIsPipe | kSimpleReference | 4 << 13, position, kBytePipeAt);
}
consteval auto Code(int position) {
  return BaseParameter(kOut | kReturn, position, kErrorStatus);
}

// ---- Procedures ----

// What a procedure needs of the buffers besides what the engine measures: for every value of
// constant size its bytes and the most that aligning it takes.
enum : int {
  kShortRoom = 6,
  kLongRoom = 8,
  kHyperRoom = 16,
  kGuidRoom = 68,
  kContextRoom = 56,
  kBitmapInfoRoom = 2 * kLongRoom + 3 * kHyperRoom + kGuidRoom,
};

enum : int {
  kServerMustSize = 0x01,
  kClientMustSize = 0x02,
  kHasReturn = 0x04,
  kHasPipes = 0x08,
  kHasExtensions = 0x40,
};

// Whether a string in the answer is measured against a count of the request.
enum class SizedAnswer : bool { kNo, kYes };

struct Sizes {
  int request;
  int answer;
};

// `parameters` are those behind the binding handle, the return code last.
template <std::size_t... ParameterSizes>
consteval auto Procedure(Operation operation, Sizes room, int flags, SizedAnswer sized,
                         const std::array<std::uint8_t, ParameterSizes>&... parameters) {
  const int count = sizeof...(parameters);
  const int check = sized == SizedAnswer::kYes ? 1 : 0;
  return Join(B(0, 0x48), L(0),  // explicit handle, modern initialisation
              S(static_cast<int>(operation)), S(Stack(count + 1)), B(kBindPrimitive, 0),
              S(Stack(0)),                      // the binding handle
              S(room.request), S(room.answer),  //
              B(flags | kHasReturn | kHasExtensions, count),
              B(10, 0x01 | check << 1),    // extensions: their size; checked counts
              S(check), S(0), S(0), S(0),  // client's, server's; no notify, no floats
              parameters...);
}

constexpr auto kPing = Procedure(Operation::kPing, {0, kLongRoom}, 0, SizedAnswer::kNo, Code(1));

constexpr auto kListFiles =
    Procedure(Operation::kListFiles,
              {kContextRoom + kShortRoom, kContextRoom + kHyperRoom + kGuidRoom + kLongRoom},
              kServerMustSize, SizedAnswer::kYes,   //
              Context(1, kFileListContextAt),       // Context
              HyperOut(2),                          // FileId
              GuidOut(3),                           // VolumeGuid
              UshortIn(4),                          // cchPath
              SizedStringOut(5, kListFilesPathAt),  // Path
              Code(6));

constexpr auto kListBitmaps = Procedure(Operation::kListBitmaps,
                                        {kGuidRoom + kHyperRoom + kContextRoom + kShortRoom,
                                         kContextRoom + kBitmapInfoRoom + kLongRoom},
                                        kServerMustSize, SizedAnswer::kYes,     //
                                        GuidIn(1),                              // VolumeGuid
                                        HyperIn(2),                             // FileId
                                        Context(3, kBitmapListContextAt),       // Context
                                        BitmapInfoOut(4),                       // Info
                                        UshortIn(5),                            // cchName
                                        SizedStringOut(6, kListBitmapsNameAt),  // Name
                                        Code(7));

constexpr auto kCopyBitmap =
    Procedure(Operation::kCopyBitmap, {kHyperRoom, kLongRoom}, kHasPipes, SizedAnswer::kNo,
              HyperIn(1),  // BitmapId
              PipeOut(2),  // Contents
              Code(3));

constexpr auto kStartTracking =
    Procedure(Operation::kStartTracking, {kLongRoom, kBitmapInfoRoom + kLongRoom}, kClientMustSize,
              SizedAnswer::kNo,
              WideStringIn(1),   // Path
              LongIn(2),         // BlockSize
              BitmapInfoOut(3),  // Info
              Code(4));

constexpr auto kStartTracking2 =
    Procedure(Operation::kStartTracking2,
              {kGuidRoom + 2 * kHyperRoom + kLongRoom, kBitmapInfoRoom + kLongRoom},
              kClientMustSize, SizedAnswer::kNo,
              WideStringIn(1),   // Path
              GuidIn(2),         // VolumeGuid
              HyperIn(3),        // FileId
              HyperIn(4),        // FileSize
              LongIn(5),         // BlockSize
              BitmapInfoOut(6),  // Info
              Code(7));

constexpr auto kStopTracking =
    Procedure(Operation::kStopTracking, {0, kLongRoom}, kClientMustSize, SizedAnswer::kNo,
              WideStringIn(1),  // Path
              Code(2));

constexpr auto kDeleteBitmap =
    Procedure(Operation::kDeleteBitmap, {kHyperRoom, kLongRoom}, 0, SizedAnswer::kNo,
              HyperIn(1),  // BitmapId
              Code(2));

constexpr auto kSynchronizeBitmaps =
    Procedure(Operation::kSynchronizeBitmaps, {kHyperRoom, kLongRoom}, 0, SizedAnswer::kNo,
              HyperIn(1),  // RequestTime
              Code(2));

constexpr auto kGetDriverStatus =
    Procedure(Operation::kGetDriverStatus, {0, kLongRoom}, 0, SizedAnswer::kNo, Code(1));

constexpr auto kGetTrackedFiles =
    Procedure(Operation::kGetTrackedFiles, {0, kLongRoom}, kHasPipes, SizedAnswer::kNo,
              PipeOut(1),  // Stream
              Code(2));

template <std::size_t... ProcedureSizes>
consteval auto OffsetsOf(const std::array<std::uint8_t, ProcedureSizes>&...) {
  std::array<std::uint16_t, sizeof...(ProcedureSizes)> offsets = {};
  std::size_t index = 0;
  std::size_t at = 0;
  ((offsets[index++] = static_cast<std::uint16_t>(at), at += ProcedureSizes), ...);
  return offsets;
}

}  // namespace

// Both strings end in a zero.
constexpr std::array<std::uint8_t, kTypeFormatSize> kTypeFormat =
    Join(kNoType, kFileListContext, kBitmapListContext, kWideString, kHyperOut, kGuidBytes, kGuid,
         kBitmapInfo, kListFilesPath, kListBitmapsName, kPipeElement, kBytePipe, B(0));

constexpr std::array<std::uint8_t, kProcedureFormatSize> kProcedureFormat = Join(
    kPing, kListFiles, kListBitmaps, kCopyBitmap, kStartTracking, kStartTracking2, kStopTracking,
    kDeleteBitmap, kSynchronizeBitmaps, kGetDriverStatus, kGetTrackedFiles, B(0));

constexpr std::array<std::uint16_t, kOperations> kProcedureOffsets = OffsetsOf(
    kPing, kListFiles, kListBitmaps, kCopyBitmap, kStartTracking, kStartTracking2, kStopTracking,
    kDeleteBitmap, kSynchronizeBitmaps, kGetDriverStatus, kGetTrackedFiles);

}  // namespace zel
