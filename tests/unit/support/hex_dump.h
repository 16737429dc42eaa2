// The worked examples of the documents: lines of an offset and bytes, in hexadecimal digits.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace zel::test {

struct HexDump {
  std::string bytes;      // zeros where the dump leaves lines out; ends with its last line
  std::size_t lines = 0;  // found in the document
};

// The dumps in a document, in order; each begins with its line of the offset 0.
inline std::vector<HexDump> ReadHexDumps(const std::string& path) {
  std::ifstream document(path);
  EXPECT_TRUE(document) << path;
  std::vector<HexDump> dumps;
  for (std::string line; std::getline(document, line);) {
    std::istringstream fields(line);
    std::string offset_text;
    fields >> offset_text;
    if (line.substr(0, 4) != "    " || offset_text.size() != 8 || offset_text[0] != '0') continue;
    const std::size_t offset = std::stoul(offset_text, nullptr, 16);
    if (offset == 0) dumps.emplace_back();
    HexDump& dump = dumps.at(dumps.size() - 1);
    dump.bytes.resize(offset);
    ++dump.lines;
    for (std::string byte; fields >> byte;) {
      dump.bytes += static_cast<char>(std::stoul(byte, nullptr, 16));
    }
  }
  return dumps;
}

// The one dump in a document.
inline HexDump ReadHexDump(const std::string& path) {
  const std::vector<HexDump> dumps = ReadHexDumps(path);
  EXPECT_EQ(dumps.size(), 1u) << path;
  return dumps.empty() ? HexDump{} : dumps[0];
}

}  // namespace zel::test
