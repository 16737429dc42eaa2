// The real server with the real procedures in the test's own process, over bitmaps and a log of the
// test's own and without a driver; and clients of it.
#pragma once

#include <rpc.h>
#include <windows.h>

#include <string>
#include <thread>
#include <utility>

#include "client/zel_client.h"
#include "rpc/rpc_server.h"
#include "tests/integration/support/bitmap_fixture.h"
#include "tests/integration/support/fake_driver.h"
#include "tests/integration/support/poll.h"
#include "tests/integration/support/rpc_endpoints.h"
#include "tracking/registry_store.h"
#include "tracking/tracked_file_table.h"

namespace zel {

inline void PrintTo(const CallResult& result, std::ostream* out) {
  *out << "{rpc status " << result.rpc_status << ", code " << result.code << "}";
}

}  // namespace zel

namespace zel::test {

// RunRpcServer on a thread, from when it listens until it goes out of scope. Its reports go
// nowhere.
class RunningServer {
 public:
  RunningServer() {
    thread_ = std::thread(RunRpcServer, [](RpcServerStep, std::uint32_t) { return true; });
    EXPECT_TRUE(PollUntil([] { return ::RpcMgmtIsServerListening(nullptr) == RPC_S_OK; }));
  }
  ~RunningServer() {
    EXPECT_EQ(::RpcMgmtStopServerListening(nullptr), RPC_S_OK);
    thread_.join();
  }
  RunningServer(const RunningServer&) = delete;
  RunningServer& operator=(const RunningServer&) = delete;

 private:
  std::thread thread_;
};

// A client that does not ask the endpoint mapper, which is the whole machine's.
inline ZelClient ConnectTo(const std::wstring& protocol_sequence) {
  const std::wstring endpoint = ServerEndpoints()[protocol_sequence];
  EXPECT_FALSE(endpoint.empty()) << std::filesystem::path(protocol_sequence);
  UniqueBinding binding;
  EXPECT_EQ(MakeBinding({protocol_sequence, {}, endpoint}, binding), 0u);
  return ZelClient(std::move(binding));
}

inline void Track(std::wstring_view path, const FileKey& file = kKey) {
  bool is_new = false;
  EXPECT_TRUE(StartTrackingFile(path, file.volume, file.file_id, is_new));
}

// Each test needs a process of its own, as ctest gives it.
class RpcFixture : public BitmapFixture {
 protected:
  ~RpcFixture() override { CloseTrackedFileList(); }

  RunningServer server;
  ZelClient client = ConnectTo(L"ncalrpc");
};

}  // namespace zel::test
