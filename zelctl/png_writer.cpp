#include "zelctl/png_writer.h"

#include <algorithm>
#include <string_view>

namespace zel::ctl {

namespace {

void AppendBigEndian(std::string& bytes, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
}

void AppendLittleEndian16(std::string& bytes, std::uint32_t value) {
  bytes += static_cast<char>(value);
  bytes += static_cast<char>(value >> 8);
}

constexpr std::array<std::uint32_t, 256> MakeCrcTable() {
  std::array<std::uint32_t, 256> table = {};
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    std::uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit)
      value = (value & 1) != 0 ? 0xEDB88320 ^ value >> 1 : value >> 1;
    table[i] = value;
  }
  return table;
}

std::uint32_t Crc32(std::string_view bytes) {
  static constexpr std::array<std::uint32_t, 256> kTable = MakeCrcTable();
  std::uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc = kTable[(crc ^ static_cast<std::uint8_t>(byte)) & 0xFF] ^ crc >> 8;
  }
  return ~crc;
}

std::uint32_t Adler32(std::string_view bytes) {
  std::uint32_t low = 1;
  std::uint32_t high = 0;
  for (const char byte : bytes) {
    low = (low + static_cast<std::uint8_t>(byte)) % 65521;
    high = (high + low) % 65521;
  }
  return high << 16 | low;
}

// A zlib stream of stored blocks.
std::string Store(std::string_view bytes) {
  constexpr std::size_t kLongestBlock = 65535;
  std::string stream = "\x78\x01";
  const std::uint32_t checksum = Adler32(bytes);
  do {
    const std::string_view block = bytes.substr(0, kLongestBlock);
    bytes.remove_prefix(block.size());
    stream += bytes.empty() ? '\1' : '\0';  // whether it is the last block
    AppendLittleEndian16(stream, static_cast<std::uint32_t>(block.size()));
    AppendLittleEndian16(stream, ~static_cast<std::uint32_t>(block.size()));
    stream += block;
  } while (!bytes.empty());
  AppendBigEndian(stream, checksum);
  return stream;
}

void AppendChunk(std::string& png, std::string_view type, std::string_view data) {
  AppendBigEndian(png, static_cast<std::uint32_t>(data.size()));
  const std::string body = std::string(type).append(data);
  png += body;
  AppendBigEndian(png, Crc32(body));
}

std::string Header(const Picture& picture) {
  std::string header;
  AppendBigEndian(header, picture.width);
  AppendBigEndian(header, picture.height);
  // Four bits a pixel, colours from a palette; the one compression, filter method, no interlacing.
  constexpr std::string_view kKind{"\4\3\0\0\0", 5};
  return header.append(kKind);
}

std::string PaletteBytes(const Palette& palette) {
  std::string bytes;
  for (const Colour& colour : palette) {
    for (const std::uint8_t part : {colour.red, colour.green, colour.blue}) {
      bytes += static_cast<char>(part);
    }
  }
  return bytes;
}

// Each line behind its filter (none), two pixels a byte, the left one in the high half.
std::string Lines(const Picture& picture) {
  std::string lines;
  for (std::uint32_t y = 0; y < picture.height; ++y) {
    lines += '\0';
    const std::uint8_t* const line = picture.pixels.data() + std::size_t{y} * picture.width;
    for (std::uint32_t x = 0; x < picture.width; x += 2) {
      const unsigned right = x + 1 < picture.width ? line[x + 1] : 0;
      lines += static_cast<char>(line[x] << 4 | right);
    }
  }
  return lines;
}

}  // namespace

std::string EncodePng(const Picture& picture) {
  std::string png = "\x89PNG\r\n\x1A\n";
  AppendChunk(png, "IHDR", Header(picture));
  AppendChunk(png, "PLTE", PaletteBytes(picture.palette));
  AppendChunk(png, "IDAT", Store(Lines(picture)));
  AppendChunk(png, "IEND", {});
  return png;
}

}  // namespace zel::ctl
