// The kit on this machine: its folders, and programs run from it.
//
// Threads: the main thread; the console's handler calls Interrupt alone.
#pragma once

#include <windows.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "win32/handles.h"

namespace zel::prove {

[[nodiscard]] std::string ToUtf8(std::wstring_view text);
[[nodiscard]] std::wstring ToWide(std::string_view text);

struct ProgramRun {
  DWORD exit_code = 0;
  bool timed_out = false;
  std::string output;  // and what it said on standard error
};

struct ProgramSetting {
  std::filesystem::path folder = {};  // the kit's work folder unless told
  std::filesystem::path input = {};   // what it reads; nothing unless told
  DWORD limit_ms = 300'000;
};

class Kit {
 public:
  explicit Kit(std::filesystem::path folder);
  Kit(const Kit&) = delete;
  Kit& operator=(const Kit&) = delete;

  // Without a backslash at its end.
  [[nodiscard]] const std::filesystem::path& folder() const { return folder_; }
  [[nodiscard]] std::filesystem::path bin() const { return folder_ / "bin"; }
  [[nodiscard]] std::filesystem::path work() const { return folder_ / "work"; }

  // Any thread. What waits ends with Interrupted from now on.
  void Interrupt() const { ::SetEvent(interrupted_.get()); }
  [[nodiscard]] bool interrupted() const;
  // Used while cleaning up, which nobody may interrupt.
  void HoldOffInterrupts() { heeds_interrupts_ = false; }

  // Runs a program to its end. Ended by force after its limit, and with this process, whatever ends
  // that. Throws StepFailure when it cannot be started, Interrupted.
  [[nodiscard]] ProgramRun Run(std::wstring command_line, const ProgramSetting& setting = {}) const;

  // Asks `condition` every 20 ms. Throws StepFailure with `what` when it does not hold within the
  // limit, Interrupted.
  template <class Condition>
  void Await(const char* what, Condition condition, DWORD limit_ms = 60'000) const {
    for (const ULONGLONG end = ::GetTickCount64() + limit_ms; !condition();) {
      Pause(what, end);
    }
  }

 private:
  void Pause(const char* what, ULONGLONG end) const;
  [[nodiscard]] std::filesystem::path output_file() const { return work() / "output.txt"; }

  std::filesystem::path folder_;
  UniqueEvent interrupted_;
  UniqueResource<KernelObjectTraits> job_;
  bool heeds_interrupts_ = true;
};

// `path` in quotes.
[[nodiscard]] std::wstring Quoted(const std::filesystem::path& path);

// Nothing when it cannot be read whole.
[[nodiscard]] std::string ReadFileText(const std::filesystem::path& path);

}  // namespace zel::prove
