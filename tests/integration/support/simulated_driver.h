// A simulated driver (simulator/README.md) of a test's own, and a client of its port.
//
// The driver's pipes and its registry key belong to the whole machine: a test executable that uses
// this lies beside driversim.exe and fltlib.dll in bin/simulator and runs its tests under the ctest
// resource lock service_manager.
#pragma once

#include <windows.h>
// Behind <windows.h>.
#include <fltuser.h>
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/control_client.h"
#include "simulator/file_identity.h"
#include "simulator/text.h"
#include "tests/integration/support/child_process.h"
#include "tests/integration/support/driver_names.h"
#include "tests/integration/support/poll.h"
#include "win32/handles.h"

namespace zel::test {

class SimulatedDriver {
 public:
  // Refuses to run where the driver is installed: the tests would remove its registry key.
  SimulatedDriver() {
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, kDriverKey, L"ImagePath", RRF_RT_ANY, nullptr, nullptr,
                       nullptr) == ERROR_SUCCESS) {
      throw std::runtime_error("the driver is installed on this machine");
    }
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kDriverKey);
    Start();
  }
  ~SimulatedDriver() {
    Stop();
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kDriverKey);
  }
  SimulatedDriver(const SimulatedDriver&) = delete;
  SimulatedDriver& operator=(const SimulatedDriver&) = delete;

  void Start() {
    process_.emplace(BesideThisProgram(L"driversim.exe") + L" serve");
    ASSERT_TRUE(PollUntil([] { return sim::ControlClient().connected(); }));
  }

  // Ends the driver in order; what it still held is lost and says so at the next start.
  void Stop() {
    if (!process_) return;
    Order("stop");
    EXPECT_EQ(process_->WaitForEnd(), 0u);
    process_.reset();
  }

  void Kill() {
    process_->Kill();
    process_.reset();
  }

  // The driver's answer; "gone" without a driver.
  std::string Tell(std::string_view order) {
    return sim::ControlClient().Tell(order).value_or("gone");
  }

  // Gives an order that must be obeyed.
  void Order(std::string_view order) { EXPECT_EQ(Tell(order), "ok") << order; }

  std::uint64_t Counter(std::string_view name) {
    const std::string line = Tell("counters") + " ";
    const std::string key = " " + std::string(name) + "=";
    const std::size_t begin = line.find(key) + key.size();
    std::uint64_t value = 0;
    EXPECT_TRUE(line.find(key) != line.npos &&
                sim::ParseNumber(line.substr(begin, line.find(' ', begin) - begin), value))
        << line;
    return value;
  }

  [[nodiscard]] bool WaitForCounter(std::string_view name, std::uint64_t value) {
    return PollUntil([&] { return Counter(name) == value; });
  }

 private:
  std::optional<ChildProcess> process_;
};

// Writes the registry's list of one volume, byte by byte, and nothing else there.
inline void WriteTrackedList(const VolumeGuid& volume, const std::vector<FileId>& ids) {
  std::string value("\x18\x7C", 2);
  const auto put = [&value](const auto& field) {
    value.append(reinterpret_cast<const char*>(&field), sizeof field);
  };
  put(volume);
  put(static_cast<std::uint32_t>(ids.size()));
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const std::wstring path = L"C:\\file" + std::to_wstring(ids[i]);
    const auto path_bytes = static_cast<std::uint16_t>(2 * path.size());
    put(static_cast<std::uint32_t>(i + 1 == ids.size() ? 0 : 14 + path_bytes));
    put(ids[i]);
    put(path_bytes);
    value.append(reinterpret_cast<const char*>(path.data()), path_bytes);
  }
  UniqueRegistryKey key;
  ASSERT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kTrackedListKey, 0, nullptr, 0, KEY_ALL_ACCESS,
                              nullptr, key.put(), nullptr),
            ERROR_SUCCESS);
  const std::string name = sim::VolumeText(volume);
  ASSERT_EQ(::RegSetValueExA(key.get(), name.c_str(), 0, REG_BINARY,
                             reinterpret_cast<const BYTE*>(value.data()),
                             static_cast<DWORD>(value.size())),
            ERROR_SUCCESS);
}

// The port as a service holds it.
class PortClient {
 public:
  PortClient() { EXPECT_EQ(Connect(port_), S_OK); }

  static HRESULT Connect(UniqueFile& port) {
    return ::FilterConnectCommunicationPort(L"\\VelmoraActivityFilterPort", 0, nullptr, 0, nullptr,
                                            port.put());
  }

  HRESULT Send(unsigned char code, void* reply = nullptr, DWORD reply_size = 0) const {
    unsigned char command[64] = {code};
    DWORD returned = 0;
    return ::FilterSendMessage(port_.get(), command, sizeof command, reply, reply_size, &returned);
  }

  [[nodiscard]] HANDLE get() const { return port_.get(); }
  void Close() { port_.reset(); }

 private:
  UniqueFile port_;
};

// One reader of a port: an OVERLAPPED, its event and its buffer.
class PortReader {
 public:
  explicit PortReader(const PortClient& port) : port_(port) { overlapped_.hEvent = event_.get(); }
  PortReader(const PortReader&) = delete;
  PortReader& operator=(const PortReader&) = delete;

  void Post() {
    ::ResetEvent(event_.get());
    EXPECT_EQ(::FilterGetMessage(port_.get(), &header(), sizeof buffer_, &overlapped_),
              HRESULT_FROM_WIN32(ERROR_IO_PENDING));
  }

  // Whether the posted read completes within `limit_ms`.
  [[nodiscard]] bool Wait(DWORD limit_ms = 10'000) const {
    return ::WaitForSingleObject(event_.get(), limit_ms) == WAIT_OBJECT_0;
  }

  // What the completed read got.
  [[nodiscard]] DWORD status() const { return static_cast<DWORD>(overlapped_.Internal); }
  [[nodiscard]] std::size_t size() const { return overlapped_.InternalHigh; }
  [[nodiscard]] sim::EventMessage message() const {
    sim::EventMessage message;
    std::memcpy(&message, buffer_, sizeof message);
    return message;
  }

  // Posts a read and waits for a whole message.
  sim::EventMessage Next() {
    Post();
    EXPECT_TRUE(Wait());
    EXPECT_EQ(status(), 0u);
    EXPECT_EQ(size(), sizeof(sim::EventMessage));
    return message();
  }

  [[nodiscard]] HANDLE event() const { return event_.get(); }

 private:
  FILTER_MESSAGE_HEADER& header() { return *reinterpret_cast<FILTER_MESSAGE_HEADER*>(buffer_); }

  const PortClient& port_;
  UniqueEvent event_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  OVERLAPPED overlapped_ = {};
  alignas(8) char buffer_[65536] = {};
};

}  // namespace zel::test
