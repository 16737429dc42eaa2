// The real RPC server with the real procedures, without a service around it and without a driver:
// for clients from outside.
//
//   rpc_test_server INSTALL_DIRECTORY
//
// Prints its endpoints, one "SEQUENCE ENDPOINT" a line, and "ready"; ends when its input does.
#include <rpc.h>
#include <windows.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "bitmap/bitmap_manager.h"
#include "rpc/rpc_server.h"
#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/rpc_endpoints.h"

int wmain(int argc, wchar_t** argv) {
  if (argc != 2) return 2;
  const std::wstring install_directory = argv[1];
  std::filesystem::create_directories(install_directory + L"\\cbt");
  zel::test::UseCbtDirectoryOf(install_directory);
  zel::InitBitmapManager();
  std::thread server(zel::RunRpcServer, [](zel::RpcServerStep, std::uint32_t) { return true; });
  while (::RpcMgmtIsServerListening(nullptr) != RPC_S_OK) ::Sleep(10);
  for (const auto& [sequence, endpoint] : zel::test::ServerEndpoints()) {
    std::printf("%ls %ls\n", sequence.c_str(), endpoint.c_str());
  }
  std::puts("ready");
  std::fflush(stdout);
  while (std::getchar() != EOF) continue;
  ::RpcMgmtStopServerListening(nullptr);
  server.join();
  zel::ShutdownBitmapManager();
  return 0;
}
