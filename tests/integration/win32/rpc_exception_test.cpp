#include "win32/rpc_exception.h"

#include <gtest/gtest.h>
#include <rpc.h>
#include <windows.h>

namespace zel {
namespace {

TEST(CatchRpcExceptionTest, WorkWithoutExceptionIsDoneAndAnswers0) {
  int done = 0;
  EXPECT_EQ(CatchRpcException([&] { ++done; }), 0u);
  EXPECT_EQ(done, 1);
}

TEST(CatchRpcExceptionTest, ExceptionOfTheRuntimeIsItsStatus) {
  EXPECT_EQ(CatchRpcException([] { ::RpcRaiseException(RPC_S_SERVER_UNAVAILABLE); }),
            static_cast<std::uint32_t>(RPC_S_SERVER_UNAVAILABLE));
  EXPECT_EQ(CatchRpcException([] { ::RaiseException(0xC0000094, 0, 0, nullptr); }), 0xC0000094u);
}

TEST(CatchRpcExceptionTest, InnermostCatches) {
  std::uint32_t inner = 0;
  const std::uint32_t outer = CatchRpcException([&] {
    inner = CatchRpcException([] { ::RpcRaiseException(1); });
    ::RpcRaiseException(2);
  });
  EXPECT_EQ(inner, 1u);
  EXPECT_EQ(outer, 2u);
}

// What the caller keeps in registers survives the unwinding.
TEST(CatchRpcExceptionTest, CallersStateIsKept) {
  std::uint64_t sum = 0;
  for (std::uint64_t i = 1; i <= 1000; ++i) {
    const std::uint64_t kept = i * i;
    EXPECT_EQ(CatchRpcException([&] { ::RpcRaiseException(static_cast<RPC_STATUS>(i)); }), i);
    sum += kept;
  }
  EXPECT_EQ(sum, 333'833'500u);
}

TEST(CatchRpcExceptionDeathTest, FaultOfTheProcessorPassesThrough) {
  volatile int* const nowhere = nullptr;
  EXPECT_EXIT((void)CatchRpcException([&] { *nowhere = 1; }),
              ::testing::ExitedWithCode(static_cast<int>(STATUS_ACCESS_VIOLATION)), "");
}

}  // namespace
}  // namespace zel
