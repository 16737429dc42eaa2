// A checksum that finds damage, not forgery. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zel::ctl {

// CRC-64 as ECMA-182 has it, reflected, begun and ended with all ones (CRC-64/XZ): every damage
// within 64 bits in a row is found.
[[nodiscard]] std::uint64_t Checksum(std::span<const std::byte> bytes);

// The same of bytes that come piece by piece.
class RunningChecksum {
 public:
  void Add(std::span<const std::byte> bytes);
  [[nodiscard]] std::uint64_t value() const { return ~rest_; }

 private:
  std::uint64_t rest_ = ~std::uint64_t{0};
};

}  // namespace zel::ctl
