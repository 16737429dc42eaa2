// The test's end of module_host.exe: the service's modules in a process that can be killed.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/integration/support/child_process.h"
#include "tests/integration/support/driver_names.h"

namespace zel::test {

class ModuleHost {
 public:
  // Starts the modules on `directory`, whose folder cbt exists.
  explicit ModuleHost(const std::filesystem::path& directory)
      : process_(BesideThisProgram(L"module_host.exe") + L" \"" + directory.wstring() + L"\"",
                 orders_.read_end.get(), answers_.write_end.get()) {
    // Else nobody would notice the other's end.
    orders_.read_end.reset();
    answers_.write_end.reset();
    EXPECT_EQ(Answer(), "ready");
  }

  void Send(const std::string& order) const {
    const std::string line = order + "\n";
    DWORD written = 0;
    EXPECT_TRUE(::WriteFile(orders_.write_end.get(), line.data(), static_cast<DWORD>(line.size()),
                            &written, nullptr));
  }

  // The answer to the oldest order that has none; fails the test when the host is gone.
  std::string Answer() {
    std::size_t end = 0;
    while ((end = unread_.find('\n')) == unread_.npos) {
      char bytes[4096];
      DWORD read = 0;
      if (!::ReadFile(answers_.read_end.get(), bytes, sizeof bytes, &read, nullptr)) {
        ADD_FAILURE() << "the host is gone";
        return "gone";
      }
      unread_.append(bytes, read);
    }
    std::string line = unread_.substr(0, end);
    unread_.erase(0, end + 1);
    if (line.ends_with('\r')) line.pop_back();
    return line;
  }

  std::string Ask(const std::string& order) {
    Send(order);
    return Answer();
  }

  // Stops the modules in order.
  void Stop() {
    orders_.write_end.reset();
    EXPECT_EQ(process_.WaitForEnd(), 0u);
  }

  void Kill() const { process_.Kill(); }

  [[nodiscard]] DWORD id() const { return process_.id(); }

 private:
  enum class Inherits { kReadEnd, kWriteEnd };
  struct Pipe {
    explicit Pipe(Inherits inherits) {
      SECURITY_ATTRIBUTES attributes = {sizeof attributes, nullptr, TRUE};
      EXPECT_TRUE(::CreatePipe(read_end.put(), write_end.put(), &attributes, 0));
      const UniqueFile& own = inherits == Inherits::kReadEnd ? write_end : read_end;
      ::SetHandleInformation(own.get(), HANDLE_FLAG_INHERIT, 0);
    }
    UniqueFile read_end;
    UniqueFile write_end;
  };

  Pipe orders_{Inherits::kReadEnd};
  Pipe answers_{Inherits::kWriteEnd};
  std::string unread_;
  ChildProcess process_;
};

}  // namespace zel::test
