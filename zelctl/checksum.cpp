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

void RunningChecksum::Add(std::span<const std::byte> bytes) {
  for (const std::byte byte : bytes) {
    rest_ = kTable[(rest_ ^ std::to_integer<std::uint64_t>(byte)) & 0xFF] ^ rest_ >> 8;
  }
}

std::uint64_t Checksum(std::span<const std::byte> bytes) {
  RunningChecksum sum;
  sum.Add(bytes);
  return sum.value();
}

}  // namespace zel::ctl
