// Everything around the service's start that is not the service: privilege, service manager,
// registry, and a driver's port. Calls are recorded in their order; each can be made to fail.
//
// The RPC runtime, the bitmap manager and the tracked files are the real ones.
#pragma once

#include <windows.h>

#include <fltuser.h>

#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tests/integration/support/import_hook.h"
#include "win32/file_time.h"
#include "win32/handles.h"

extern "C" {
extern void* __imp_AdjustTokenPrivileges;
extern void* __imp_OpenSCManagerW;
extern void* __imp_OpenServiceW;
extern void* __imp_StartServiceW;
extern void* __imp_CloseServiceHandle;
extern void* __imp_RegDeleteKeyW;
extern void* __imp_RegCreateKeyW;
extern void* __imp_FilterConnectCommunicationPort;
extern void* __imp_FilterGetMessage;
extern void* __imp_FilterSendMessage;
}

namespace zel::test {

// What the world answers; set before the start.
struct ServiceWorldAnswers {
  DWORD privilege = ERROR_SUCCESS;       // the last error of a call that succeeds
  DWORD driver_service = ERROR_SUCCESS;  // of StartService
  LONG obsolete_keys = ERROR_FILE_NOT_FOUND;
  LONG list_key = ERROR_SUCCESS;
  HRESULT connect = S_OK;
  HRESULT status = S_OK;  // of the command that asks for it
};

class ServiceWorld {
 public:
  ServiceWorld() {
    answers = {};
    calls_.clear();
    reads_.clear();
  }
  ~ServiceWorld() { ::RegDeleteKeyW(HKEY_CURRENT_USER, KeyPath().c_str()); }

  static inline ServiceWorldAnswers answers;

  [[nodiscard]] static std::vector<std::string> calls() {
    const std::scoped_lock guard(lock_);
    return calls_;
  }

 private:
  static void Record(std::string call) {
    const std::scoped_lock guard(lock_);
    calls_.push_back(std::move(call));
  }

  static std::wstring KeyPath() {
    return L"Software\\ZelServiceTest" + std::to_wstring(::GetCurrentProcessId());
  }

  static BOOL WINAPI Adjust(HANDLE, BOOL, PTOKEN_PRIVILEGES, DWORD, PTOKEN_PRIVILEGES, PDWORD) {
    Record("privilege");
    ::SetLastError(answers.privilege);
    return TRUE;
  }

  static SC_HANDLE WINAPI OpenManager(LPCWSTR, LPCWSTR, DWORD) {
    return reinterpret_cast<SC_HANDLE>(1);
  }
  static SC_HANDLE WINAPI OpenService(SC_HANDLE, LPCWSTR, DWORD) {
    return reinterpret_cast<SC_HANDLE>(2);
  }
  static BOOL WINAPI StartDriver(SC_HANDLE, DWORD, LPCWSTR*) {
    Record("driver service");
    ::SetLastError(answers.driver_service);
    return answers.driver_service == ERROR_SUCCESS;
  }
  static BOOL WINAPI CloseService(SC_HANDLE) { return TRUE; }

  static LONG WINAPI DeleteKey(HKEY, LPCWSTR path) {
    const std::wstring whole(path);
    const std::wstring name = whole.substr(whole.rfind(L'\\') + 1);
    Record("delete " + std::string(name.begin(), name.end()));
    return answers.obsolete_keys;
  }
  static LONG WINAPI CreateKey(HKEY, LPCWSTR path, PHKEY key) {
    if (std::wstring_view(path).ends_with(L"\\TrackedFileList")) {
      Record("list key");
      if (answers.list_key != ERROR_SUCCESS) return answers.list_key;
    }
    return ::RegCreateKeyExW(HKEY_CURRENT_USER, KeyPath().c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                             nullptr, key, nullptr);
  }

  static HRESULT WINAPI Connect(LPCWSTR, DWORD, LPCVOID, WORD, LPSECURITY_ATTRIBUTES,
                                HANDLE* port) {
    Record("port");
    if (answers.connect == S_OK) *port = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return answers.connect;
  }

  struct Read {
    void* buffer;
    OVERLAPPED* overlapped;
  };

  static HRESULT WINAPI GetMessage(HANDLE, PFILTER_MESSAGE_HEADER buffer, DWORD,
                                   LPOVERLAPPED overlapped) {
    const std::scoped_lock guard(lock_);
    reads_.push_back({buffer, overlapped});
    if (owes_sync_) AnswerSync();
    return HRESULT_FROM_WIN32(ERROR_IO_PENDING);
  }

  static HRESULT WINAPI SendMessage(HANDLE, LPVOID command, DWORD, LPVOID, DWORD, LPDWORD) {
    const int code = *static_cast<const unsigned char*>(command);
    Record("command " + std::to_string(code));
    if (code == 2) return answers.status;
    const std::scoped_lock guard(lock_);
    if (code == 1) owes_sync_ = true;
    if (owes_sync_ && !reads_.empty()) AnswerSync();
    return S_OK;
  }

  // Completes a read with the notification that the queue has been worked through. Under lock_.
  static void AnswerSync() {
    const Read read = reads_.front();
    reads_.pop_front();
    owes_sync_ = false;
    unsigned char message[80] = {};
    const std::uint32_t magic = 0x092ABB38;
    const std::uint16_t type = 0x04A9;
    const FileTime now = SystemTimeNow();
    std::memcpy(message + 16, &magic, sizeof magic);
    std::memcpy(message + 20, &type, sizeof type);
    std::memcpy(message + 32, &now, sizeof now);
    std::memcpy(read.buffer, message, sizeof message);
    read.overlapped->Internal = 0;
    read.overlapped->InternalHigh = sizeof message;
    ::SetEvent(read.overlapped->hEvent);
  }

  static inline std::mutex lock_;
  static inline std::vector<std::string> calls_;
  static inline std::deque<Read> reads_;
  static inline bool owes_sync_ = false;

  ImportHook adjust_{__imp_AdjustTokenPrivileges, &Adjust};
  ImportHook open_manager_{__imp_OpenSCManagerW, &OpenManager};
  ImportHook open_service_{__imp_OpenServiceW, &OpenService};
  ImportHook start_driver_{__imp_StartServiceW, &StartDriver};
  ImportHook close_service_{__imp_CloseServiceHandle, &CloseService};
  ImportHook delete_key_{__imp_RegDeleteKeyW, &DeleteKey};
  ImportHook create_key_{__imp_RegCreateKeyW, &CreateKey};
  ImportHook connect_{__imp_FilterConnectCommunicationPort, &Connect};
  ImportHook get_message_{__imp_FilterGetMessage, &GetMessage};
  ImportHook send_message_{__imp_FilterSendMessage, &SendMessage};
};

}  // namespace zel::test
