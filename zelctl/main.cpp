// The program entry.

#include "zelctl/rpc_zel_server.h"
#include "zelctl/run.h"
#include "zelctl/wide_text.h"
#include "zelctl/win32_machine.h"
#include "zelctl/win32_terminal.h"

int wmain(int argument_count, wchar_t** arguments) {
  std::vector<std::string> texts;
  for (int i = 1; i < argument_count; ++i) texts.push_back(zel::ctl::ToUtf8(arguments[i]));
  zel::ctl::Win32Machine machine;
  zel::ctl::Win32Terminal terminal;
  return static_cast<int>(zel::ctl::RunTool(texts, zel::ctl::ConnectRpcServer, machine, terminal));
}
