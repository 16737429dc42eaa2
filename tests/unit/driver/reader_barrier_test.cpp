#include "driver/reader_barrier.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "driver/message_times.h"

namespace zel {
namespace {

// The driver's port in memory: messages in order, each for the first reader whose read waits.
class MemoryPort {
 public:
  enum class Event { kReceived, kWoken, kClosed };

  // Returns the message's number; they count from 0.
  std::size_t Send() {
    const std::lock_guard guard(lock_);
    queue_.push_back(sent_);
    Deliver();
    return sent_++;
  }

  void StartRead(std::size_t reader) {
    const std::lock_guard guard(lock_);
    reads_[reader].waits = true;
    Deliver();
  }

  Event Wait(std::size_t reader, std::size_t& message) {
    std::unique_lock guard(lock_);
    Read& read = reads_[reader];
    changed_.wait(guard, [&] { return read.received || read.woken || closed_; });
    // First, as if the system told late that there is a message.
    if (std::exchange(read.woken, false)) return Event::kWoken;
    if (!read.received) return Event::kClosed;
    read.received = false;
    message = read.message;
    return Event::kReceived;
  }

  bool ReadIsOver(std::size_t reader) {
    const std::lock_guard guard(lock_);
    return reads_[reader].received;
  }

  void Wake(std::size_t reader) {
    const std::lock_guard guard(lock_);
    reads_[reader].woken = true;
    changed_.notify_all();
  }

  void Close() {
    const std::lock_guard guard(lock_);
    closed_ = true;
    changed_.notify_all();
  }

 private:
  struct Read {
    bool waits = false;
    bool received = false;
    bool woken = false;
    std::size_t message = 0;
  };

  void Deliver() {
    for (Read& read : reads_) {
      if (queue_.empty()) return;
      if (!read.waits) continue;
      read.waits = false;
      read.received = true;
      read.message = queue_.front();
      queue_.pop_front();
      changed_.notify_all();
    }
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<std::size_t> queue_;
  std::size_t sent_ = 0;
  std::array<Read, kMessageThreads> reads_ = {};
  bool closed_ = false;
};

// Readers on threads of their own and what they have done.
class Readers {
 public:
  static constexpr std::size_t kMost = 40'000;  // messages

  Readers() {
    for (std::size_t reader = 0; reader < kMessageThreads; ++reader) {
      threads_.emplace_back([this, reader] { Run(reader); });
    }
  }
  ~Readers() { port_.Close(); }

  std::size_t Send() { return port_.Send(); }

  // Sends a notification, waits as a synchronization does and returns the notification's number.
  std::size_t Synchronize() {
    const std::size_t notification = Send();
    while (last_received_.Get() < notification + 1) std::this_thread::yield();
    const ReaderBarrier barrier(states_, [this](std::size_t reader) { port_.Wake(reader); });
    while (!barrier.Passed()) std::this_thread::yield();
    return notification;
  }

  // Plain numbers: what orders them for the reader of them is the barrier alone.
  [[nodiscard]] bool IsProcessed(std::size_t message) const { return processed_[message] != 0; }

 private:
  void Run(std::size_t reader) {
    ReaderState& state = (*states_)[reader];
    std::size_t message = 0;
    for (;;) {
      state.BeginRead();
      port_.StartRead(reader);
      MemoryPort::Event event = port_.Wait(reader, message);
      while (event == MemoryPort::Event::kWoken) {
        state.Acknowledge([&] { return port_.ReadIsOver(reader); });
        event = port_.Wait(reader, message);
      }
      if (event == MemoryPort::Event::kReceived) Process(message);
      state.EndRead();
      if (event == MemoryPort::Event::kClosed) return;
    }
  }

  // Every message counts as a notification too; some take their time before they are processed.
  void Process(std::size_t message) {
    last_received_.Raise(message + 1);
    for (std::size_t i = 0; i < message * 7 % 11; ++i) std::this_thread::yield();
    processed_[message] = 1;
  }

  MemoryPort port_;
  std::shared_ptr<ReaderStates> states_ = std::make_shared<ReaderStates>();
  HighWaterMark last_received_;
  std::vector<int> processed_ = std::vector<int>(kMost);
  std::vector<std::jthread> threads_;  // first to go
};

TEST(ReaderBarrierTest, WithoutReadersIsPassedAtOnce) {
  const ReaderBarrier barrier(nullptr, [](std::size_t) { FAIL() << "nobody to wake"; });
  EXPECT_TRUE(barrier.Passed());
}

TEST(ReaderBarrierTest, ReaderBetweenTwoReadsIsNotWaitedFor) {
  const auto states = std::make_shared<ReaderStates>();
  (*states)[0].BeginRead();
  (*states)[0].EndRead();
  const ReaderBarrier barrier(states, [](std::size_t) { FAIL() << "nobody reads"; });
  EXPECT_TRUE(barrier.Passed());
}

TEST(ReaderBarrierTest, ReadUnderWayIsWaitedForUntilItsMessageIsProcessed) {
  const auto states = std::make_shared<ReaderStates>();
  ReaderState& reader = (*states)[2];
  reader.BeginRead();
  std::vector<std::size_t> woken;
  const ReaderBarrier barrier(states, [&](std::size_t i) { woken.push_back(i); });
  EXPECT_EQ(woken, std::vector<std::size_t>{2});
  EXPECT_FALSE(barrier.Passed());
  reader.Acknowledge([] { return true; });
  EXPECT_FALSE(barrier.Passed());
  reader.EndRead();
  EXPECT_TRUE(barrier.Passed());
  reader.BeginRead();
  EXPECT_TRUE(barrier.Passed()) << "a later read counts";
}

TEST(ReaderBarrierTest, ReadThatIsNotOverIsAcknowledgedForTheBarriersOfBeforeAlone) {
  const auto states = std::make_shared<ReaderStates>();
  ReaderState& reader = (*states)[0];
  reader.BeginRead();
  const auto wake = [](std::size_t) {};
  const ReaderBarrier before(states, wake);
  reader.Acknowledge([] { return false; });
  const ReaderBarrier after(states, wake);
  EXPECT_TRUE(before.Passed());
  EXPECT_FALSE(after.Passed());
}

TEST(ReaderBarrierTest, ProbeRaisedWhileTheReaderLooksAtItsReadIsNotAnswered) {
  const auto states = std::make_shared<ReaderStates>();
  ReaderState& reader = (*states)[0];
  reader.BeginRead();
  std::unique_ptr<ReaderBarrier> barrier;
  reader.Acknowledge([&] {
    barrier = std::make_unique<ReaderBarrier>(states, [](std::size_t) {});
    return false;
  });
  EXPECT_FALSE(barrier->Passed());
}

TEST(ReaderBarrierTest, StressNoMessageOfBeforeIsInHandAfterASynchronization) {
  constexpr int kRounds = 1'000;
  constexpr std::size_t kSynchronizers = 2;
  static_assert(kSynchronizers * kRounds * 6 < Readers::kMost);
  Readers readers;
  std::vector<std::jthread> synchronizers;
  for (std::size_t thread = 0; thread < kSynchronizers; ++thread) {
    synchronizers.emplace_back([&] {
      std::size_t checked = 0;
      for (int round = 0; round < kRounds; ++round) {
        for (int i = 0; i < round % 6; ++i) readers.Send();
        const std::size_t end = readers.Synchronize();
        for (; checked < end; ++checked) {
          ASSERT_TRUE(readers.IsProcessed(checked)) << checked << " of " << end;
        }
      }
    });
  }
}

}  // namespace
}  // namespace zel
