// Sees this program's flushes of views and files, and lets some of them fail.
#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

#include "bitmap/format/bitmap_header.h"
#include "tests/integration/support/import_hook.h"

extern "C" void* __imp_FlushViewOfFile;
extern "C" void* __imp_FlushFileBuffers;

namespace zel::test {

class FlushHooks {
 public:
  FlushHooks() { current_ = this; }
  ~FlushHooks() { current_ = nullptr; }
  FlushHooks(const FlushHooks&) = delete;
  FlushHooks& operator=(const FlushHooks&) = delete;

  // "header" or "all" of a view, with the marks that its header had: c(losed cleanly), s(ize
  // changed), u(nreliable), as "header", "header cu"; or "file". Empties the list.
  std::vector<std::string> Take() { return std::exchange(seen_, {}); }

  // Lets flushes fail with `error`, after `passing` others.
  void FailAfter(int passing, int failing = 1, DWORD error = ERROR_DISK_FULL) {
    until_failure_ = passing;
    failing_ = failing;
    error_ = error;
  }

 private:
  using FlushView = decltype(&::FlushViewOfFile);
  using FlushFile = decltype(&::FlushFileBuffers);

  static BOOL WINAPI OnFlushView(const void* base, SIZE_T bytes) {
    const auto& header = *static_cast<const BitmapFileHeader*>(base);
    std::string seen = bytes == 0 ? "all" : bytes == kBitmapHeaderSize ? "header" : "part";
    std::string marks;
    if (header.ClosedCleanly != 0) marks += 'c';
    if (header.SizeChanged != 0) marks += 's';
    if (header.Unreliable != 0) marks += 'u';
    if (!current_->Note(marks.empty() ? seen : seen + " " + marks)) return FALSE;
    return reinterpret_cast<FlushView>(current_->view_.original())(base, bytes);
  }

  static BOOL WINAPI OnFlushFile(HANDLE file) {
    if (!current_->Note("file")) return FALSE;
    return reinterpret_cast<FlushFile>(current_->file_.original())(file);
  }

  // False when this flush is to fail.
  bool Note(const std::string& flush) {
    seen_.push_back(flush);
    if (failing_ == 0 || until_failure_-- > 0) return true;
    --failing_;
    ::SetLastError(error_);
    return false;
  }

  static inline FlushHooks* current_ = nullptr;
  std::vector<std::string> seen_;
  int until_failure_ = 0;
  int failing_ = 0;
  DWORD error_ = ERROR_DISK_FULL;
  ImportHook view_{__imp_FlushViewOfFile, &OnFlushView};
  ImportHook file_{__imp_FlushFileBuffers, &OnFlushFile};
};

}  // namespace zel::test
