#include "zelctl/checksum.h"

#include <array>

namespace zel::ctl {

namespace {

constexpr std::uint64_t kPolynomial = 0xC96C5795D7870F42;

constexpr std::array<std::uint64_t, 256> MakeTable() {
  std::array<std::uint64_t, 256> table = {};
  for (std::uint64_t byte = 0; byte < table.size(); ++byte) {
    std::uint64_t rest = byte;
    for (int bit = 0; bit < 8; ++bit) rest = rest >> 1 ^ ((rest & 1) != 0 ? kPolynomial : 0);
    table[byte] = rest;
  }
  return table;
}
constexpr std::array<std::uint64_t, 256> kTable = MakeTable();

}  // namespace

std::uint64_t Checksum(std::span<const std::byte> bytes) {
  std::uint64_t sum = ~std::uint64_t{0};
  for (const std::byte byte : bytes) {
    sum = kTable[(sum ^ std::to_integer<std::uint64_t>(byte)) & 0xFF] ^ sum >> 8;
  }
  return ~sum;
}

}  // namespace zel::ctl
