// Reads values off the front of bytes that somebody else wrote. Pure.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>
#include <span>
#include <type_traits>

namespace zel {

static_assert(std::endian::native == std::endian::little, "values are read as they are");

class ByteReader {
 public:
  explicit ByteReader(std::span<const std::byte> bytes) : bytes_(bytes) {}

  // False, and nothing read, when there are not that many bytes.
  template <class T>
  [[nodiscard]] bool Read(T& value) {
    static_assert(std::is_trivially_copyable_v<T>);
    std::span<const std::byte> bytes;
    if (!Take(sizeof value, bytes)) return false;
    std::memcpy(&value, bytes.data(), sizeof value);
    return true;
  }
  [[nodiscard]] bool Take(std::size_t count, std::span<const std::byte>& taken) {
    if (count > bytes_.size() - at_) return false;
    taken = bytes_.subspan(at_, count);
    at_ += count;
    return true;
  }

  // Skips to the next multiple of `alignment` from the first byte on. False when it lies outside.
  [[nodiscard]] bool Align(std::size_t alignment) {
    std::span<const std::byte> padding;
    return Take((alignment - at_ % alignment) % alignment, padding);
  }

  [[nodiscard]] bool at_end() const { return at_ == bytes_.size(); }

 private:
  std::span<const std::byte> bytes_;
  std::size_t at_ = 0;
};

}  // namespace zel
