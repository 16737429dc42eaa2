#include "simulator/fltlib/port_reads.h"

#include <atomic>

#include "simulator/channels.h"
#include "simulator/fltlib/import_table.h"
#include "simulator/wire.h"
#include "win32/critical_section.h"
#include "win32/handles.h"

namespace zel::sim {

namespace {

constexpr HRESULT kPending = HRESULT_FROM_WIN32(ERROR_IO_PENDING);

// One reader of the service and its newest read.
struct Reader {
  const OVERLAPPED* overlapped;  // null: this and the next ones are free
  const void* buffer;            // null: no read is outstanding
  bool has_message;
  std::uint64_t message_id;
};

class PortReads {
 public:
  HRESULT Begin() {
    const LockGuard guard(lock_);
    mapping_.reset(::OpenFileMappingW(FILE_MAP_WRITE, FALSE, kReceiptsName));
    log_.reset(static_cast<ReceiptLog*>(
        ::MapViewOfFile(mapping_.get(), FILE_MAP_WRITE, 0, 0, sizeof(ReceiptLog))));
    if (!log_) return HRESULT_FROM_WIN32(::GetLastError());
    for (std::size_t i = 0; i < kMaxReaders; ++i) {
      readers_[i] = {};
      events_[i] = nullptr;
    }
    return S_OK;
  }

  HRESULT BeginRead(HANDLE port, void* buffer, DWORD size, OVERLAPPED* overlapped) {
    const LockGuard guard(lock_);
    Reader* const reader = Find(overlapped);
    if (reader == nullptr) return HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES);
    if (reader->has_message) WriteDown({reader->message_id, true});
    *reader = {overlapped, buffer, false, 0};
    // What is there at once still completes through the event.
    if (::ReadFile(port, buffer, size, nullptr, overlapped)) return kPending;
    const DWORD error = ::GetLastError();
    if (error != ERROR_IO_PENDING) reader->buffer = nullptr;
    return HRESULT_FROM_WIN32(error);
  }

  void EndRead(HANDLE event) {
    // The waits that are for something else, and they are most, do not take the lock.
    for (std::size_t i = 0; i < kMaxReaders && events_[i] != nullptr; ++i) {
      if (events_[i] == event) EndReadOf(i);
    }
  }

 private:
  // A reader keeps its place, and its event with it.
  Reader* Find(const OVERLAPPED* overlapped) ZEL_REQUIRES(lock_) {
    if (!log_) return nullptr;
    for (std::size_t i = 0; i < kMaxReaders; ++i) {
      Reader& reader = readers_[i];
      if (reader.overlapped != nullptr && reader.overlapped != overlapped) continue;
      events_[i] = overlapped->hEvent;
      return &reader;
    }
    return nullptr;
  }

  void EndReadOf(std::size_t index) {
    const LockGuard guard(lock_);
    Reader& reader = readers_[index];
    if (reader.buffer == nullptr || !HasOverlappedIoCompleted(reader.overlapped)) return;
    if (reader.overlapped->Internal == 0) {
      reader.has_message = true;
      reader.message_id = MessageIdOf(reader.buffer, reader.overlapped->InternalHigh);
      WriteDown({reader.message_id, false});
    }
    reader.buffer = nullptr;
  }

  void WriteDown(const Receipt& receipt) ZEL_REQUIRES(lock_) {
    ReceiptLog& log = *log_.get();
    log.receipts[log.count % kReceipts] = receipt;
    ++log.count;
  }

  CriticalSection lock_;
  UniqueMapping mapping_ ZEL_GUARDED_BY(lock_);
  UniqueView<ReceiptLog> log_ ZEL_GUARDED_BY(lock_);
  Reader readers_[kMaxReaders] ZEL_GUARDED_BY(lock_) = {};
  std::atomic<HANDLE> events_[kMaxReaders] = {};
};

PortReads& Reads() {
  static PortReads& reads = *new PortReads;  // outlives every thread
  return reads;
}

decltype(&::WaitForSingleObject) system_wait = nullptr;
decltype(&::WaitForMultipleObjects) system_wait_for_multiple = nullptr;

DWORD WINAPI WatchedWait(HANDLE handle, DWORD timeout_ms) {
  const DWORD result = system_wait(handle, timeout_ms);
  if (result == WAIT_OBJECT_0) EndPortRead(handle);
  return result;
}

DWORD WINAPI WatchedWaitForMultiple(DWORD count, const HANDLE* handles, BOOL all,
                                    DWORD timeout_ms) {
  const DWORD result = system_wait_for_multiple(count, handles, all, timeout_ms);
  if (result >= WAIT_OBJECT_0 + count) return result;
  for (DWORD i = 0; i < count; ++i) {
    if (all || result == WAIT_OBJECT_0 + i) EndPortRead(handles[i]);
  }
  return result;
}

}  // namespace

HRESULT BeginPortReads() {
  return Reads().Begin();
}

HRESULT BeginPortRead(HANDLE port, void* buffer, DWORD size, OVERLAPPED* overlapped) {
  return Reads().BeginRead(port, buffer, size, overlapped);
}

void EndPortRead(HANDLE event) {
  Reads().EndRead(event);
}

void WatchPortReads() {
  ReplaceImport("KERNEL32.dll", "WaitForSingleObject", &WatchedWait, system_wait);
  ReplaceImport("KERNEL32.dll", "WaitForMultipleObjects", &WatchedWaitForMultiple,
                system_wait_for_multiple);
}

}  // namespace zel::sim
