#include "tests/integration/support/fake_driver.h"

#include <windows.h>

// After <windows.h>:
#include <fltuser.h>

#include <filesystem>
#include <mutex>
#include <utility>

#include "bitmap/bitmap_manager.h"
#include "driver/driver_port.h"
#include "driver/driver_status_report.h"
#include "driver/synchronize.h"
#include "tracking/tracked_file_table.h"

namespace zel {

namespace {

// A program gets what Wine lacks with the simulator's library, by importing from it. Volatile, so
// that the compiler keeps the import.
[[maybe_unused]] HRESULT(WINAPI* const volatile kImportsTheLibrary)(HANDLE, LPVOID, DWORD, LPVOID,
                                                                    DWORD,
                                                                    LPDWORD) = &::FilterSendMessage;

std::mutex asked_lock;
std::vector<std::string> asked;

void Note(const std::string& question) {
  const std::lock_guard guard(asked_lock);
  asked.push_back(question);
}

std::string About(const std::wstring& path, FileId file_id) {
  return std::filesystem::path(path).string() + " " + std::to_string(file_id);
}

}  // namespace

HRESULT NotifyDriverOfTrackingChanges() {
  Note("notify");
  test::FakeDriver::on_notify();
  return static_cast<HRESULT>(test::FakeDriver::notify_code.load());
}

std::uint32_t VerifyFileIsTracked(const std::wstring& path, const VolumeGuid&, FileId file_id) {
  Note("verify " + About(path, file_id));
  const std::function<void()> action = test::FakeDriver::on_verify;  // which may replace itself
  action();
  return test::FakeDriver::verify_code;
}

// Ends the tracking in the service, as the real one does.
std::uint32_t ForceTrackingStop(const std::wstring& path, const VolumeGuid& volume_guid,
                                FileId file_id) {
  Note("stop " + About(path, file_id));
  if (!StopTrackingFile(path)) return ERROR_SHUTDOWN_IN_PROGRESS;
  DiscardBitmapsOfFile({volume_guid, file_id});
  return test::FakeDriver::stop_code;
}

std::uint32_t Synchronize(FileTime request_time) {
  Note("synchronize " + std::to_string(request_time));
  return test::FakeDriver::synchronize_code;
}

HRESULT LogDriverStatus() {
  Note("status");
  return static_cast<HRESULT>(test::FakeDriver::status_code.load());
}

std::vector<std::string> test::FakeDriver::Take() {
  const std::lock_guard guard(asked_lock);
  return std::exchange(asked, {});
}

}  // namespace zel
