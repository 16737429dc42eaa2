// Sees what the program of this process does to files and reports it to the simulated driver.
// Test bench only. driversim run brings this library into a program before its first instruction.
//
// Seen: opens, closes, reads, writes, changes of the size, renames, and child processes, which get
// this library too. Sections are not followed: making one counts as a read of the whole file and,
// if it can be written to, marks it.
#include <windows.h>

#include <optional>

#include "simulator/file_identity.h"
#include "simulator/injection.h"
#include "simulator/run.h"
#include "simulator/simhook/native_calls.h"
#include "simulator/simhook/reported_transfer.h"
#include "simulator/simhook/reporter.h"
#include "simulator/simhook/system_call.h"

namespace zel::sim {
namespace {

std::wstring library_path;

NtCreateFileCall* create_file = nullptr;
NtOpenFileCall* open_file = nullptr;
NtReadFileCall* read_file = nullptr;
NtReadFileCall* read_file_scatter = nullptr;
NtWriteFileCall* write_file = nullptr;
NtWriteFileCall* write_file_gather = nullptr;
NtSetInformationFileCall* set_information_file = nullptr;
NtCloseCall* close_handle = nullptr;
NtCreateSectionCall* create_section = nullptr;
NtCreateUserProcessCall* create_user_process = nullptr;

void ReportOpened(HANDLE handle, ULONG_PTR action) {
  const std::optional<FileKey> file = IdentifyFile(handle);
  if (!file) return;
  ReportOpen(*file);
  if (action == kOverwritten || action == kSuperseded) ReportSize(*file, 0);
}

NTSTATUS WINAPI CreateFileHook(HANDLE* handle, ACCESS_MASK access, OBJECT_ATTRIBUTES* object,
                               IO_STATUS_BLOCK* io, LARGE_INTEGER* allocation, ULONG attributes,
                               ULONG share, ULONG disposition, ULONG options, void* extended,
                               ULONG extended_size) {
  const NTSTATUS status = create_file(handle, access, object, io, allocation, attributes, share,
                                      disposition, options, extended, extended_size);
  if (NT_SUCCESS(status)) ReportOpened(*handle, io->Information);
  return status;
}

NTSTATUS WINAPI OpenFileHook(HANDLE* handle, ACCESS_MASK access, OBJECT_ATTRIBUTES* object,
                             IO_STATUS_BLOCK* io, ULONG share, ULONG options) {
  const NTSTATUS status = open_file(handle, access, object, io, share, options);
  if (NT_SUCCESS(status)) ReportOpened(*handle, FILE_OPENED);
  return status;
}

NTSTATUS Read(NtReadFileCall* call, HANDLE handle, HANDLE event, PIO_APC_ROUTINE apc,
              void* apc_context, IO_STATUS_BLOCK* io, void* buffer, ULONG length,
              LARGE_INTEGER* offset, ULONG* key) {
  const std::optional<FileKey> file = IdentifyFile(handle);
  if (!file) return call(handle, event, apc, apc_context, io, buffer, length, offset, key);
  return ReadAndReport(*file,
                       {call, handle, event, apc, apc_context, io, buffer, length, offset, key});
}

NTSTATUS WINAPI ReadFileHook(HANDLE handle, HANDLE event, PIO_APC_ROUTINE apc, void* apc_context,
                             IO_STATUS_BLOCK* io, void* buffer, ULONG length, LARGE_INTEGER* offset,
                             ULONG* key) {
  return Read(read_file, handle, event, apc, apc_context, io, buffer, length, offset, key);
}

NTSTATUS WINAPI ReadFileScatterHook(HANDLE handle, HANDLE event, PIO_APC_ROUTINE apc,
                                    void* apc_context, IO_STATUS_BLOCK* io, void* segments,
                                    ULONG length, LARGE_INTEGER* offset, ULONG* key) {
  return Read(read_file_scatter, handle, event, apc, apc_context, io, segments, length, offset,
              key);
}

NTSTATUS Write(NtWriteFileCall* call, HANDLE handle, HANDLE event, PIO_APC_ROUTINE apc,
               void* apc_context, IO_STATUS_BLOCK* io, const void* buffer, ULONG length,
               LARGE_INTEGER* offset, ULONG* key) {
  const std::optional<FileKey> file = IdentifyFile(handle);
  if (!file) return call(handle, event, apc, apc_context, io, buffer, length, offset, key);
  return WriteAndReport(*file,
                        {call, handle, event, apc, apc_context, io, buffer, length, offset, key});
}

NTSTATUS WINAPI WriteFileHook(HANDLE handle, HANDLE event, PIO_APC_ROUTINE apc, void* apc_context,
                              IO_STATUS_BLOCK* io, const void* buffer, ULONG length,
                              LARGE_INTEGER* offset, ULONG* key) {
  return Write(write_file, handle, event, apc, apc_context, io, buffer, length, offset, key);
}

NTSTATUS WINAPI WriteFileGatherHook(HANDLE handle, HANDLE event, PIO_APC_ROUTINE apc,
                                    void* apc_context, IO_STATUS_BLOCK* io, const void* segments,
                                    ULONG length, LARGE_INTEGER* offset, ULONG* key) {
  return Write(write_file_gather, handle, event, apc, apc_context, io, segments, length, offset,
               key);
}

NTSTATUS WINAPI SetInformationFileHook(HANDLE handle, IO_STATUS_BLOCK* io, void* data, ULONG size,
                                       ULONG kind) {
  if (kind == kPositionInformation) {
    return SetPosition(set_information_file, handle, io, data, size);
  }
  const NTSTATUS status = set_information_file(handle, io, data, size, kind);
  if (!NT_SUCCESS(status)) return status;
  const bool resized = kind == kEndOfFileInformation || kind == kAllocationInformation;
  const bool renamed = kind == kRenameInformation || kind == kRenameInformationEx;
  if (!resized && !renamed) return status;
  const std::optional<FileKey> file = IdentifyFile(handle);
  if (file && resized) ReportSize(*file, SizeOf(handle));
  if (file && renamed) ReportRename(*file);
  return status;
}

NTSTATUS WINAPI CloseHook(HANDLE handle) {
  const std::optional<FileKey> file = IdentifyFile(handle);
  const NTSTATUS status = close_handle(handle);
  if (file && NT_SUCCESS(status)) ReportClose(*file);
  return status;
}

NTSTATUS WINAPI CreateSectionHook(HANDLE* section, ACCESS_MASK access, OBJECT_ATTRIBUTES* object,
                                  LARGE_INTEGER* size, ULONG protection, ULONG attributes,
                                  HANDLE handle) {
  const NTSTATUS status =
      create_section(section, access, object, size, protection, attributes, handle);
  if (!NT_SUCCESS(status) || handle == nullptr) return status;
  const std::optional<FileKey> file = IdentifyFile(handle);
  if (!file) return status;
  ReportRead(*file, 0, SizeOf(handle));
  const bool writable = (protection & (PAGE_READWRITE | PAGE_EXECUTE_READWRITE)) != 0;
  if (writable) ReportUnreported(*file);
  return status;
}

// The system makes every first thread suspended and lets it go when it has done its own part.
NTSTATUS WINAPI CreateUserProcessHook(HANDLE* process, HANDLE* thread, ACCESS_MASK process_access,
                                      ACCESS_MASK thread_access, OBJECT_ATTRIBUTES* process_object,
                                      OBJECT_ATTRIBUTES* thread_object, ULONG process_flags,
                                      ULONG thread_flags, void* parameters, void* create_info,
                                      void* attributes) {
  const NTSTATUS status = create_user_process(process, thread, process_access, thread_access,
                                              process_object, thread_object, process_flags,
                                              thread_flags, parameters, create_info, attributes);
  if (!NT_SUCCESS(status) || InjectLibrary(*process, library_path)) return status;
  ::TerminateProcess(*process, kReportsLost);
  close_handle(*process);
  close_handle(*thread);
  return kStatusUnsuccessful;
}

template <class Function>
bool Replace(const char* name, Function* replacement, Function*& original) {
  original =
      reinterpret_cast<Function*>(ReplaceSystemCall(name, reinterpret_cast<void*>(replacement)));
  return original != nullptr;
}

bool ReplaceAll() {
  return Replace("NtCreateFile", &CreateFileHook, create_file) &&
         Replace("NtOpenFile", &OpenFileHook, open_file) &&
         Replace("NtReadFile", &ReadFileHook, read_file) &&
         Replace("NtReadFileScatter", &ReadFileScatterHook, read_file_scatter) &&
         Replace("NtWriteFile", &WriteFileHook, write_file) &&
         Replace("NtWriteFileGather", &WriteFileGatherHook, write_file_gather) &&
         Replace("NtSetInformationFile", &SetInformationFileHook, set_information_file) &&
         Replace("NtClose", &CloseHook, close_handle) &&
         Replace("NtCreateSection", &CreateSectionHook, create_section) &&
         Replace("NtCreateUserProcess", &CreateUserProcessHook, create_user_process);
}

}  // namespace
}  // namespace zel::sim

BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, void*) {
  using namespace zel::sim;
  if (reason != DLL_PROCESS_ATTACH) return TRUE;
  wchar_t path[MAX_PATH] = {};
  ::GetModuleFileNameW(self, path, MAX_PATH);
  library_path = path;
  return StartReporting() && ReplaceAll();
}
