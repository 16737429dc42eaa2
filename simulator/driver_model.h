// What the driver knows and decides: tracked files, its queue, what it was ordered to do.
// Test bench only. Pure.
//
// Delivery is at least once. A message counts as processed when its reader asks for the next one;
// when the service goes, what is not processed goes back to the front of the queue.
// Threads: the caller holds the driver's lock.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <span>
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

  // The port's side. `reads` holds, for every reader, the number of its newest read: reads count
  // from 1 on each connection, and the n-th message is what the n-th read gets.
  void Connect();
  void Disconnect(std::span<const std::uint64_t> reads);
  // The next message that is due, to be handed over; null when there is none. It waits on until
  // HandedOver or Disconnect says what became of it.
  [[nodiscard]] const Message* Offer(FileTime now);
  void HandedOver();
  void Acknowledge(std::span<const std::uint64_t> reads);
  [[nodiscard]] std::optional<FileTime> WhenDue(FileTime now) const { return queue_.WhenDue(now); }

  // Whether a driver that ends now loses nothing.
  [[nodiscard]] bool Idle() const {
    return Waiting() == 0 && queue_.pending() + handed_.size() == 0;
  }

 private:
  struct Handed {
    std::uint64_t read;
    Message message;
  };

  std::string Report(MessageType type, const Order& order, FileTime now);
  std::string ReportBurst(Order order, FileTime now);
  std::string Send(const Order& order, FileTime now);
  std::string Refuse(const Order& order, bool refused);
  std::size_t Waiting() const { return queue_.waiting() + offered_.has_value(); }
  StatusReply Status() const;
  std::string Counters() const;

  ReadList read_list_;
  TrackedFiles tracked_;
  MessageQueue queue_;
  ReadLog reads_;
  std::optional<Message> offered_;
  std::deque<Handed> handed_;  // and not yet processed
  FileTime start_time_;
  bool previous_shutdown_clean_;
  bool connected_ = false;
  std::optional<std::uint32_t> refused_connects_;
  std::optional<std::uint32_t> refused_sends_;
  std::uint64_t handed_on_connection_ = 0;
  std::uint64_t handed_over_ = 0;
  std::uint64_t redelivered_ = 0;
  std::uint64_t from_vault_ = 0;
  std::uint64_t untracked_ = 0;
  std::uint64_t list_changes_ = 0;
  std::uint64_t syncs_ = 0;
  std::uint64_t connections_ = 0;
};

}  // namespace zel::sim
