// A pipe that keeps what a server routine pushes into it.
#pragma once

#include <rpc.h>
#include <windows.h>

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "rpc/zel_interface.h"

namespace zel::test {

class RecordingPipe {
 public:
  // Push number `failing_push` (from 0) raises RPC_S_CALL_FAILED, as when the client has gone.
  explicit RecordingPipe(std::size_t failing_push = std::numeric_limits<std::size_t>::max())
      : failing_push_(failing_push) {}
  RecordingPipe(const RecordingPipe&) = delete;
  RecordingPipe& operator=(const RecordingPipe&) = delete;

  // Called by every push.
  std::function<void()> on_push = [] {};

  [[nodiscard]] wire::BytePipe* get() { return &pipe_; }
  [[nodiscard]] const std::vector<std::string>& pushes() const { return pushes_; }

  [[nodiscard]] std::vector<std::size_t> Sizes() const {
    std::vector<std::size_t> sizes;
    for (const std::string& push : pushes_) sizes.push_back(push.size());
    return sizes;
  }
  [[nodiscard]] std::string Bytes() const {
    std::string bytes;
    for (const std::string& push : pushes_) bytes += push;
    return bytes;
  }

 private:
  static void Push(char* state, unsigned char* buffer, std::uint32_t count) {
    auto& pipe = *reinterpret_cast<RecordingPipe*>(state);
    if (pipe.pushes_.size() == pipe.failing_push_) ::RpcRaiseException(RPC_S_CALL_FAILED);
    pipe.on_push();
    pipe.pushes_.emplace_back(reinterpret_cast<const char*>(buffer), count);
  }

  std::size_t failing_push_;
  std::vector<std::string> pushes_;
  wire::BytePipe pipe_ = {nullptr, Push, nullptr, reinterpret_cast<char*>(this)};
};

}  // namespace zel::test
