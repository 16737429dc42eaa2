// What the driver knows and decides: tracked files, its queue, what it was ordered to do.
// Test bench only. Pure.
//
// Delivery is at most once, as a filter port's is: a message that its reader has received is
// forgotten. When the service goes, only what no reader has received goes back to the front of the
// queue. The order `redeliver` makes it at least once: what was received and not processed goes
// back, too. Threads: the caller holds the driver's lock.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "simulator/message_queue.h"
#include "simulator/orders.h"
#include "simulator/read_log.h"
#include "simulator/tracked_list.h"

namespace zel::sim {

class DriverModel {
 public:
  // Reads the registry's list; nothing when it is malformed.
  using ReadList = std::function<std::optional<TrackedFiles>()>;

  // After an unclean shutdown every tracked file may have changes that were not reported.
  DriverModel(ReadList read_list, FileTime now, bool previous_shutdown_clean);

  // Obeys and answers in one line: "ok", "ok ..." or "refused HRESULT".
  [[nodiscard]] std::string Obey(const Order& order, FileTime now);

  // The port's side.
  void Connect();
  void Disconnect();
  // The next message that is due, to be handed over; null when there is none. It waits on until
  // HandedOver or Disconnect says what became of it.
  [[nodiscard]] const Message* Offer(FileTime now);
  // A read has taken the message that was offered last.
  void HandedOver();
  // A message lies in its reader's buffer, or its reader has processed it. May come before
  // HandedOver does.
  void Received(std::uint64_t message_id);
  void Processed(std::uint64_t message_id);
  [[nodiscard]] std::optional<FileTime> WhenDue(FileTime now) const { return queue_.WhenDue(now); }

  // Whether a driver that ends now loses nothing.
  [[nodiscard]] bool Idle() const {
    return Waiting() == 0 && queue_.pending() + handed_.size() == 0;
  }

 private:
  enum class Stage { kOffered, kReceived, kProcessed };
  struct Handed {
    Message message;
    Stage stage = Stage::kOffered;
  };

  std::string Report(MessageType type, const Order& order, FileTime now);
  std::string ReportBurst(Order order, FileTime now);
  std::string Send(const Order& order, FileTime now);
  std::string Refuse(const Order& order, bool refused);
  void Advance(std::uint64_t message_id, Stage from, Stage to);
  std::size_t Waiting() const { return queue_.waiting() + offered_.has_value(); }
  StatusReply Status() const;
  std::string Counters() const;

  ReadList read_list_;
  TrackedFiles tracked_;
  MessageQueue queue_;
  ReadLog reads_;
  std::optional<Handed> offered_;
  std::deque<Handed> handed_;  // taken by reads, and not yet processed
  FileTime start_time_;
  bool previous_shutdown_clean_;
  bool connected_ = false;
  bool redelivers_ = false;
  std::optional<std::uint32_t> refused_connects_;
  std::optional<std::uint32_t> refused_sends_;
  std::uint64_t handed_over_ = 0;
  std::uint64_t forgotten_ = 0;
  std::uint64_t redelivered_ = 0;
  std::uint64_t from_vault_ = 0;
  std::uint64_t untracked_ = 0;
  std::uint64_t list_changes_ = 0;
  std::uint64_t syncs_ = 0;
  std::uint64_t connections_ = 0;
};

}  // namespace zel::sim
