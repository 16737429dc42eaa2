// A picture in 16 colours as the bytes of a PNG file. Pure.
//
// Format: ISO 15948. Written without compression: a picture of this program is some 100 KiB.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zel::ctl {

struct Colour {
  std::uint8_t red;
  std::uint8_t green;
  std::uint8_t blue;
};
using Palette = std::array<Colour, 16>;

struct Picture {
  std::uint32_t width;
  std::uint32_t height;
  Palette palette;
  std::vector<std::uint8_t> pixels;  // indexes into the palette, line by line from the top left
};

// Width and height > 0, and a pixel for each point.
[[nodiscard]] std::string EncodePng(const Picture& picture);

}  // namespace zel::ctl
