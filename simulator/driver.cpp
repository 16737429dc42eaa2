#include "simulator/driver.h"

#include <algorithm>

#include "simulator/driver_registry.h"
#include "win32/file_time.h"

namespace zel::sim {

namespace {

FileTime Now() {
  FILETIME time;
  ::GetSystemTimeAsFileTime(&time);
  return JoinHalves(time.dwHighDateTime, time.dwLowDateTime);
}

// Rounded up, so that what is waited for is due.
DWORD MillisecondsUntil(FileTime due, FileTime now) {
  if (due <= now) return 0;
  return static_cast<DWORD>(std::min<FileTime>((due - now + 9'999) / 10'000, INFINITE - 1));
}

}  // namespace

Driver::Driver()
    : model_(ReadTrackedFiles, Now(), TakeCleanShutdownMark()),
      receipts_mapping_(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                             sizeof(ReceiptLog), kReceiptsName)),
      receipts_(static_cast<ReceiptLog*>(
          ::MapViewOfFile(receipts_mapping_.get(), FILE_MAP_WRITE, 0, 0, sizeof(ReceiptLog)))),
      changed_event_(::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      stop_event_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

Driver::Told Driver::Tell(std::string_view line) {
  Order order;
  std::string fault;
  if (!ParseOrder(line, order, fault)) return {"error " + fault, false};
  std::string answer;
  {
    const LockGuard guard(lock_);
    ReadReceipts();
    answer = model_.Obey(order, Now());
  }
  ::SetEvent(changed_event_.get());
  return {answer, order.verb == Verb::kStop};
}

void Driver::Shutdown() {
  const LockGuard guard(lock_);
  ReadReceipts();
  if (model_.Idle()) LeaveCleanShutdownMark();
}

void Driver::Connect() {
  const LockGuard guard(lock_);
  receipts_.get()->count = 0;
  receipts_read_ = 0;
  model_.Connect();
}

void Driver::Disconnect() {
  const LockGuard guard(lock_);
  ReadReceipts();
  model_.Disconnect();
}

std::optional<Bytes> Driver::Offer(DWORD& wait_ms) {
  const LockGuard guard(lock_);
  ReadReceipts();
  const FileTime now = Now();
  if (const Message* const message = model_.Offer(now)) return message->bytes;
  const std::optional<FileTime> due = model_.WhenDue(now);
  wait_ms = due ? MillisecondsUntil(*due, now) : INFINITE;
  return std::nullopt;
}

void Driver::HandedOver() {
  const LockGuard guard(lock_);
  model_.HandedOver();
}

void Driver::ReadReceipts() {
  for (const std::uint64_t count = receipts_.get()->count; receipts_read_ < count;) {
    const Receipt receipt = receipts_.get()->receipts[receipts_read_++ % kReceipts];
    if (receipt.processed) {
      model_.Processed(receipt.message_id);
    } else {
      model_.Received(receipt.message_id);
    }
  }
}

}  // namespace zel::sim
