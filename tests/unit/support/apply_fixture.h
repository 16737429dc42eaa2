// A source of ten blocks, its copy that a full pass has made, and a bitmap that was begun before.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "tests/unit/support/tool_fixture.h"
#include "zelctl/copies/copy_record.h"
#include "zelctl/id_text.h"

namespace zel::test {

inline constexpr char kSource[] = "C:\\source";
inline constexpr char kCopy[] = "D:\\copy";
inline constexpr char kRecords[] = "D:\\.zelctl\\";
inline constexpr FileTime kStart = kCreated + 1000;
inline constexpr FileTime kSecond = 10'000'000;
inline constexpr std::uint32_t kBlock = 4096;

class ApplyTest : public ToolTest {
 protected:
  ApplyTest() {
    Bytes& source = machine.At(kSource).bytes;
    for (int i = 0; i < 10 * 4096; ++i) source.push_back(static_cast<std::byte>(i * 31 >> 3));
    machine.At(kSource).id = kFile;
    bitmap = MakeBitmapBytes(source.size(), kBlock);
    machine.now = kStart;
    EXPECT_EQ(Run({"apply", "--full", "--from", kSource, "--to", kCopy}), 0);
    machine.At(kSource).reads.clear();
    server.calls.clear();
    machine.now = kStart + 1000;
    Publish();
  }

  // What the service sends from now on: `bitmap`, in use.
  void Publish() {
    Bytes& sent = server.contents[kBitmap] = bitmap;
    ChangeHeader(sent, [](BitmapFileHeader& header) { header.ClosedCleanly = 0; });
    ctl::BitmapFile exported = ToBitmap(bitmap);
    ctl::MakeExport(exported, machine.now);
    machine.At("B:\\bitmap").bytes = exported.bytes;
  }
  void WriteBlock(std::uint64_t block, std::byte value) {
    Bytes& source = machine.At(kSource).bytes;
    const std::uint64_t end = std::min<std::uint64_t>((block + 1) * kBlock, source.size());
    std::fill(source.begin() + static_cast<long>(block * kBlock),
              source.begin() + static_cast<long>(end), value);
    SetBit(bitmap, block);
    Publish();
  }
  std::vector<std::string> Arguments(std::vector<std::string> more = {}) {
    std::vector<std::string> all = {"apply", "--bitmap", "0x000500000001a9f0", "--from", kSource,
                                    "--to",  kCopy};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }
  // The copy is told by another spelling.
  std::vector<std::string> ArgumentsThroughLink() {
    machine.files["E:\\link"] = machine.files[kCopy];
    machine.links["E:\\link"] = kCopy;
    std::vector<std::string> all = Arguments();
    all.back() = "E:\\link";
    return all;
  }
  // A bitmap of another time takes the place of the one before.
  void BeginBitmap(FileTime begun, std::uint32_t block_size = kBlock) {
    bitmap = MakeBitmapBytes(machine.At(kSource).bytes.size(), block_size, begun);
    Publish();
  }
  // What is known of the copy; the test fails where nothing is.
  ctl::CopyRecord Record() {
    const Bytes& bytes = machine.At(RecordPath()).bytes;
    const auto record =
        ctl::ParseRecord({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    EXPECT_TRUE(record.has_value());
    return record.value_or(ctl::CopyRecord{});
  }
  std::string RecordPath() { return kRecords + ctl::FormatId(machine.At(kCopy).id) + ".copy"; }
  bool IsHalfWay() { return Record().half_way.has_value(); }
  bool Equal() { return machine.At(kCopy).bytes == machine.At(kSource).bytes; }
  // Of several blocks that have changed.
  void DieInTheMidst() {
    machine.death = {.changes = 0, .fail_at = 8};
    EXPECT_EQ(Run(Arguments()), 1);
    machine.death = {};
    ASSERT_TRUE(IsHalfWay());
    ASSERT_FALSE(Equal());
  }
  // "reason: message".
  std::string Refusal(const std::vector<std::string>& arguments, int exit_code = 1) {
    const Bytes before = machine.At(kCopy).bytes;
    const nlohmann::ordered_json error = RunJson(arguments, exit_code)["error"];
    EXPECT_EQ(machine.At(kCopy).bytes, before) << "the copy is untouched";
    return error["reason"].get<std::string>() + ": " + error["message"].get<std::string>();
  }

  Bytes bitmap;
};

}  // namespace zel::test
