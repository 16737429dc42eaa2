// The procedures that hand over to another part of the service and have nothing else to do.
#include "bitmap/bitmap_manager.h"
#include "driver/driver_status_report.h"
#include "driver/synchronize.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "rpc/procedures.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

// A stop takes the driver's port away: what was asked of it then fails in one way or another.
std::uint32_t AnswerOf(std::uint32_t result) {
  return result != ERROR_SUCCESS && StopRequested ? ERROR_SHUTDOWN_IN_PROGRESS : result;
}

}  // namespace

error_status_t Ping(handle_t) noexcept {
  return ERROR_SUCCESS;
}

error_status_t DeleteBitmap(handle_t, BitmapId bitmap_id) noexcept {
  LogMessage(kGeneralDebug, L"DeleteBitmap invoked for bitmap id: 0x%016I64x\n", bitmap_id);
  VolumeGuid volume_guid;
  FileId file_id;
  DeleteBitmapById(bitmap_id, volume_guid, file_id);
  LogMessage(kGeneralInfo, L"Deleted BitmapId 0x%016I64x, Volume %s, FileId 0x%016I64x\n",
             bitmap_id, GuidToString(volume_guid).c_str(), file_id);
  return ERROR_SUCCESS;
}

error_status_t SynchronizeBitmaps(handle_t, FileTime request_time) noexcept {
  LogMessage(kGeneralInfo, L"Synchronizing bitmaps to %I64u\n", request_time);
  const std::uint32_t result = AnswerOf(Synchronize(request_time));
  if (result != ERROR_SUCCESS) {
    LogMessage(kGeneralWarn, L"Failed to synchronize bitmaps to %I64u\n", request_time);
  } else {
    LogMessage(kGeneralInfo, L"Synchronized bitmaps to %I64u\n", request_time);
  }
  return result;
}

error_status_t GetDriverStatus(handle_t) noexcept {
  return AnswerOf(static_cast<std::uint32_t>(LogDriverStatus()));
}

}  // namespace zel
