#include "simulator/text.h"

#include <cstdio>
#include <iterator>

namespace zel::sim {

namespace {

// Exactly as many hexadecimal digits as `text` has.
template <class Number>
bool ParseDigits(std::string_view text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number, 16);
  return error == std::errc() && rest == end;
}

}  // namespace

bool ParseVolume(std::string_view text, VolumeGuid& volume) {
  if (text.size() != 36) return false;
  for (const std::size_t dash : {8, 13, 18, 23}) {
    if (text[dash] != '-') return false;
  }
  bool good = ParseDigits(text.substr(0, 8), volume.Data1) &&
              ParseDigits(text.substr(9, 4), volume.Data2) &&
              ParseDigits(text.substr(14, 4), volume.Data3);
  constexpr std::size_t kLastBytesAt[] = {19, 21, 24, 26, 28, 30, 32, 34};
  for (std::size_t i = 0; i < std::size(kLastBytesAt); ++i) {
    good = good && ParseDigits(text.substr(kLastBytesAt[i], 2), volume.Data4[i]);
  }
  return good;
}

std::string VolumeText(const VolumeGuid& volume) {
  char text[37];
  const auto* const d = volume.Data4;
  std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                static_cast<unsigned>(volume.Data1), volume.Data2, volume.Data3, d[0], d[1], d[2],
                d[3], d[4], d[5], d[6], d[7]);
  return text;
}

bool ParseBytes(std::string_view text, Bytes& bytes) {
  bytes.clear();
  if (text == "-") return true;
  if (text.empty() || text.size() % 2 != 0) return false;
  bytes.reserve(text.size() / 2);
  for (; !text.empty(); text.remove_prefix(2)) {
    std::uint8_t byte;
    if (!ParseDigits(text.substr(0, 2), byte)) return false;
    bytes.push_back(std::byte{byte});
  }
  return true;
}

std::string BytesText(const Bytes& bytes) {
  if (bytes.empty()) return "-";
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const std::byte byte : bytes) {
    text += kDigits[std::to_integer<unsigned>(byte) >> 4];
    text += kDigits[std::to_integer<unsigned>(byte) & 15];
  }
  return text;
}

std::string ResultText(std::uint32_t hresult) {
  char text[11];
  std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(hresult));
  return text;
}

}  // namespace zel::sim
