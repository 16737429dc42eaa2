// The reference of what receives messages: overlapped reads of the same bytes from a local message
// pipe, one after the other, of messages that are there already. Include in a program's one source
// file.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "win32/handles.h"

namespace zel::bench {

inline constexpr std::size_t kMessageBytes = 80;
inline constexpr std::size_t kPipedMessages = 500;  // what a pipe holds without a reader

class PipeReads {
 public:
  PipeReads() {
    const std::wstring name =
        L"\\\\.\\pipe\\zel-pipe-reads-" + std::to_wstring(::GetCurrentProcessId());
    read_end_.reset(::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                                       PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 1, 0, 65'536, 0,
                                       nullptr));
    write_end_.reset(
        ::CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!read_end_ || !write_end_) std::abort();
  }

  // Puts kPipedMessages messages into the pipe.
  void Fill() const {
    const char message[kMessageBytes] = {};
    for (std::size_t i = 0; i < kPipedMessages; ++i) {
      DWORD written = 0;
      if (!::WriteFile(write_end_.get(), message, sizeof message, &written, nullptr)) std::abort();
    }
  }

  void ReadAll() {
    for (std::size_t i = 0; i < kPipedMessages; ++i) ReadOne();
  }

  // Nanoseconds of one read, of the fastest of `rounds` rounds.
  double Nanoseconds(int rounds) {
    double best = std::numeric_limits<double>::max();
    for (int round = 0; round < rounds; ++round) {
      Fill();
      best = std::min(best, BestSeconds(1, [this] { ReadAll(); }));
    }
    return best * 1e9 / static_cast<double>(kPipedMessages);
  }

 private:
  void ReadOne() {
    OVERLAPPED overlapped = {};
    overlapped.hEvent = event_.get();
    ::ResetEvent(event_.get());
    if (!::ReadFile(read_end_.get(), buffer_.data(), static_cast<DWORD>(buffer_.size()), nullptr,
                    &overlapped) &&
        ::GetLastError() != ERROR_IO_PENDING) {
      std::abort();
    }
    ::WaitForSingleObject(event_.get(), INFINITE);
    if (overlapped.InternalHigh != kMessageBytes) std::abort();
  }

  UniqueFile read_end_;
  UniqueFile write_end_;
  UniqueEvent event_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::vector<std::byte> buffer_ = std::vector<std::byte>(65'536);
};

}  // namespace zel::bench
