// Files that commands write for somebody: nothing else is overwritten unasked. Pure.
#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "zelctl/commands.h"

namespace zel::ctl {

// What a file is known by.
using BeginsLike = bool (*)(std::span<const std::byte> bytes);

// Whether there is nothing at that path, or what may be replaced.
[[nodiscard]] MaybeFailure CheckMayWrite(Machine& machine, const Request& request,
                                         const std::string& path, BeginsLike same_kind);

// Writes the file whole or not at all. An existing one is replaced if it begins like one of the
// same kind, or --replace says so.
[[nodiscard]] MaybeFailure WriteOutput(Machine& machine, const Request& request,
                                       const std::string& path, std::span<const std::byte> contents,
                                       BeginsLike same_kind);

}  // namespace zel::ctl
