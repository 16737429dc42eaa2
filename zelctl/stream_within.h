// A call that sends a stream, given up when it takes too long. Pure.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "zelctl/zel_server.h"

namespace zel::ctl {

// Hands pieces from the thread of a call to the one that waits for it, one at a time.
template <class Result>
class Handover {
 public:
  // The sender waits until the piece has been taken, and answers what its taker did.
  std::uint32_t Give(std::span<const std::byte> piece) {
    std::unique_lock lock(mutex_);
    if (verdict_ != 0) return verdict_;
    piece_ = piece;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !piece_ || verdict_ != 0; });
    return verdict_;
  }
  void End(Result result) {
    const std::lock_guard lock(mutex_);
    result_ = std::move(result);
    changed_.notify_all();
  }

  // Takes pieces until the end, or until the time is over: then nobody takes any more, and the
  // sender gets `given_up`. None then.
  std::optional<Result> TakeUntil(std::chrono::steady_clock::time_point deadline,
                                  const BitmapSink& sink, std::uint32_t given_up) {
    std::unique_lock lock(mutex_);
    while (changed_.wait_until(lock, deadline, [this] { return piece_ || result_; })) {
      if (!piece_) return std::move(result_);
      // The piece is the sender's, who waits.
      const std::span<const std::byte> piece = *piece_;
      lock.unlock();
      const std::uint32_t verdict = sink(piece);
      lock.lock();
      verdict_ = verdict;
      piece_.reset();
      changed_.notify_all();
    }
    verdict_ = given_up;
    changed_.notify_all();
    return std::nullopt;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<std::span<const std::byte>> piece_;
  std::uint32_t verdict_ = 0;  // not 0: nothing more is taken
  std::optional<Result> result_;
};

// What `send` answers, or `late` when it has not ended within `timeout`; 0 for no limit. `sink`
// gets the pieces on the caller's thread. A call that was given up goes on, on a thread of its own,
// until it offers the next piece, which is refused with `late.rpc_status`: it must own all that it
// uses besides the sink.
template <class Result>
Result StreamWithin(std::chrono::seconds timeout,
                    std::function<Result(const BitmapSink& sink)> send, const BitmapSink& sink,
                    Result late) {
  if (timeout.count() == 0) return send(sink);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const auto handover = std::make_shared<Handover<Result>>();
  std::thread([handover, send = std::move(send)] {
    handover->End(send([&](std::span<const std::byte> piece) { return handover->Give(piece); }));
  }).detach();
  const auto result = handover->TakeUntil(deadline, sink, late.rpc_status);
  return result.value_or(late);
}

}  // namespace zel::ctl
