#include "simulator/simhook/reported_transfer.h"

#include <algorithm>

#include "simulator/simhook/reporter.h"
#include "win32/critical_section.h"
#include "win32/handles.h"

namespace zel::sim {

namespace {

CriticalSection pointerLock;

template <class Information>
Information Query(HANDLE file, InformationClass kind) {
  Information information = {};
  IO_STATUS_BLOCK io;
  ::NtQueryInformationFile(file, &io, &information, sizeof information,
                           static_cast<FILE_INFORMATION_CLASS>(kind));
  return information;
}

std::uint64_t PointerOf(HANDLE file) {
  return static_cast<std::uint64_t>(Query<LARGE_INTEGER>(file, kPositionInformation).QuadPart);
}

bool IsSynchronous(HANDLE file) {
  return (Query<ULONG>(file, kModeInformation) &
          (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) != 0;
}

// Whether a handle may do nothing but append, so that every offset means the end of the file.
bool MayOnlyAppend(HANDLE file) {
  PUBLIC_OBJECT_BASIC_INFORMATION object = {};
  ::NtQueryObject(file, ObjectBasicInformation, &object, sizeof object, nullptr);
  return (object.GrantedAccess & (FILE_WRITE_DATA | FILE_APPEND_DATA)) == FILE_APPEND_DATA;
}

NTSTATUS Call(const WriteCall& write, HANDLE event, LARGE_INTEGER* offset) {
  return write.call(write.file, event, write.apc, write.apc_context, write.io, write.buffer,
                    write.length, offset, write.key);
}

// What was written; nothing after a failure.
std::uint64_t Written(const WriteCall& write, NTSTATUS status) {
  return NT_SUCCESS(status) ? write.io->Information : 0;
}

// Another thread may see an overlapped write completed before this one has reported it, and end the
// process or read the file: the caller's event waits for the report, and a report goes ahead for
// those who look at something else.
NTSTATUS CallOverlapped(const FileKey& file, const WriteCall& write, std::uint64_t first,
                        LARGE_INTEGER* offset) {
  ReportWrite(file, first, write.length);
  const UniqueEvent done(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (write.event != nullptr) ::ResetEvent(write.event);
  const NTSTATUS status = Call(write, done.get(), offset);
  if (status == kStatusPending) ::WaitForSingleObject(done.get(), INFINITE);
  return status;
}

NTSTATUS WriteAt(const FileKey& file, const WriteCall& write, std::uint64_t first,
                 LARGE_INTEGER* offset) {
  if (IsSynchronous(write.file)) {
    const NTSTATUS status = Call(write, write.event, offset);
    ReportWrite(file, first, Written(write, status));
    return status;
  }
  const NTSTATUS status = CallOverlapped(file, write, first, offset);
  ReportWrite(file, first, Written(write, status));
  if (write.event != nullptr && NT_SUCCESS(status)) ::SetEvent(write.event);
  return status;
}

// Another process may append at the same time: all that the file has grown by is reported.
NTSTATUS Append(const FileKey& file, const WriteCall& write) {
  const LockGuard guard(pointerLock);
  const std::uint64_t before = SizeOf(write.file);
  const NTSTATUS status = WriteAt(file, write, before, write.offset);
  const std::uint64_t end = before + Written(write, status);
  const std::uint64_t after = SizeOf(write.file);
  if (NT_SUCCESS(status) && after > end) ReportWrite(file, end, after - end);
  return status;
}

// The pointer is read and said, so that the place reported is the place written.
NTSTATUS WriteAtPointer(const FileKey& file, const WriteCall& write) {
  const LockGuard guard(pointerLock);
  const std::uint64_t first = PointerOf(write.file);
  LARGE_INTEGER position;
  position.QuadPart = static_cast<LONGLONG>(first);
  return WriteAt(file, write, first, &position);
}

}  // namespace

NTSTATUS ReadAndReport(const FileKey& file, const ReadCall& read) {
  const auto call = [&read] {
    return read.call(read.file, read.event, read.apc, read.apc_context, read.io, read.buffer,
                     read.length, read.offset, read.key);
  };
  if (read.offset != nullptr && read.offset->QuadPart != kAtFilePointer) {
    ReportRead(file, static_cast<std::uint64_t>(read.offset->QuadPart), read.length);
    return call();
  }
  const LockGuard guard(pointerLock);
  ReportRead(file, PointerOf(read.file), read.length);
  return call();
}

NTSTATUS WriteAndReport(const FileKey& file, const WriteCall& write) {
  const LONGLONG offset = write.offset != nullptr ? write.offset->QuadPart : kAtFilePointer;
  if (offset == kToEndOfFile || MayOnlyAppend(write.file)) return Append(file, write);
  if (offset == kAtFilePointer && IsSynchronous(write.file)) return WriteAtPointer(file, write);
  return WriteAt(file, write, static_cast<std::uint64_t>(offset), write.offset);
}

NTSTATUS SetPosition(NtSetInformationFileCall* call, HANDLE file, IO_STATUS_BLOCK* io, void* data,
                     ULONG size) {
  const LockGuard guard(pointerLock);
  return call(file, io, data, size, kPositionInformation);
}

std::uint64_t SizeOf(HANDLE file) {
  const auto information = Query<FILE_STANDARD_INFORMATION>(file, kStandardInformation);
  return static_cast<std::uint64_t>(information.EndOfFile.QuadPart);
}

}  // namespace zel::sim
