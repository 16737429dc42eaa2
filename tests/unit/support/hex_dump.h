// The worked examples of the documents: lines of an offset and bytes, in hexadecimal digits.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace zel::test {

struct HexDump {
  std::string bytes;      // zeros where the dump leaves lines out
  std::size_t lines = 0;  // found in the document
};

// The one dump in a document, which shows `length` bytes.
inline HexDump ReadHexDump(const std::string& path, std::size_t length) {
  std::ifstream document(path);
  EXPECT_TRUE(document) << path;
  HexDump dump{std::string(length, '\0')};
  for (std::string line; std::getline(document, line);) {
    std::istringstream fields(line);
    std::string offset_text;
    fields >> offset_text;
    if (line.substr(0, 4) != "    " || offset_text.size() != 8 || offset_text[0] != '0') continue;
    ++dump.lines;
    std::size_t offset = std::stoul(offset_text, nullptr, 16);
    for (std::string byte; fields >> byte; ++offset) {
      dump.bytes.at(offset) = static_cast<char>(std::stoul(byte, nullptr, 16));
    }
  }
  return dump;
}

}  // namespace zel::test
