// What speaks against a bitmap file that has no checksum, though its header agrees with itself: one
// that the service has closed, or sent to somebody. Pure.
//
// A damaged block size that needs as many bytes of bits puts every block in a wrong place. The
// file's own bytes hardly show it; its name does, as long as it has the one that the service gave
// it, and so does the service, as long as it has that bitmap.
#pragma once

#include <optional>
#include <string>

#include "zelctl/bitmap_file.h"
#include "zelctl/commands.h"

namespace zel::ctl {

// What is wrong with the file of that path; none for one with a checksum, and where nothing tells.
[[nodiscard]] std::optional<std::string> FaultOfUnsealed(const std::string& path,
                                                         const BitmapFile& bitmap);

// Against what the service says of the same bitmap, if it answers and still has it.
[[nodiscard]] MaybeFailure CheckUnsealedWithService(Surroundings& with, const BitmapFile& bitmap);

}  // namespace zel::ctl
