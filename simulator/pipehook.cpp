// Fills what Wine lacks for a client of the service. Test bench only. driversim client brings this
// library into a program before its first instruction.
#include <windows.h>

#include "simulator/fltlib/client_pipe_calls.h"
#include "simulator/fltlib/import_table.h"

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
  using namespace zel::sim;
  if (reason != DLL_PROCESS_ATTACH) return TRUE;
  ReplaceImport("RPCRT4.dll", "NdrClientCall2", &PipingClientCall, system_client_call);
  return system_client_call != nullptr;
}
