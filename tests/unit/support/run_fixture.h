// Two tracked files, one of them with a bitmap, and the words of a command line.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/unit/support/tool_fixture.h"
#include "zelctl/run.h"

namespace zel::test {

using Words = std::vector<std::string>;

inline constexpr char kId[] = "0x000500000001a9f0";

class RunTest : public ToolTest {
 protected:
  void TrackTwoFiles() {
    server.files = {{.file = {kVolume, kFile}, .path = "C:\\data\\One.vhdx", .bitmaps = {kBitmap}},
                    {.file = {kVolume, 9}, .path = "C:\\data\\two", .bitmaps = {}}};
    server.bitmaps = {{.id = kBitmap,
                       .file = {kVolume, kFile},
                       .block_size = 65'536,
                       .creation_time = kCreated,
                       .file_size = 515,
                       .file_name = "\\\\?\\C:\\cbt\\x"}};
  }
  void Serve(Bytes bitmap) { server.contents[kBitmap] = std::move(bitmap); }
};

}  // namespace zel::test
