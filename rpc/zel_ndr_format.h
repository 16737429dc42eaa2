// The stub descriptions of rpc/zel.idl for the NDR engine, in its Oicf form, as MIDL would write
// them for 64-bit x86; the tables of both sides point here. Pure.
//
// Format: one byte string describes the types, one the procedures, which name types by their
// offsets in the first. What each piece stands for is said beside it in zel_ndr_format.cpp.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "rpc/zel_interface.h"

namespace zel {

inline constexpr std::size_t kTypeFormatSize = 79;
extern const std::array<std::uint8_t, kTypeFormatSize> kTypeFormat;

inline constexpr std::size_t kProcedureFormatSize = 553;
extern const std::array<std::uint8_t, kProcedureFormatSize> kProcedureFormat;

// Where each operation begins in kProcedureFormat, in the order of their numbers.
extern const std::array<std::uint16_t, kOperations> kProcedureOffsets;

[[nodiscard]] inline const std::uint8_t* ProcedureFormat(Operation operation) {
  return &kProcedureFormat[kProcedureOffsets[static_cast<std::size_t>(operation)]];
}

}  // namespace zel
