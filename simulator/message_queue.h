// The driver's queue of messages, with the faults that a test orders. Test bench only. Pure.
//
// What is lost (dropped, damaged on purpose, or over the bound) marks its file: the next message of
// that file, or one of its own as soon as the queue is empty and before any sync notification,
// says that changes went unreported.
// Threads: the caller holds the driver's lock.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "simulator/wire.h"

namespace zel::sim {

struct Message {
  Bytes bytes;
  FileTime due;  // not handed over before
  bool sync;     // a sync notification keeps its place
  bool vaulted;  // queued while no service was connected
};

class MessageQueue {
 public:
  struct Counters {
    std::uint64_t queued = 0;
    std::uint64_t dropped = 0;
    std::uint64_t corrupted = 0;
    std::uint64_t duplicated = 0;
    std::uint64_t overflowed = 0;
    std::uint64_t vaulted = 0;
  };

  // Queues a message about a file, or loses it.
  void Add(EventMessage message, FileTime now);
  // Queues a sync notification behind everything, the news of lost changes included.
  void AddSync(EventMessage message, FileTime now);
  // Queues bytes as they stand.
  void AddRaw(Bytes bytes, FileTime now);
  void MarkUnreported(const FileKey& file) { pending_.insert(file); }

  // The next message, if there is one that is due.
  [[nodiscard]] std::optional<Message> Take(FileTime now);
  // When Take will next have one, as far as is known now.
  [[nodiscard]] std::optional<FileTime> WhenDue(FileTime now) const;
  // Puts messages that were taken back to the front, in their order.
  void PutBack(std::deque<Message> messages);

  void SetConnected(bool connected) { connected_ = connected; }
  void SetHeld(bool held) { held_ = held; }
  void SetDelay(FileTime delay) { delay_ = delay; }
  void SetLimit(std::uint64_t limit) { limit_ = limit; }
  void DropNext(std::uint64_t count) { drop_ = count; }
  void DuplicateNext(std::uint64_t count) { duplicate_ = count; }
  // `damage`: "magic", "type" or "short".
  void CorruptNext(std::uint64_t count, std::string_view damage);
  // Turns the order of what waits around; sync notifications keep their places.
  void ReverseWaiting();

  [[nodiscard]] std::size_t waiting() const { return waiting_.size(); }
  [[nodiscard]] std::size_t pending() const { return pending_.size(); }
  [[nodiscard]] const Counters& counters() const { return counters_; }

 private:
  void Push(Bytes bytes, FileTime now, bool sync = false);
  void TellPending(FileTime now);

  std::deque<Message> waiting_;
  std::set<FileKey> pending_;
  Counters counters_;
  std::uint64_t limit_ = 100'000;
  std::uint64_t next_id_ = 1;
  std::uint64_t drop_ = 0;
  std::uint64_t duplicate_ = 0;
  std::uint64_t corrupt_ = 0;
  std::string damage_;
  FileTime delay_ = 0;
  bool held_ = false;
  bool connected_ = false;
};

}  // namespace zel::sim
