#include "service/console_control.h"

#include "logging/log_message.h"
#include "service/service_names.h"
#include "service/service_start.h"

namespace zel {

BOOL WINAPI ConsoleCtrlHandler(DWORD control_type) {
  if (control_type != CTRL_C_EVENT && control_type != CTRL_BREAK_EVENT) return FALSE;
  LogMessage(kGeneralInfo, L"Stopping %s\n", kServiceDisplayName);
  StopService();
  return TRUE;
}

}  // namespace zel
