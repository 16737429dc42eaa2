// A read or a write, carried out so that it is known where it went, and reported. Test bench only.
#pragma once

#include "files/types.h"
#include "simulator/simhook/native_calls.h"

namespace zel::sim {

struct ReadCall {
  NtReadFileCall* call;  // NtReadFile or NtReadFileScatter, which take the same
  HANDLE file;
  HANDLE event;
  PIO_APC_ROUTINE apc;
  void* apc_context;
  IO_STATUS_BLOCK* io;
  void* buffer;
  ULONG length;
  LARGE_INTEGER* offset;
  ULONG* key;
};

struct WriteCall {
  NtWriteFileCall* call;  // NtWriteFile or NtWriteFileGather, which take the same
  HANDLE file;
  HANDLE event;
  PIO_APC_ROUTINE apc;
  void* apc_context;
  IO_STATUS_BLOCK* io;
  const void* buffer;
  ULONG length;
  LARGE_INTEGER* offset;
  ULONG* key;
};

// What is asked for is reported, whatever comes of it.
// Threads: any; reads at the file pointer wait for each other and for writes there.
NTSTATUS ReadAndReport(const FileKey& file, const ReadCall& read);

// Threads: any; writes at the file pointer and at the end of a file wait for each other.
NTSTATUS WriteAndReport(const FileKey& file, const WriteCall& write);

// Sets the file pointer, which nobody who reads or writes there must find moved on the way.
NTSTATUS SetPosition(NtSetInformationFileCall* call, HANDLE file, IO_STATUS_BLOCK* io, void* data,
                     ULONG size);

// The size of an open file in bytes.
std::uint64_t SizeOf(HANDLE file);

}  // namespace zel::sim
