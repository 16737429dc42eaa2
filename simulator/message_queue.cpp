#include "simulator/message_queue.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace zel::sim {

namespace {

// Where the news of lost changes comes from when no event of the file carries it.
constexpr std::uint32_t kSystemProcessId = 4;

bool TakeOne(std::uint64_t& count) {
  if (count == 0) return false;
  --count;
  return true;
}

Bytes Damaged(EventMessage message, std::string_view damage) {
  if (damage == "magic") message.magic ^= 1;
  if (damage == "type") message.type = MessageType{0xFFFF};
  Bytes bytes = ToBytes(message);
  if (damage == "short") bytes.pop_back();
  return bytes;
}

}  // namespace

void MessageQueue::Add(EventMessage message, FileTime now) {
  const FileKey file = {message.volume, message.file_id};
  if (TakeOne(drop_)) {
    ++counters_.dropped;
    pending_.insert(file);
    return;
  }
  if (waiting_.size() >= limit_) {
    ++counters_.overflowed;
    pending_.insert(file);
    return;
  }
  message.message_id = next_id_++;
  message.unreported_changes = pending_.erase(file) != 0;
  Bytes bytes = ToBytes(message);
  if (TakeOne(corrupt_)) {
    ++counters_.corrupted;
    pending_.insert(file);
    bytes = Damaged(message, damage_);
  }
  if (TakeOne(duplicate_)) {
    ++counters_.duplicated;
    Push(bytes, now);
  }
  Push(std::move(bytes), now);
}

void MessageQueue::AddSync(EventMessage message, FileTime now) {
  TellPending(now);
  message.message_id = next_id_++;
  Push(ToBytes(message), now, true);
}

void MessageQueue::AddRaw(Bytes bytes, FileTime now) {
  Push(std::move(bytes), now);
}

void MessageQueue::Push(Bytes bytes, FileTime now, bool sync) {
  ++counters_.queued;
  counters_.vaulted += !connected_;
  waiting_.push_back({std::move(bytes), now + delay_, sync, !connected_});
}

void MessageQueue::TellPending(FileTime now) {
  for (const FileKey& file : std::exchange(pending_, {})) {
    EventMessage message = {};
    message.message_id = next_id_++;
    message.magic = kMagic;
    message.type = MessageType::kClosed;
    message.unreported_changes = 1;
    message.process_id = kSystemProcessId;
    message.timestamp = now;
    message.file_id = file.file_id;
    message.volume = file.volume;
    Push(ToBytes(message), now);
  }
}

std::optional<Message> MessageQueue::Take(FileTime now) {
  if (held_) return std::nullopt;
  if (waiting_.empty()) TellPending(now);
  if (waiting_.empty() || waiting_.front().due > now) return std::nullopt;
  Message message = std::move(waiting_.front());
  waiting_.pop_front();
  return message;
}

std::optional<FileTime> MessageQueue::WhenDue(FileTime now) const {
  if (held_) return std::nullopt;
  if (!waiting_.empty()) return waiting_.front().due;
  if (!pending_.empty()) return now;
  return std::nullopt;
}

void MessageQueue::PutBack(std::deque<Message> messages) {
  waiting_.insert(waiting_.begin(), std::make_move_iterator(messages.begin()),
                  std::make_move_iterator(messages.end()));
}

void MessageQueue::CorruptNext(std::uint64_t count, std::string_view damage) {
  corrupt_ = count;
  damage_ = damage;
}

void MessageQueue::ReverseWaiting() {
  for (auto begin = waiting_.begin(); begin != waiting_.end();) {
    const auto end = std::find_if(begin, waiting_.end(), [](const Message& m) { return m.sync; });
    std::reverse(begin, end);
    begin = end == waiting_.end() ? end : std::next(end);
  }
}

}  // namespace zel::sim
