#include "driver/receive_slots.h"

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

#include "bitmap/bitmap_manager.h"
#include "bitmap/record_changes.h"
#include "driver/message_handler.h"
#include "errors/error_info.h"
#include "files/install_directory.h"
#include "files/layout.h"
#include "files/own_rights.h"
#include "logging/log_message.h"
#include "win32/no_links.h"

namespace zel {

namespace {

// Nobody else writes it meanwhile. The CBT directory may have to be made: there is no bitmap yet.
UniqueFile OpenFile(const std::wstring& path) {
  ::CreateDirectoryW(GetCbtDirectory().c_str(), RightsOfOwnDirectory());
  return OpenWithoutLinks(path, 1, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_ALWAYS);
}

// For a file that another program holds, whatever it shares.
UniqueFile OpenForReading(const std::wstring& path) {
  return OpenWithoutLinks(path, 1, GENERIC_READ,
                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING);
}

// The file's bytes, as far as slots can be in them. 0 or the system's error.
DWORD ReadSlots(HANDLE file, std::vector<std::byte>& bytes) {
  bytes.resize(kReceiveSlotsBytes);
  DWORD read = 0;
  if (!::ReadFile(file, bytes.data(), kReceiveSlotsBytes, &read, nullptr)) return ::GetLastError();
  bytes.resize(read);
  return ERROR_SUCCESS;
}

// Writes every byte, so that the file has all of its room from now on: a full disk is met here, and
// not by a reader in its view. 0 or the system's error.
DWORD ClearSlots(HANDLE file) {
  const std::vector<std::byte> zeros(kReceiveSlotsBytes);
  DWORD written = 0;
  if (::SetFilePointer(file, 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER ||
      !::WriteFile(file, zeros.data(), kReceiveSlotsBytes, &written, nullptr)) {
    return ::GetLastError();
  }
  if (written != kReceiveSlotsBytes) return ERROR_DISK_FULL;  // the one reason to write less
  return ::SetEndOfFile(file) ? ERROR_SUCCESS : ::GetLastError();
}

// 0 or the system's error.
DWORD MapSlots(UniqueFile file, ReceiveSlots& slots) {
  UniqueMapping mapping(
      ::CreateFileMappingW(file.get(), nullptr, PAGE_READWRITE, 0, kReceiveSlotsBytes, nullptr));
  if (!mapping) return ::GetLastError();
  UniqueView<ReceiveSlot> view(static_cast<ReceiveSlot*>(
      ::MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, kReceiveSlotsBytes)));
  if (!view) return ::GetLastError();
  slots = ReceiveSlots(std::move(file), std::move(mapping), std::move(view));
  return ERROR_SUCCESS;
}

void DistrustEveryBitmap() {
  for (const auto& [file, bitmaps] : ListAllBitmaps()) {
    MarkUnreportedChanges(file.file_id, file.volume);
  }
}

void HandleLeftMessages(const LeftMessages& left, const std::wstring& path) {
  if (left.is_damaged) {
    LogMessage(kDriverCommWarn, L"%s is damaged: what it tells of messages may be too little\n",
               path.c_str());
  }
  if (!left.messages.empty()) {
    LogMessage(kDriverCommInfo, L"Handling %u messages that were in hand when the service ended\n",
               static_cast<std::uint32_t>(left.messages.size()));
  }
  for (const LeftMessage& message : left.messages) {
    HandleDriverMessage(message.bytes, message.receiver);
  }
  if (left.one_is_unreadable) {
    // Whose change it is, nobody can tell.
    LogMessage(kDriverCommWarn,
               L"A message that was in hand when the service ended cannot be read from %s: every "
               L"bitmap becomes unreliable\n",
               path.c_str());
    DistrustEveryBitmap();
  }
}

// Whose changes the file tells of, nobody can say.
void DistrustForUnreadFile(const std::wstring& path, DWORD error) {
  LogMessage(kDriverCommWarn,
             L"What was in hand when the service ended cannot be read from %s, and every bitmap "
             L"becomes unreliable: %hs\n",
             path.c_str(), ErrorInfo(error).text());
  DistrustEveryBitmap();
}

// `file` is null when it could not be opened, with the thread's last error.
void HandleWhatIsLeft(const UniqueFile& file, const std::wstring& path) {
  std::vector<std::byte> bytes;
  const DWORD error = file ? ReadSlots(file.get(), bytes) : ::GetLastError();
  if (error == ERROR_SUCCESS) return HandleLeftMessages(FindLeftMessages(bytes), path);
  if (!IsMissingFile(error)) DistrustForUnreadFile(path, error);
}

// 0 or the system's error. What is in the file is handled in any case: the bitmaps must not look
// clean without it until it can be opened again. A later start may handle it once more.
DWORD OpenInFile(const std::wstring& path, ReceiveSlots& slots) {
  UniqueFile file = OpenFile(path);
  if (!file) {
    const DWORD error = ::GetLastError();
    HandleWhatIsLeft(OpenForReading(path), path);
    return error;
  }
  // First recorded, then forgotten.
  HandleWhatIsLeft(file, path);
  if (const DWORD error = ClearSlots(file.get()); error != ERROR_SUCCESS) return error;
  return MapSlots(std::move(file), slots);
}

}  // namespace

ReceiveSlots OpenReceiveSlots() {
  const std::wstring path = ComposeReceivedMessagesPath(GetCbtDirectory());
  ReceiveSlots slots;
  if (const DWORD error = OpenInFile(path, slots); error != ERROR_SUCCESS) {
    LogMessage(kDriverCommWarn,
               L"Messages in hand are lost if the service is killed: %s cannot be used: %hs\n",
               path.c_str(), ErrorInfo(error).text());
  }
  return slots;
}

}  // namespace zel
