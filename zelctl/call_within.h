// A call that is given up when it takes too long. Pure.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace zel::ctl {

// What `call` answers, or `late` when it has not answered within `timeout`; 0 for no limit. A call
// that was given up goes on, on a thread of its own, until it ends or the process does: it must own
// all that it uses.
template <class Result>
Result CallWithin(std::chrono::seconds timeout, std::function<Result()> call, Result late) {
  if (timeout.count() == 0) return call();
  struct Shared {
    std::mutex mutex;
    std::condition_variable ended;
    std::optional<Result> result;
  };
  const auto shared = std::make_shared<Shared>();
  std::thread([shared, call = std::move(call)] {
    Result result = call();
    const std::lock_guard lock(shared->mutex);
    shared->result = std::move(result);
    shared->ended.notify_one();
  }).detach();
  std::unique_lock lock(shared->mutex);
  shared->ended.wait_for(lock, timeout, [&] { return shared->result.has_value(); });
  return shared->result ? std::move(*shared->result) : std::move(late);
}

}  // namespace zel::ctl
