// Another program that a test starts, and never leaves behind.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "win32/handles.h"

namespace zel::test {

inline std::wstring BesideThisProgram(const wchar_t* name) {
  wchar_t program[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, program, MAX_PATH);
  return (std::filesystem::path(program).parent_path() / name).wstring();
}

class ChildProcess {
 public:
  // With this program's standard handles, or with `input` and `output`, which can be inherited.
  explicit ChildProcess(std::wstring command_line, HANDLE input = nullptr,
                        HANDLE output = nullptr) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    if (input != nullptr) {
      startup.dwFlags = STARTF_USESTDHANDLES;
      startup.hStdInput = input;
      startup.hStdOutput = output;
      startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
    }
    PROCESS_INFORMATION made = {};
    EXPECT_TRUE(::CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, input != nullptr,
                                 0, nullptr, nullptr, &startup, &made))
        << ::GetLastError();
    process_.reset(made.hProcess);
    const UniqueThread thread(made.hThread);
    id_ = made.dwProcessId;
  }
  ~ChildProcess() {
    if (process_) Kill();
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  [[nodiscard]] HANDLE get() const { return process_.get(); }
  [[nodiscard]] DWORD id() const { return id_; }

  // The exit code; fails the test when the program does not end.
  DWORD WaitForEnd(DWORD limit_ms = 60'000) const {
    EXPECT_EQ(::WaitForSingleObject(process_.get(), limit_ms), WAIT_OBJECT_0);
    DWORD code = STILL_ACTIVE;
    ::GetExitCodeProcess(process_.get(), &code);
    return code;
  }

  void Kill() const {
    ::TerminateProcess(process_.get(), 1);
    ::WaitForSingleObject(process_.get(), INFINITE);
  }

 private:
  UniqueResource<KernelObjectTraits> process_;
  DWORD id_ = 0;
};

}  // namespace zel::test
