// The driver's side of the filter port, as a test scripts it.
//
// Reads answer "pending" and complete through their event, in the order in which they were made.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "driver/driver_protocol.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/poll.h"

extern "C" {
extern void* __imp_FilterConnectCommunicationPort;
extern void* __imp_FilterGetMessage;
extern void* __imp_FilterSendMessage;
extern void* __imp_CancelIoEx;
}

namespace zel::test {

inline constexpr HRESULT kPending = HRESULT_FROM_WIN32(ERROR_IO_PENDING);
inline constexpr ULONG_PTR kStatusCancelled = 0xC0000120;

template <class Message>
std::string BytesOf(const Message& message) {
  return {reinterpret_cast<const char*>(&message), sizeof message};
}

class ScriptedPort {
 public:
  ScriptedPort() { current_ = this; }
  ~ScriptedPort() { current_ = nullptr; }
  ScriptedPort(const ScriptedPort&) = delete;
  ScriptedPort& operator=(const ScriptedPort&) = delete;

  // What the calls answer; changed while no other thread uses the port.
  HRESULT connect_result = S_OK;
  HRESULT send_result = S_OK;
  std::string send_reply;
  // Called by every send that succeeds, with the command's code.
  std::function<void(int)> on_send = [](int) {};
  // Called by every read before it is noted.
  std::function<void()> on_read = [] {};
  // Whether a cancelled read ends; else it is told that there is none.
  bool cancels = true;

  // Queues a message, or completes the oldest read with it; a status other than 0 is a failed read.
  void Post(std::string bytes, ULONG_PTR status = 0) {
    const std::scoped_lock lock(mutex_);
    messages_.push_back({std::move(bytes), status});
    Deliver();
  }
  void Post(const DriverMessage& message) { Post(BytesOf(message)); }

  // Gives the oldest read, which waits, a message, but does not tell its thread yet.
  void PostUntold(const DriverMessage& message) {
    const std::scoped_lock lock(mutex_);
    ASSERT_TRUE(!reads_.empty() && untold_.overlapped == nullptr);
    untold_ = reads_.front();
    reads_.pop_front();
    std::memcpy(untold_.buffer, &message, sizeof message);
  }
  // Tells the thread whose reads end with `event`, if it is the one.
  void TellReader(HANDLE event) {
    const std::scoped_lock lock(mutex_);
    if (untold_.overlapped == nullptr || untold_.overlapped->hEvent != event) return;
    Complete(std::exchange(untold_, {}).overlapped, 0, sizeof(DriverMessage));
  }

  // Lets every later read answer `result`, with S_OK at once with a message if there is one;
  // kPending makes them work again.
  void AnswerReads(HRESULT result) {
    const std::scoped_lock lock(mutex_);
    read_result_ = result;
  }

  // Waits until `reads` reads are outstanding and every message is delivered.
  [[nodiscard]] bool WaitForReads(std::size_t reads) {
    return PollUntil([&] { return OutstandingReads() == reads; });
  }
  [[nodiscard]] std::size_t OutstandingReads() {
    const std::scoped_lock lock(mutex_);
    return messages_.empty() ? reads_.size() : 0;
  }
  [[nodiscard]] int refused_reads() {
    const std::scoped_lock lock(mutex_);
    return refused_reads_;
  }

  // The buffers that were sent, and the room for the answer of each.
  struct Sent {
    std::string command;
    DWORD room;
  };
  std::vector<Sent> TakeSent() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(sent_, {});
  }
  [[nodiscard]] std::wstring port_name() const { return port_name_; }

 private:
  struct Message {
    std::string bytes;
    ULONG_PTR status;
  };
  struct Read {
    void* buffer;
    DWORD size;
    OVERLAPPED* overlapped;
  };

  static HRESULT WINAPI Connect(const wchar_t* name, DWORD options, const void* context,
                                WORD context_size, SECURITY_ATTRIBUTES* attributes, HANDLE* port) {
    EXPECT_TRUE(options == 0 && context == nullptr && context_size == 0 && attributes == nullptr);
    current_->port_name_ = name;
    *port = INVALID_HANDLE_VALUE;
    if (current_->connect_result == S_OK) {
      *port = current_->handle_ = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    return current_->connect_result;
  }

  static HRESULT WINAPI GetMessage(HANDLE port, void* buffer, DWORD size, OVERLAPPED* overlapped) {
    ScriptedPort& self = *current_;
    EXPECT_EQ(port, self.handle_);
    self.on_read();
    const std::scoped_lock lock(self.mutex_);
    EXPECT_EQ(size, 65'536u);
    EXPECT_EQ(::WaitForSingleObject(overlapped->hEvent, 0), DWORD{WAIT_TIMEOUT});
    if (self.read_result_ != kPending) {
      ++self.refused_reads_;
      if (self.read_result_ == S_OK && !self.messages_.empty()) {
        const std::string bytes = std::move(self.messages_.front()).bytes;
        self.messages_.pop_front();
        std::memcpy(buffer, bytes.data(), bytes.size());
      }
      return self.read_result_;
    }
    self.reads_.push_back({buffer, size, overlapped});
    self.Deliver();
    return kPending;
  }

  static HRESULT WINAPI Send(HANDLE port, void* in, DWORD in_size, void* out, DWORD out_size,
                             DWORD* returned) {
    ScriptedPort& self = *current_;
    EXPECT_EQ(port, self.handle_);
    {
      const std::scoped_lock lock(self.mutex_);
      self.sent_.push_back({{static_cast<const char*>(in), in_size}, out_size});
      EXPECT_EQ(out == nullptr, out_size == 0);
    }
    if (self.send_result != S_OK) return self.send_result;
    *returned = std::min(out_size, static_cast<DWORD>(self.send_reply.size()));
    if (out != nullptr) std::memcpy(out, self.send_reply.data(), *returned);
    self.on_send(*static_cast<const char*>(in));
    return S_OK;
  }

  static BOOL WINAPI Cancel(HANDLE port, OVERLAPPED* overlapped) {
    ScriptedPort& self = *current_;
    EXPECT_EQ(port, self.handle_);
    const std::scoped_lock lock(self.mutex_);
    const auto read = std::ranges::find(self.reads_, overlapped, &Read::overlapped);
    if (!self.cancels || read == self.reads_.end()) {
      ::SetLastError(ERROR_NOT_FOUND);
      return FALSE;
    }
    self.reads_.erase(read);
    Complete(overlapped, kStatusCancelled, 0);
    return TRUE;
  }

  static void Complete(OVERLAPPED* overlapped, ULONG_PTR status, std::size_t bytes) {
    overlapped->Internal = status;
    overlapped->InternalHigh = bytes;
    ::SetEvent(overlapped->hEvent);
  }

  // Under mutex_.
  void Deliver() {
    while (!messages_.empty() && !reads_.empty()) {
      const Read read = reads_.front();
      const Message message = std::move(messages_.front());
      reads_.pop_front();
      messages_.pop_front();
      std::memcpy(read.buffer, message.bytes.data(), message.bytes.size());
      Complete(read.overlapped, message.status, message.bytes.size());
    }
  }

  static inline ScriptedPort* current_ = nullptr;
  std::mutex mutex_;
  std::deque<Message> messages_;
  std::deque<Read> reads_;
  Read untold_ = {};
  std::vector<Sent> sent_;
  HRESULT read_result_ = kPending;
  int refused_reads_ = 0;
  HANDLE handle_ = nullptr;
  std::wstring port_name_;
  ImportHook connect_{__imp_FilterConnectCommunicationPort, &Connect};
  ImportHook get_message_{__imp_FilterGetMessage, &GetMessage};
  ImportHook send_{__imp_FilterSendMessage, &Send};
  ImportHook cancel_{__imp_CancelIoEx, &Cancel};
};

}  // namespace zel::test
