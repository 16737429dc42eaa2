#include "simulator/fltlib/pipe_procedure.h"

#include <cstring>

namespace zel::sim {

namespace {

// Format characters.
enum : unsigned char {
  kByte = 0x01,
  kChar = 0x02,
  kSmall = 0x03,
  kUsmall = 0x04,
  kShort = 0x06,
  kUshort = 0x07,
  kLong = 0x08,
  kUlong = 0x09,
  kHyper = 0x0B,
  kErrorStatus = 0x10,
  kBindPrimitive = 0x32,
  kPad = 0x5C,
  kPipe = 0xB5,
};

// Flags of a procedure and of a parameter.
constexpr unsigned kHasRpcFlags = 0x08;
constexpr unsigned kNewInitialisation = 0x40;
constexpr unsigned kHasReturn = 0x04;
constexpr unsigned kHasPipes = 0x08;
constexpr unsigned kHasExtensions = 0x40;
constexpr unsigned kIsPipe = 0x0004;
constexpr unsigned kIn = 0x0008;
constexpr unsigned kOut = 0x0010;
constexpr unsigned kReturn = 0x0020;
constexpr unsigned kBaseType = 0x0040;
constexpr unsigned kSimpleReference = 0x0100;
constexpr unsigned kDirectionAndKind = kIsPipe | kIn | kOut | kReturn | kBaseType;

// Where things are in the description of a procedure with an explicit primitive handle.
constexpr std::size_t kNumberAt = 6;
constexpr std::size_t kStackSizeAt = 8;
constexpr std::size_t kHandleAt = 10;
constexpr std::size_t kFlagsAt = 18;
constexpr std::size_t kCountAt = 19;
constexpr std::size_t kExtensionsAt = 20;
constexpr std::size_t kParameterBytes = 6;
constexpr std::size_t kSlotBytes = 8;

unsigned Short(const unsigned char* at) {
  return static_cast<unsigned>(at[0] | at[1] << 8);
}

std::size_t BaseTypeSize(unsigned char type) {
  switch (type) {
    case kByte:
    case kChar:
    case kSmall:
    case kUsmall:
      return 1;
    case kShort:
    case kUshort:
      return 2;
    case kLong:
    case kUlong:
    case kErrorStatus:
      return 4;
    case kHyper:
      return 8;
    default:
      return 0;
  }
}

// A pipe of bytes: its alignment, the offset of its element from where the offset stands, the
// element's size in memory and on the wire.
bool IsBytePipe(const unsigned char* type) {
  if (type[0] != kPipe || type[1] != 0 || Short(type + 4) != 1 || Short(type + 6) != 1)
    return false;
  const unsigned char* const element = type + 2 + static_cast<std::int16_t>(Short(type + 2));
  return element[0] == kByte && element[1] == kPad;
}

// One parameter of six bytes; `slot` is the one that is next on the stack.
bool ReadParameter(const unsigned char* at, const unsigned char* types, std::size_t slot, bool last,
                   PipeProcedure& procedure) {
  const unsigned flags = Short(at);
  if (Short(at + 2) != slot * kSlotBytes) return false;
  switch (flags & kDirectionAndKind) {
    case kIn | kBaseType:
      procedure.inputs.push_back({slot, BaseTypeSize(at[4])});
      return !last && procedure.inputs.back().size != 0;
    case kOut | kIsPipe:
      if (last || procedure.pipe_slot != 0 || (flags & kSimpleReference) == 0) return false;
      procedure.pipe_slot = slot;
      return IsBytePipe(types + Short(at + 4));
    case kOut | kReturn | kBaseType:
      return last && BaseTypeSize(at[4]) == 4;
    default:
      return false;
  }
}

// Without RPC flags everything lies four bytes earlier.
std::size_t NumberAt(const unsigned char* description) {
  return (description[1] & kHasRpcFlags) != 0 ? kNumberAt : kNumberAt - 4;
}

std::size_t AlignUp(std::size_t at, std::size_t alignment) {
  return (at + alignment - 1) / alignment * alignment;
}

}  // namespace

bool HasPipes(const unsigned char* description) {
  return description[0] == 0 && (description[1] & kHasRpcFlags) != 0 &&
         (description[kFlagsAt] & kHasPipes) != 0;
}

unsigned OperationNumber(const unsigned char* description) {
  return Short(description + NumberAt(description));
}

std::size_t CountSlots(const unsigned char* description) {
  const std::size_t number_at = NumberAt(description);
  const bool has_return = (description[number_at + kFlagsAt - kNumberAt] & kHasReturn) != 0;
  return Short(description + number_at + kStackSizeAt - kNumberAt) / kSlotBytes -
         (has_return ? 1 : 0);
}

std::optional<PipeProcedure> ReadPipeProcedure(const unsigned char* description,
                                               const unsigned char* types, unsigned number) {
  constexpr unsigned kFlags = kHasReturn | kHasPipes | kHasExtensions;
  const std::size_t count = description[kCountAt];
  if ((description[1] & kNewInitialisation) == 0 || Short(description + kNumberAt) != number ||
      description[kHandleAt] != kBindPrimitive || Short(description + kHandleAt + 2) != 0 ||
      (description[kFlagsAt] & kFlags) != kFlags || count + 1 > kMaxSlots ||
      Short(description + kStackSizeAt) != (count + 1) * kSlotBytes) {
    return std::nullopt;
  }
  PipeProcedure procedure = {};
  const unsigned char* at = description + kExtensionsAt + description[kExtensionsAt];
  for (std::size_t i = 1; i <= count; ++i, at += kParameterBytes) {
    if (!ReadParameter(at, types, i, i == count, procedure)) return std::nullopt;
  }
  if (procedure.pipe_slot == 0) return std::nullopt;
  return procedure;
}

bool ReadInputs(const PipeProcedure& procedure, std::span<const std::byte> request, Slots& slots) {
  std::size_t at = 0;
  for (const PipeProcedure::Input& input : procedure.inputs) {
    at = AlignUp(at, input.size);
    if (at + input.size > request.size()) return false;
    slots[input.slot] = 0;
    std::memcpy(&slots[input.slot], request.data() + at, input.size);
    at += input.size;
  }
  return true;
}

std::vector<std::byte> WriteInputs(const PipeProcedure& procedure, const Slots& slots) {
  std::vector<std::byte> request;
  for (const PipeProcedure::Input& input : procedure.inputs) {
    const std::size_t at = AlignUp(request.size(), input.size);
    request.resize(at + input.size);
    std::memcpy(request.data() + at, &slots[input.slot], input.size);
  }
  return request;
}

bool PipeResponse::Push(std::span<const std::byte> chunk) {
  if (ended_) return false;
  ended_ = chunk.empty();
  Append(static_cast<std::uint32_t>(chunk.size()));
  bytes_.insert(bytes_.end(), chunk.begin(), chunk.end());
  return true;
}

void PipeResponse::Append(std::uint32_t value) {
  bytes_.resize(AlignUp(bytes_.size(), sizeof value));
  const auto* const first = reinterpret_cast<const std::byte*>(&value);
  bytes_.insert(bytes_.end(), first, first + sizeof value);
}

}  // namespace zel::sim
