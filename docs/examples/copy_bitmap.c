/* Copies a bitmap of the service on this machine into a file: a client of the interface in C, and
   what it has to do for an operation with a pipe.

     copy_bitmap BITMAP-ID FILE        the id as zelctl prints it, 0x...

   Ends with 0, 1 for an answer of the service, 2 when it is called wrongly or cannot write the
   file, and 3 when the call did not get through or was broken off. What it has written is a bitmap
   for an exit code of 0 only.

   midl /win64 zel.idl makes zel.h and the stub zel_c.c; rpc/zel.h is the same header for who has no
   MIDL. Link with zel_c.c and rpcrt4.lib. */
#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

#include "zel.h"

/* Memory for the stub. */
void* __RPC_USER midl_user_allocate(size_t size) {
  return malloc(size);
}
void __RPC_USER midl_user_free(void* memory) {
  free(memory);
}

/* What the pipe's routines know of the copy: its file, and the one buffer that everything comes
   through, however large the bitmap is. */
typedef struct Copy {
  FILE* file;
  byte buffer[65536];
} Copy;

/* The runtime asks for room for the bytes that have come: it may get less, and asks again. */
static void __RPC_USER OfferBuffer(char* state, unsigned long wanted, byte** buffer,
                                   unsigned long* size) {
  Copy* copy = (Copy*)state;
  *buffer = copy->buffer;
  *size = wanted < sizeof copy->buffer ? wanted : sizeof copy->buffer;
}

/* The runtime hands the bytes over, and none at the pipe's end. An exception breaks the call off:
   it comes out of CopyBitmap, and the service is told. */
static void __RPC_USER TakeBytes(char* state, byte* bytes, unsigned long count) {
  Copy* copy = (Copy*)state;
  if (count != 0 && fwrite(bytes, 1, count, copy->file) != count) {
    RpcRaiseException(ERROR_WRITE_FAULT);
  }
}

/* Keeps what was raised. A fault of this program's own goes on to whoever handles those. */
static int Keep(unsigned long raised, RPC_STATUS* status) {
  *status = (RPC_STATUS)raised;
  return raised == STATUS_ACCESS_VIOLATION ? EXCEPTION_CONTINUE_SEARCH : EXCEPTION_EXECUTE_HANDLER;
}

/* The service's answer in `code`; the RPC status, or the exception of the pipe's routines. */
static RPC_STATUS CopyInto(handle_t service, unsigned hyper bitmap_id, Copy* copy,
                           error_status_t* code) {
  BytePipe pipe = {NULL, TakeBytes, OfferBuffer, (char*)copy}; /* nobody pulls an [out] pipe */
  RPC_STATUS status = RPC_S_OK;
  RpcTryExcept {
    *code = CopyBitmap(service, bitmap_id, &pipe);
  }
  RpcExcept(Keep(RpcExceptionCode(), &status)) {}
  RpcEndExcept;
  return status;
}

/* No endpoint is named: the first call asks the machine for it. */
static RPC_STATUS Bind(handle_t* service) {
  wchar_t protocol[] = L"ncalrpc";
  RPC_WSTR text = NULL;
  RPC_STATUS status = RpcStringBindingComposeW(NULL, (RPC_WSTR)protocol, NULL, NULL, NULL, &text);
  if (status == RPC_S_OK) {
    status = RpcBindingFromStringBindingW(text, service);
    RpcStringFreeW(&text);
  }
  return status;
}

static int Fail(int exit_code, const char* what, unsigned long code) {
  fprintf(stderr, "copy_bitmap: %s: %lu\n", what, code);
  return exit_code;
}

int main(int count, char** arguments) {
  static Copy copy;
  handle_t service = NULL;
  error_status_t code = 0;
  RPC_STATUS status;
  int is_written;
  if (count != 3) return Fail(2, "BITMAP-ID and FILE are wanted, not as many as", count - 1);
  copy.file = fopen(arguments[2], "wb");
  if (copy.file == NULL) return Fail(2, "the file cannot be made", GetLastError());
  status = Bind(&service);
  if (status == RPC_S_OK) {
    status = CopyInto(service, strtoull(arguments[1], NULL, 16), &copy, &code);
    RpcBindingFree(&service);
  }
  is_written = fclose(copy.file) == 0;
  if (status != RPC_S_OK) return Fail(3, "the call failed", (unsigned long)status);
  if (code != 0) return Fail(1, "the service answers", code);
  return is_written ? 0 : Fail(2, "the file cannot be written", GetLastError());
}
