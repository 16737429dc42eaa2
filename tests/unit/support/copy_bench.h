// One file, its service and one copy, and zelctl between them.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/support/played_service.h"
#include "tests/unit/support/tool_fixture.h"
#include "zelctl/id_text.h"

namespace zel::test {

using Words = std::vector<std::string>;

inline constexpr char kLive[] = "C:\\live";
inline constexpr char kCopy[] = "D:\\copy";

// A machine on which somebody does something just before a run settles on its moment, or removes a
// file.
class BusyMachine : public MemoryMachine {
 public:
  FileTime PastMoment() override {
    if (const auto act = std::exchange(before_moment, {})) act();
    return MemoryMachine::PastMoment();
  }

  std::uint32_t Remove(const std::string& path) override {
    if (const auto act = std::exchange(before_removal, {})) act();
    return MemoryMachine::Remove(path);
  }

  std::function<void()> before_moment;   // once
  std::function<void()> before_removal;  // once
};

class CopyBench {
 public:
  CopyBench() : service(machine, kLive, random) {
    machine.volume = kVolume;
    machine.now = 1000;
    Write(0, 6400);
  }

  // The exit code; `answer` has the rest.
  int Run(Words words) {
    words.emplace_back("--json");
    RecordedTerminal terminal;
    const auto connect = [this](const ctl::Request&) {
      return std::make_unique<BorrowedServer>(service);
    };
    machine.now += 10;
    const auto code = static_cast<int>(ctl::RunTool(words, connect, machine, terminal));
    answer = nlohmann::ordered_json::parse(terminal.printed, nullptr, false);
    return code;
  }
  std::string Track() {
    EXPECT_EQ(Run({"track", kLive, "--block-size", "64"}), 0) << answer;
    return answer.value("bitmap_id", "");
  }
  void Export(const std::string& bitmap, const std::string& path) {
    EXPECT_EQ(Run({"export", bitmap, "-o", path}), 0) << answer;
  }
  // The bitmap's file as the service leaves it when it stops.
  void Close(const std::string& bitmap, const std::string& path) {
    machine.At(path).bytes = service.bitmaps.at(ctl::ParseId(bitmap).value_or(0));
  }
  void Delete(const std::string& bitmap) { EXPECT_EQ(Run({"delete", bitmap}), 0) << answer; }
  // The driver has told of it before anything else happens.
  void Write(std::uint64_t offset, std::uint64_t length) {
    machine.now += 10;
    service.Write(offset, length);
    ASSERT_TRUE(service.SynchronizeBitmaps(machine.now).ok());
  }
  // By other means than zelctl.
  void CopyByHand() {
    machine.files.erase(kCopy);
    machine.At(kCopy).bytes = service.Live().bytes;
    ++machine.now;
  }
  // The time at which it was made.
  std::string MakeSnapshot(const std::string& path) {
    machine.At(path).bytes = service.Live().bytes;
    return std::to_string(machine.now++);
  }

  static Words Apply(const std::string& bitmap, const Words& more = {}) {
    return With({"apply", "--bitmap", bitmap, "--from", kLive, "--to", kCopy}, more);
  }
  static Words ApplySnapshot(const std::string& bitmap, const std::string& path,
                             const std::string& time, const Words& more = {}) {
    return With({"apply", "--bitmap", bitmap, "--from", path, "--to", kCopy, "--force-identity",
                 "--snapshot-time", time},
                more);
  }
  static Words Full(const Words& more = {}) {
    return With({"apply", "--full", "--from", kLive, "--to", kCopy}, more);
  }
  static Words Backup(const Words& more = {}) {
    return With({"backup", "--from", kLive, "--to", kCopy, "--block-size", "64"}, more);
  }
  static Words With(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }

  void ExpectGood(const Words& words) {
    EXPECT_EQ(Run(words), 0) << answer;
    EXPECT_TRUE(IsEqual());
  }
  // The copy stays as it is. The message.
  std::string ExpectRefused(const Words& words, const std::string& reason) {
    const Bytes before = machine.At(kCopy).bytes;
    EXPECT_NE(Run(words), 0);
    EXPECT_EQ(answer["error"]["reason"], reason) << answer;
    EXPECT_EQ(machine.At(kCopy).bytes, before) << "the copy is untouched";
    return answer["error"]["message"];
  }
  // Kills runs earlier and later until one leaves the copy neither as it was nor equal.
  void KillHalfWay(const Words& words) {
    const Bytes before = machine.At(kCopy).bytes;
    for (int change = 0; machine.At(kCopy).bytes == before; ++change) {
      machine.death = {.changes = 0, .fail_at = change};
      ASSERT_NE(Run(words), 0) << "no kill met the copy";
    }
    machine.death = {};
    ASSERT_FALSE(IsEqual());
  }
  bool IsEqual() { return machine.At(kCopy).bytes == service.Live().bytes; }

  std::mt19937 random{20'261'122};
  BusyMachine machine;
  PlayedService service;
  nlohmann::ordered_json answer;  // of the last run
};

}  // namespace zel::test
