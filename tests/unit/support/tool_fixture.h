// The whole tool on a machine in memory, before a service that is played.
#pragma once

#include <gmock/gmock.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/unit/support/bitmap_bytes.h"
#include "tests/unit/support/memory_files.h"
#include "zelctl/run.h"

namespace zel::test {

// Answers what a test puts into it and writes down what it was asked.
class PlayedServer : public ctl::ZelServer {
 public:
  ctl::Answer Ping() override { return Say("Ping"); }
  ctl::Answer GetTrackedFiles(std::vector<ctl::FileEntry>& listed) override {
    listed = files;
    return Say("GetTrackedFiles");
  }
  ctl::Answer ListBitmaps(const FileKey& file, std::vector<ctl::BitmapEntry>& listed) override {
    for (const ctl::BitmapEntry& bitmap : bitmaps) {
      if (bitmap.file == file) listed.push_back(bitmap);
    }
    return Say("ListBitmaps");
  }
  // In pieces, and with the answer that is to come after some of them.
  ctl::Answer CopyBitmap(BitmapId id, const ctl::BitmapSink& sink) override {
    const ctl::Answer answer = Say("CopyBitmap");
    if (!answer.ok()) return answer;
    if (!contents.contains(id)) return {.rpc_status = 0, .code = 1168};
    std::span<const std::byte> rest = contents[id];
    if (broken_off_after) rest = rest.first(std::min(*broken_off_after, rest.size()));
    while (!rest.empty()) {
      const auto piece = rest.first(std::min(piece_bytes, rest.size()));
      if (const std::uint32_t code = sink(piece)) return {.rpc_status = code, .code = 0};
      rest = rest.subspan(piece.size());
    }
    return broken_off_after ? broken_off_with : answer;
  }
  ctl::Answer StartTracking(const std::string& path, std::uint32_t block_size,
                            ctl::BitmapEntry& bitmap) override {
    bitmap = {.id = begun,
              .file = {kVolume, kFile},
              .block_size = block_size,
              .creation_time = kCreated,
              .file_size = 515,
              .file_name = {}};
    return Say("StartTracking " + path);
  }
  ctl::Answer StopTracking(const std::string& path) override { return Say("StopTracking " + path); }
  ctl::Answer DeleteBitmap(BitmapId) override { return Say("DeleteBitmap"); }
  ctl::Answer SynchronizeBitmaps(FileTime time) override {
    return Say("SynchronizeBitmaps " + std::to_string(time));
  }
  ctl::Answer GetDriverStatus() override { return Say("GetDriverStatus"); }
  std::string Remark() const override { return remark; }

  std::vector<ctl::FileEntry> files;
  std::vector<ctl::BitmapEntry> bitmaps;
  BitmapId begun = kBitmap;                          // by StartTracking
  std::size_t piece_bytes = 100;                     // of what a bitmap is sent in
  std::optional<std::size_t> broken_off_after = {};  // bytes of a bitmap
  ctl::Answer broken_off_with = {};
  std::map<BitmapId, Bytes> contents;
  std::map<std::string, ctl::Answer> answers;  // by the first word of what was asked
  std::vector<std::string> calls;
  std::string remark;

 private:
  ctl::Answer Say(const std::string& call) {
    calls.push_back(call);
    const auto found = answers.find(call.substr(0, call.find(' ')));
    return found == answers.end() ? ctl::Answer{} : found->second;
  }
};

// Passes on to a server that outlives it.
class BorrowedServer : public ctl::ZelServer {
 public:
  explicit BorrowedServer(ctl::ZelServer& server) : server_(server) {}
  ctl::Answer Ping() override { return server_.Ping(); }
  ctl::Answer GetTrackedFiles(std::vector<ctl::FileEntry>& files) override {
    return server_.GetTrackedFiles(files);
  }
  ctl::Answer ListBitmaps(const FileKey& file, std::vector<ctl::BitmapEntry>& list) override {
    return server_.ListBitmaps(file, list);
  }
  ctl::Answer CopyBitmap(BitmapId id, const ctl::BitmapSink& sink) override {
    return server_.CopyBitmap(id, sink);
  }
  ctl::Answer StartTracking(const std::string& path, std::uint32_t block_size,
                            ctl::BitmapEntry& bitmap) override {
    return server_.StartTracking(path, block_size, bitmap);
  }
  ctl::Answer StopTracking(const std::string& path) override { return server_.StopTracking(path); }
  ctl::Answer DeleteBitmap(BitmapId id) override { return server_.DeleteBitmap(id); }
  ctl::Answer SynchronizeBitmaps(FileTime time) override {
    return server_.SynchronizeBitmaps(time);
  }
  ctl::Answer GetDriverStatus() override { return server_.GetDriverStatus(); }
  std::string Remark() const override { return server_.Remark(); }

 private:
  ctl::ZelServer& server_;
};

class RecordedTerminal : public ctl::Terminal {
 public:
  bool Print(std::string_view text) override {
    printed += text;
    return !is_closed;
  }
  void Note(std::string_view line) override { notes.append(line).append("\n"); }
  void DrawProgress(std::string_view line) override { progress.emplace_back(line); }
  std::optional<bool> Ask(std::string_view question) override {
    if (!to_person) return std::nullopt;
    questions.emplace_back(question);
    return answer;
  }
  bool prints_to_person() const override { return to_person; }
  bool notes_to_person() const override { return to_person; }
  ctl::TextMapLayout map_layout() const override {
    return {.columns = 80, .lines = 24, .ascii = true};
  }

  bool to_person = false;
  bool is_closed = false;
  std::string printed;
  std::string notes;
  std::vector<std::string> progress;
  bool answer = false;  // to each question
  std::vector<std::string> questions;
};

class ToolTest : public testing::Test {
 protected:
  ToolTest() { machine.volume = kVolume; }

  // Runs the tool; what it printed is in `terminal` and its exit code is the answer.
  int Run(const std::vector<std::string>& arguments) {
    terminal.printed.clear();
    terminal.notes.clear();
    terminal.progress.clear();
    const auto connect = [this](const ctl::Request& request) {
      asked_for = request;
      return std::make_unique<BorrowedServer>(server);
    };
    return static_cast<int>(ctl::RunTool(arguments, connect, machine, terminal));
  }

  // Runs it with --json and reads the one object that it must print.
  nlohmann::ordered_json RunJson(std::vector<std::string> arguments, int exit_code = 0) {
    arguments.push_back("--json");
    EXPECT_EQ(Run(arguments), exit_code);
    EXPECT_EQ(terminal.notes, "");
    auto json = nlohmann::ordered_json::parse(terminal.printed, nullptr, false);
    EXPECT_TRUE(json.is_object()) << terminal.printed;
    EXPECT_EQ(json.value("ok", exit_code != 0), exit_code == 0) << terminal.printed;
    return json;
  }

  MemoryMachine machine;
  PlayedServer server;
  RecordedTerminal terminal;
  ctl::Request asked_for;
};

}  // namespace zel::test
