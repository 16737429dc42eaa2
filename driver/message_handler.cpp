#include "driver/message_handler.h"

#include <windows.h>

#include "bitmap/bitmap_manager.h"
#include "bitmap/record_changes.h"
#include "driver/message_times.h"
#include "driver/missing_bitmaps.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "win32/file_time.h"

namespace zel {

namespace {

// Logs a message that is to be dropped. True for a good one.
bool Accept(const DriverMessage& message, DriverMessageFault fault, std::size_t size) {
  switch (fault) {
    case DriverMessageFault::kTooSmall:
      LogMessage(kDriverCommError, L"Message too small (%I64u bytes)\n", std::uint64_t{size});
      return false;
    case DriverMessageFault::kWrongMagic:
      LogMessage(kDriverCommError, L"Magic number incorrect, expected 0x%08lx but was 0x%08lx\n",
                 kDriverMessageMagic, message.Magic);
      return false;
    default:
      return true;
  }
}

void LogDetails(const DriverMessage& message) {
  const VolumeGuid& volume = message.VolumeGuid;
  const std::uint8_t* const tail = volume.Data4;
  LogMessage(kDriverCommTrace,
             L"Message details: timestamp %I64u, Volume "
             L"%08lx-%04hx-%04hx-%02x%02x-%02x%02x%02x%02x%02x%02x, FileId 0x%016I64x, "
             L"UnreportedChanges %s\n",
             message.Timestamp, volume.Data1, volume.Data2, volume.Data3, tail[0], tail[1], tail[2],
             tail[3], tail[4], tail[5], tail[6], tail[7], message.FileId,
             message.UnreportedChanges != 0 ? L"yes" : L"no");
}

void NoteTime(const DriverMessage& message) {
  if (message.Type == DriverMessageType::kQueueSync) {
    LastSyncTime.Raise(message.Timestamp);
  } else {
    LastMessageTime.Raise(message.Timestamp);
  }
}

void NoteVerified(const DriverMessage& message) {
  LogMessage(kDriverCommDebug, L"Volume %s, FileId 0x%016I64x verify FSCTL\n",
             GuidToString(message.VolumeGuid).c_str(), message.FileId);
  SetLastVerifyTime({message.VolumeGuid, message.FileId}, message.Timestamp);
}

// What follows a report that was recorded in so many bitmaps.
void NoteRecorded(const DriverMessage& message, std::size_t bitmaps) {
  if (bitmaps == 0) WarnOfMissingBitmap({message.VolumeGuid, message.FileId});
}

void Dispatch(const DriverMessage& message) {
  const FileId file = message.FileId;
  switch (message.Type) {
    case DriverMessageType::kWrite:
      NoteRecorded(message, UpdateBitmapsForFile(file, message.VolumeGuid, message.OffsetOrSize,
                                                 message.Length));
      break;
    case DriverMessageType::kOpened:
      LogMessage(kDriverCommDebug, L"FileId 0x%016I64x opened by PID %u\n", file,
                 message.ProcessId);
      break;
    case DriverMessageType::kClosed:
      LogMessage(kDriverCommDebug, L"FileId 0x%016I64x closed by PID %u\n", file,
                 message.ProcessId);
      break;
    case DriverMessageType::kRenamed:
      LogMessage(kDriverCommDebug, L"FileId 0x%016I64x renamed by PID %u\n", file,
                 message.ProcessId);
      break;
    case DriverMessageType::kQueueSync:
      LogMessage(kDriverCommDebug, L"Message queue sync notification received at %I64u\n",
                 message.Timestamp);
      break;
    case DriverMessageType::kVerify:
      NoteVerified(message);
      break;
    case DriverMessageType::kSizeChanged:
      LogMessage(kDriverCommDebug, L"FileId 0x%016I64x size changed to %I64u\n", file,
                 message.OffsetOrSize);
      NoteRecorded(message, ApplySizeChange(file, message.VolumeGuid, message.OffsetOrSize));
      break;
    default:
      LogMessage(kDriverCommError, L"Unknown message type 0x%x\n",
                 static_cast<std::uint16_t>(message.Type));
  }
}

ProcessIdentity IdentifyThisProcess() {
  ProcessIdentity process = {.id = ::GetCurrentProcessId()};
  FILETIME start;
  FILETIME unused[3];
  if (::GetProcessTimes(::GetCurrentProcess(), &start, &unused[0], &unused[1], &unused[2])) {
    process.start = JoinHalves(start.dwHighDateTime, start.dwLowDateTime);
  }
  return process;
}

}  // namespace

const ProcessIdentity& ThisProcess() {
  static const ProcessIdentity process = IdentifyThisProcess();
  return process;
}

void HandleDriverMessage(std::span<const std::byte> transferred, const ProcessIdentity& receiver) {
  DriverMessage message;
  const DriverMessageFault fault = ParseDriverMessage(transferred, message);
  if (message.ReplyLength != 0) {
    LogMessage(kDriverCommTrace, L"ReplyLength %lu, MessageId 0x%016I64x\n", message.ReplyLength,
               message.MessageId);
  }
  if (!Accept(message, fault, transferred.size())) return;
  LogDetails(message);
  // Before the time is noted: who sees the time may rely on the marks.
  if (message.UnreportedChanges != 0) {
    NoteRecorded(message, MarkUnreportedChanges(message.FileId, message.VolumeGuid));
  }
  NoteTime(message);
  // What the service itself does to a file is no change of it; the verify code is its own by
  // nature. The driver keeps messages while there is no service, and ids are used again.
  if (IsOperationOf(receiver, message) && message.Type != DriverMessageType::kVerify) {
    LogMessage(kDriverCommTrace,
               L"Skipping processing message because this process performed the file operation\n");
    return;
  }
  Dispatch(message);
}

}  // namespace zel
