// The system calls that the hook replaces, and what they take. Test bench only.
#pragma once

#include <windows.h>
// Behind <windows.h>.
#include <winternl.h>

namespace zel::sim {

using NtCreateFileCall = NTSTATUS WINAPI(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, IO_STATUS_BLOCK*,
                                         LARGE_INTEGER*, ULONG, ULONG, ULONG, ULONG, void*, ULONG);
using NtOpenFileCall = NTSTATUS WINAPI(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, IO_STATUS_BLOCK*,
                                       ULONG, ULONG);
using NtWriteFileCall = NTSTATUS WINAPI(HANDLE, HANDLE, PIO_APC_ROUTINE, void*, IO_STATUS_BLOCK*,
                                        const void*, ULONG, LARGE_INTEGER*, ULONG*);
using NtReadFileCall = NTSTATUS WINAPI(HANDLE, HANDLE, PIO_APC_ROUTINE, void*, IO_STATUS_BLOCK*,
                                       void*, ULONG, LARGE_INTEGER*, ULONG*);
using NtSetInformationFileCall = NTSTATUS WINAPI(HANDLE, IO_STATUS_BLOCK*, void*, ULONG, ULONG);
using NtCloseCall = NTSTATUS WINAPI(HANDLE);
using NtCreateSectionCall = NTSTATUS WINAPI(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*,
                                            LARGE_INTEGER*, ULONG, ULONG, HANDLE);
using NtCreateUserProcessCall = NTSTATUS WINAPI(HANDLE*, HANDLE*, ACCESS_MASK, ACCESS_MASK,
                                                OBJECT_ATTRIBUTES*, OBJECT_ATTRIBUTES*, ULONG,
                                                ULONG, void*, void*, void*);

// NtSetInformationFile and NtQueryInformationFile.
enum InformationClass : ULONG {
  kStandardInformation = 5,
  kRenameInformation = 10,
  kPositionInformation = 14,
  kModeInformation = 16,
  kAllocationInformation = 19,
  kEndOfFileInformation = 20,
  kRenameInformationEx = 65,
};

// What NtCreateFile did, when it truncated a file that was there.
inline constexpr ULONG_PTR kSuperseded = 0;
inline constexpr ULONG_PTR kOverwritten = 3;

// Offsets that mean something else: for NtWriteFile, and for both.
inline constexpr LONGLONG kToEndOfFile = -1;
inline constexpr LONGLONG kAtFilePointer = -2;

inline constexpr NTSTATUS kStatusPending = 0x103;
inline constexpr NTSTATUS kStatusUnsuccessful = static_cast<NTSTATUS>(0xC0000001);

}  // namespace zel::sim
