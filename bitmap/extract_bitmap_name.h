// Reading a bitmap file's name, with the messages for a malformed one.
#pragma once

#include <cstdint>
#include <string>

#include "common/types.h"

namespace zel {

// Parses the last component of `path`. An output that is null is neither parsed nor checked. False
// for a malformed name, which is logged; the outputs are then unchanged.
bool ExtractFromBitmapName(const std::wstring& path, std::uint32_t* block_size,
                           FileTime* creation_time);

}  // namespace zel
