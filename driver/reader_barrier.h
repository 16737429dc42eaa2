// The barrier that a synchronization waits for: every message that a reader had taken from the port
// when the barrier was raised has been processed. Pure: the port and the waking of a reader are the
// callers'.
//
// The driver's messages come in order but several readers take them: the last one may be processed
// while an earlier one still waits for its bitmap to be loaded, or for its reader to be told that
// its read is over. The system ends a read in the very thread that made it, so only the reader
// itself can say that its read has no message yet: it is probed.
//
//     a reader's epoch                       what the barrier does about it
//     even: between two reads     ---------- nothing to wait for
//       | BeginRead
//     odd: a read is under way    ---------- probes: raises `probe`, wakes the reader, waits
//       |  \ woken, its read is not over:         until `acknowledged` has reached the probe,
//       |   `- Acknowledge ------------------->   for then the read began to wait after it,
//       | the read is over, its message is
//       | processed; EndRead --------------->     or until the epoch is another one
//     even
//
// Threads: a ReaderState belongs to its reader, whose three functions it alone calls; any number of
// barriers may look at it meanwhile. A barrier belongs to one thread.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace zel {

inline constexpr std::size_t kMessageThreads = 4;

class ReaderState {
 public:
  // Before the port is asked for a message.
  void BeginRead() noexcept { epoch_.fetch_or(1, std::memory_order_release); }

  // When the message has been processed, or there is none.
  void EndRead() noexcept { epoch_.fetch_add(1, std::memory_order_release); }

  // Answers what probes there are, unless `read_is_over()`; called by a reader that was woken. The
  // order counts: a read that had its message when the probe was raised is over by now.
  template <class ReadIsOver>
  void Acknowledge(ReadIsOver read_is_over) {
    const std::uint64_t probe = probe_.load(std::memory_order_acquire);
    if (!read_is_over()) acknowledged_.store(probe, std::memory_order_release);
  }

 private:
  friend class ReaderBarrier;

  std::atomic<std::uint64_t> epoch_{0};  // counts up
  std::atomic<std::uint64_t> probe_{0};  // the latest probe's number
  std::atomic<std::uint64_t> acknowledged_{0};
};

using ReaderStates = std::array<ReaderState, kMessageThreads>;

class ReaderBarrier {
 public:
  // Raised now, for `readers`, which it keeps alive; null: nobody reads. `wake` is called for every
  // reader that is to call Acknowledge.
  ReaderBarrier(std::shared_ptr<ReaderStates> readers,
                const std::function<void(std::size_t reader)>& wake);

  // Whether every message taken before the barrier was raised has been processed; what came later
  // does not count. It takes the readers a moment to say so even when there are none.
  [[nodiscard]] bool Passed() const;

 private:
  struct Probe {
    std::uint64_t epoch = 0;  // of the reader when it was probed; 0: it was between two reads
    std::uint64_t number = 0;
  };

  std::shared_ptr<ReaderStates> readers_;
  std::array<Probe, kMessageThreads> probes_ = {};
};

}  // namespace zel
