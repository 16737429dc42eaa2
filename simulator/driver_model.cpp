#include "simulator/driver_model.h"

#include <algorithm>
#include <utility>

#include "simulator/text.h"

namespace zel::sim {

namespace {

constexpr std::uint32_t kAccessDenied = 0x80070005;
constexpr std::uint32_t kInvalidHandle = 0x80070006;  // a port whose driver is gone
constexpr std::uint32_t kInvalidData = 0x8007000D;
constexpr std::uint32_t kInvalidParameter = 0x80070057;
constexpr std::uint32_t kInsufficientBuffer = 0x8007007A;

constexpr FileTime kPerMillisecond = 10'000;

std::string Refused(std::uint32_t hresult) {
  return "refused " + ResultText(hresult);
}

EventMessage MakeMessage(MessageType type, const Order& order, FileTime now) {
  EventMessage message = {};
  message.magic = kMagic;
  message.type = type;
  message.process_id = order.process_id;
  message.timestamp = order.time.value_or(now);
  message.file_id = order.file.file_id;
  message.volume = order.file.volume;
  message.offset_or_size = order.offset;
  message.length = order.length;
  return message;
}

}  // namespace

DriverModel::DriverModel(ReadList read_list, FileTime now, bool previous_shutdown_clean)
    : read_list_(std::move(read_list)),
      start_time_(now),
      previous_shutdown_clean_(previous_shutdown_clean) {
  tracked_ = read_list_().value_or(TrackedFiles{});
  if (previous_shutdown_clean) return;
  for (const FileKey& file : tracked_) queue_.MarkUnreported(file);
}

std::string DriverModel::Obey(const Order& order, FileTime now) {
  switch (order.verb) {
    case Verb::kWrite:
      return Report(MessageType::kWrite, order, now);
    case Verb::kBurst:
      return ReportBurst(order, now);
    case Verb::kSize:
      return Report(MessageType::kSizeChanged, order, now);
    case Verb::kOpen:
      return Report(MessageType::kOpened, order, now);
    case Verb::kClose:
      return Report(MessageType::kClosed, order, now);
    case Verb::kRename:
      return Report(MessageType::kRenamed, order, now);
    case Verb::kVerify:
      return Report(MessageType::kVerify, order, now);
    case Verb::kUnreported:
      if (!tracked_.contains(order.file)) return "ok untracked";
      queue_.MarkUnreported(order.file);
      break;
    case Verb::kRead:
      if (!tracked_.contains(order.file)) return "ok untracked";
      reads_.Add(order.file, order.offset, order.length);
      break;
    case Verb::kRaw:
      queue_.AddRaw(order.bytes, now);
      break;
    case Verb::kConnect:
      return refused_connects_ ? Refused(*refused_connects_) : "ok";
    case Verb::kSend:
      return Send(order, now);
    case Verb::kForget:
    case Verb::kRedeliver:
      redelivers_ = order.verb == Verb::kRedeliver;
      break;
    case Verb::kHold:
    case Verb::kRelease:
      queue_.SetHeld(order.verb == Verb::kHold);
      break;
    case Verb::kDelay:
      queue_.SetDelay(order.number * kPerMillisecond);
      break;
    case Verb::kDrop:
      queue_.DropNext(order.number);
      break;
    case Verb::kDuplicate:
      queue_.DuplicateNext(order.number);
      break;
    case Verb::kReorder:
      queue_.ReverseWaiting();
      break;
    case Verb::kCorrupt:
      queue_.CorruptNext(order.number, order.what);
      break;
    case Verb::kRefuse:
    case Verb::kAccept:
      return Refuse(order, order.verb == Verb::kRefuse);
    case Verb::kLimit:
      queue_.SetLimit(order.number);
      break;
    case Verb::kReads:
      return "ok " + reads_.Take(order.file);
    case Verb::kCounters:
      return Counters();
    case Verb::kStop:  // the process's affair
      break;
  }
  return "ok";
}

std::string DriverModel::Report(MessageType type, const Order& order, FileTime now) {
  if (!tracked_.contains(order.file)) {
    ++untracked_;
    return "ok untracked";
  }
  queue_.Add(MakeMessage(type, order, now), now);
  return "ok";
}

// Each write begins where the one before ends.
std::string DriverModel::ReportBurst(Order order, FileTime now) {
  std::string answer = "ok";
  for (; order.number != 0; --order.number) {
    answer = Report(MessageType::kWrite, order, now);
    order.offset += order.length;
  }
  return answer;
}

std::string DriverModel::Send(const Order& order, FileTime now) {
  if (refused_sends_) return Refused(*refused_sends_);
  if (!connected_) return Refused(kInvalidHandle);
  const bool zeros = std::all_of(order.bytes.begin() + std::min<std::size_t>(1, order.bytes.size()),
                                 order.bytes.end(), [](std::byte b) { return b == std::byte{}; });
  if (order.bytes.size() != kCommandBytes || !zeros) return Refused(kInvalidParameter);
  switch (static_cast<CommandCode>(order.bytes[0])) {
    case CommandCode::kListChanged: {
      std::optional<TrackedFiles> list = read_list_();
      if (!list) return Refused(kInvalidData);
      tracked_ = std::move(*list);
      ++list_changes_;
      return "ok -";
    }
    case CommandCode::kSync:
      queue_.AddSync(MakeMessage(MessageType::kSync, {}, now), now);
      ++syncs_;
      return "ok -";
    case CommandCode::kStatus:
      if (order.number < sizeof(StatusReply)) return Refused(kInsufficientBuffer);
      return "ok " + BytesText(ToBytes(Status()));
  }
  return Refused(kInvalidParameter);
}

std::string DriverModel::Refuse(const Order& order, bool refused) {
  const bool sends = order.what == "sends";
  auto& refusal = sends ? refused_sends_ : refused_connects_;
  refusal.reset();
  const std::uint32_t usual = sends ? kInvalidHandle : kAccessDenied;
  if (refused) refusal = order.result != 0 ? order.result : usual;
  return "ok";
}

StatusReply DriverModel::Status() const {
  StatusReply status = {};
  status.version[0] = 1;
  status.start_time = start_time_;
  status.previous_shutdown_clean = previous_shutdown_clean_;
  status.load_status = kLoadStatusDoesNotExist;
  status.messages_vaulted = queue_.counters().vaulted;
  status.messages_from_vault = from_vault_;
  status.files_pending = static_cast<std::uint32_t>(queue_.pending());
  return status;
}

std::string DriverModel::Counters() const {
  const MessageQueue::Counters& queue = queue_.counters();
  const std::pair<const char*, std::uint64_t> counters[] = {
      {"connected", connected_},
      {"connections", connections_},
      {"tracked", tracked_.size()},
      {"waiting", Waiting()},
      {"in_flight", handed_.size()},
      {"pending", queue_.pending()},
      {"queued", queue.queued},
      {"handed_over", handed_over_},
      {"forgotten", forgotten_},
      {"redelivered", redelivered_},
      {"dropped", queue.dropped},
      {"overflowed", queue.overflowed},
      {"corrupted", queue.corrupted},
      {"duplicated", queue.duplicated},
      {"untracked", untracked_},
      {"vaulted", queue.vaulted},
      {"from_vault", from_vault_},
      {"list_changes", list_changes_},
      {"syncs", syncs_},
  };
  std::string line = "ok";
  for (const auto& [name, value] : counters) {
    line += std::string(" ") + name + "=" + std::to_string(value);
  }
  return line;
}

void DriverModel::Connect() {
  connected_ = true;
  ++connections_;
  queue_.SetConnected(true);
}

void DriverModel::Disconnect() {
  connected_ = false;
  queue_.SetConnected(false);
  if (offered_) handed_.push_back(*std::exchange(offered_, std::nullopt));
  std::deque<Message> back;
  for (Handed& handed : std::exchange(handed_, {})) {
    const bool received = handed.stage != Stage::kOffered;
    if (received) ++(redelivers_ ? redelivered_ : forgotten_);
    if (!received || redelivers_) back.push_back(std::move(handed.message));
  }
  queue_.PutBack(std::move(back));
}

const Message* DriverModel::Offer(FileTime now) {
  if (!offered_) {
    if (std::optional<Message> message = queue_.Take(now)) offered_ = Handed{std::move(*message)};
  }
  return offered_ ? &offered_->message : nullptr;
}

void DriverModel::HandedOver() {
  ++handed_over_;
  from_vault_ += std::exchange(offered_->message.vaulted, false);
  Handed handed = std::move(*offered_);
  offered_.reset();
  if (handed.stage != Stage::kProcessed) handed_.push_back(std::move(handed));
}

void DriverModel::Received(std::uint64_t message_id) {
  Advance(message_id, Stage::kOffered, Stage::kReceived);
}

void DriverModel::Processed(std::uint64_t message_id) {
  Advance(message_id, Stage::kReceived, Stage::kProcessed);
  std::erase_if(handed_, [](const Handed& h) { return h.stage == Stage::kProcessed; });
}

// Duplicates have one id: it is the oldest at that stage.
void DriverModel::Advance(std::uint64_t message_id, Stage from, Stage to) {
  const auto is_it = [&](const Handed& handed) {
    const Bytes& bytes = handed.message.bytes;
    return handed.stage == from && MessageIdOf(bytes.data(), bytes.size()) == message_id;
  };
  if (const auto handed = std::ranges::find_if(handed_, is_it); handed != handed_.end()) {
    handed->stage = to;
  } else if (offered_ && is_it(*offered_)) {
    offered_->stage = to;
  }
}

}  // namespace zel::sim
