// Bitmap files in memory, each with what the file cache and what the device has of it: the device
// gets what was flushed, as a power cut would leave it. A test can make any operation wait or fail.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bitmap/bitmap_file.h"
#include "bitmap/bitmap_manager.h"

namespace zel::test {

inline constexpr std::uint32_t kBlockSize = 4096;
inline constexpr VolumeGuid kVolume = {1, 2, 3, {4}};

// What is about to be done with the file of this path; called by the thread that does it, before.
enum class FileOperation {
  kOpen,
  kFlushHeader,
  kFlushView,
  kFlushToDevice,
  kClose,
  kDistrust,
  kDelete,
  kLookForMark,
  kLeaveMark,
  kRemoveMark
};
using FileHook = std::function<void(FileOperation, const std::wstring& path)>;

// What stands in a bitmap's file.
struct BitmapContents {
  BitmapFileHeader header;
  std::vector<bool> bits;

  [[nodiscard]] bool IsTrusted() const {
    return header.ClosedCleanly == 1 && header.Unreliable == 0;
  }
};

class MemoryBitmapFiles : public BitmapFiles {
 public:
  // Makes an empty, clean bitmap of `bits` bits and adds it to the manager. Returns its path.
  std::wstring Create(FileId file, BitmapId id, std::uint32_t bits);

  [[nodiscard]] bool Exists(const std::wstring& path);
  [[nodiscard]] bool IsOpen(const std::wstring& path);
  [[nodiscard]] BitmapContents InCache(const std::wstring& path);
  [[nodiscard]] BitmapContents OnDevice(const std::wstring& path);

  // Called before every operation; set while no other thread uses the files.
  void SetHook(FileHook hook) { hook_ = std::move(hook); }

  // Lets the file be opened again, or no longer: neither loaded nor marked.
  void Hold(const std::wstring& path, bool held);

  // The same by a program that shares writing, so that it can be marked.
  void HoldSharing(const std::wstring& path, bool held);

  // Lets the marks beside bitmaps be left again, or no longer.
  void FailMarks(bool fail) { marks_fail_ = fail; }
  [[nodiscard]] bool HasMark(const std::wstring& path);

  // Has whoever touches the file's view fail with kViewFault, from the touch after `touches` others
  // on, until HealViews.
  static constexpr std::uint32_t kViewFault = 998;
  void FailView(const std::wstring& path, int touches = 0);
  void HealViews() { failing_view_ = nullptr; }
  // What a touch of this view comes to: a fault, or 0.
  [[nodiscard]] std::uint32_t Touch(const void* view);

  // Ends the process, as far as bitmaps go, and starts the next: all that was in memory is gone.
  // With kPowerCut what the device did not have is gone too. No other thread uses the files, and
  // nobody has a pin.
  enum class End { kKill, kPowerCut };
  void StartAnew(End end);

  // Lets each FlushView fail, or succeed again.
  void FailFlushes(bool fail) { flushes_fail_ = fail; }

  // Whether FlushView reaches the device, as it does where views are written through, or only the
  // file cache.
  void WriteViewsThrough(bool through) { views_reach_device_ = through; }

  // Makes a clean file one that a process left in use when it died, before the device heard of it.
  void LeaveInUse(const std::wstring& path);

  std::unique_ptr<BitmapFile> Open(const std::wstring& path, OpenError& error) override;
  std::uint32_t Delete(const std::wstring& path) override;
  std::uint32_t Distrust(const std::wstring& path) override;
  std::uint32_t LeaveMissedMark(const std::wstring& path) override;
  std::uint32_t RemoveMissedMark(const std::wstring& path) override;
  bool HasMissedMark(const std::wstring& path) override;

 private:
  struct Stored;
  class Opened;

  void Call(FileOperation operation, const std::wstring& path) {
    if (hook_) hook_(operation, path);
  }
  std::shared_ptr<Stored> Find(const std::wstring& path);

  FileHook hook_;
  std::atomic<bool> flushes_fail_{false};
  std::atomic<bool> views_reach_device_{true};
  std::atomic<bool> marks_fail_{false};
  std::atomic<const void*> failing_view_{nullptr};
  std::atomic<int> touches_until_fault_{0};
  std::mutex mutex_;
  std::map<std::wstring, std::shared_ptr<Stored>> files_;
};

// The ones behind SystemBitmapFiles().
[[nodiscard]] MemoryBitmapFiles& Files();

// A door that a test closes in front of other threads.
class Gate {
 public:
  // Waits while the gate is closed.
  void Pass();
  // Returns when `threads` threads wait at it; they go on when it is opened.
  void WaitForThreads(int threads);
  void Open();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
  int waiting_ = 0;
};

}  // namespace zel::test
