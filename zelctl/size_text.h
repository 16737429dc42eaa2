// Numbers of bytes as people write and read them. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zel::ctl {

// Digits, hexadecimal ones after 0x, and perhaps one of K, M, G, T (powers of 1024, in either case)
// with or without "iB" behind it: 4096, 0x1000, 64K, 1MiB. None for anything else and for what 64
// bits cannot hold.
[[nodiscard]] std::optional<std::uint64_t> ParseSize(std::string_view text);

// "512 bytes", "64.0 KiB", "1.5 GiB".
[[nodiscard]] std::string FormatSize(std::uint64_t bytes);

// The same where nothing is rounded away by it, and all the bytes otherwise: "64.0 KiB",
// "4095 bytes". `bytes` below 2^60.
[[nodiscard]] std::string FormatExactSize(std::uint64_t bytes);

// A place in a file of `file_size` bytes, in at most ten characters. All places of one file have
// the same unit, the smallest in which its size has at most four digits: "0.0 GiB", "1075.2 GiB".
[[nodiscard]] std::string FormatOffset(std::uint64_t offset, std::uint64_t file_size);

}  // namespace zel::ctl
