// The two ends of a pipe's answer: its bytes in memory, and who takes them.
#pragma once

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "simulator/fltlib/pipe_answer.h"

namespace zel::test {

class PlayedAnswer : public sim::AnswerBytes {
 public:
  explicit PlayedAnswer(std::span<const std::byte> bytes) : bytes_(bytes) {}

  std::uint32_t Read(std::span<std::byte> buffer) override {
    if (buffer.size() > bytes_.size()) return sim::kBadStubData;
    std::ranges::copy(bytes_.first(buffer.size()), buffer.begin());
    bytes_ = bytes_.subspan(buffer.size());
    return 0;
  }
  bool at_end() override { return bytes_.empty(); }

 private:
  std::span<const std::byte> bytes_;
};

class PlayedTaker : public sim::PipeTaker {
 public:
  std::uint32_t Alloc(std::uint32_t size, std::span<std::byte>& offered) override {
    wanted.push_back(size);
    buffer_.resize(room);
    offered = buffer_;
    return 0;
  }
  std::uint32_t Push(std::span<std::byte> bytes) override {
    if (pushes.size() == failing_push) return 112;  // ERROR_DISK_FULL
    pushes.emplace_back(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return 0;
  }

  std::size_t room = 100;
  std::size_t failing_push = std::numeric_limits<std::size_t>::max();
  std::vector<std::uint32_t> wanted;
  std::vector<std::string> pushes;

 private:
  std::vector<std::byte> buffer_;
};

}  // namespace zel::test
