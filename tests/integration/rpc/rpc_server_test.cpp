#include "rpc/rpc_server.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "config/settings.h"
#include "rpc/procedures.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/rpc_runtime_hooks.h"
#include "win32/stop_requested.h"

namespace zel {
namespace {

using test::RpcRuntimeHooks;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

constexpr char kStarting[] = "report starting";

// A whole run, in its order.
const std::vector<std::string> kWholeRun = {
    kStarting,        "use ncalrpc 3",    "use ncacn_ip_tcp 3",
    "use ncacn_np 3", "use ncacn_http 3", kStarting,
    "register",       kStarting,          "bindings",
    "publish",        kStarting,          "authentication 10",
    kStarting,        "listen 3 1234 1",  "report listening",
    "wait",           "withdraw",         "free"};

// The run up to the last of its calls that begins with `call`.
std::vector<std::string> RunUpTo(const std::string& call) {
  const auto last = std::find_if(kWholeRun.rbegin(), kWholeRun.rend(),
                                 [&](const std::string& made) { return made.starts_with(call); });
  return {kWholeRun.begin(), last.base()};
}

class RunRpcServerTest : public test::LogFixture {
 protected:
  // What is logged meanwhile.
  std::vector<std::string> Run() {
    StartLogging();
    RunRpcServer(RpcRuntimeHooks::Report);
    return StopLoggingAndGetMessages();
  }

  RpcRuntimeHooks runtime;
};

TEST_F(RunRpcServerTest, StepsComeInTheirOrderEachAnnounced) {
  EXPECT_THAT(Run(), IsEmpty());
  EXPECT_EQ(RpcRuntimeHooks::calls(), kWholeRun);
}

TEST_F(RunRpcServerTest, GoesOnWithTheSequencesThatCanBeUsed) {
  for (const char* missing : {"ncalrpc", "ncacn_ip_tcp", "ncacn_np"}) {
    RpcRuntimeHooks::Answer(std::string("use ") + missing + " 3", RPC_S_PROTSEQ_NOT_SUPPORTED);
  }
  EXPECT_THAT(Run(), IsEmpty());
  EXPECT_EQ(RpcRuntimeHooks::calls(), kWholeRun);
}

TEST_F(RunRpcServerTest, NoSequenceAtAllIsLoggedAndNotReported) {
  RpcRuntimeHooks::AnswerAllSequences(RPC_S_PROTSEQ_NOT_SUPPORTED);
  StartLogging();
  EXPECT_EQ(RunRpcServer(RpcRuntimeHooks::Report), DWORD{RPC_S_NO_PROTSEQS});
  ShutdownLogging();
  // Without a line's end.
  EXPECT_THAT(test::ReadFileBytes(log_path()), ::testing::EndsWith("] no protocols registered"));
  EXPECT_THAT(RpcRuntimeHooks::calls(), ElementsAreArray(RunUpTo("use")));
}

// A step of the run and the function that it calls.
constexpr std::pair<const char*, const char*> kSteps[] = {
    {"register", "RpcServerRegisterIf"}, {"bindings", "RpcServerInqBindings"},
    {"publish", "RpcEpRegister"},        {"authentication", "RpcServerRegisterAuthInfo"},
    {"listen", "RpcServerListen"},       {"wait", "RpcMgmtWaitServerListen"},
    {"withdraw", "RpcEpUnregister"}};

TEST_F(RunRpcServerTest, FailedStepIsReportedWithItsCodeAndKeepsTheBindings) {
  for (const auto& [step, function] : kSteps) {
    SCOPED_TRACE(step);
    RpcRuntimeHooks::Answer(step, RPC_S_OUT_OF_RESOURCES);
    const std::size_t before = RpcRuntimeHooks::calls().size();
    EXPECT_EQ(RunRpcServer(RpcRuntimeHooks::Report), DWORD{RPC_S_OUT_OF_RESOURCES});
    std::vector<std::string> expected = RunUpTo(step);
    expected.push_back("report failure 1721");
    EXPECT_EQ(std::vector(RpcRuntimeHooks::calls().begin() + static_cast<std::ptrdiff_t>(before),
                          RpcRuntimeHooks::calls().end()),
              expected);
    RpcRuntimeHooks::Answer(step, RPC_S_OK);
  }
}

TEST_F(RunRpcServerTest, FailedStepIsNamedInOneLineWithItsError) {
  StartLogging();
  for (const auto& [step, function] : kSteps) {
    RpcRuntimeHooks::Answer(step, RPC_S_OUT_OF_RESOURCES);
    RunRpcServer(RpcRuntimeHooks::Report);
    RpcRuntimeHooks::Answer(step, RPC_S_OK);
  }
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  ASSERT_EQ(messages.size(), std::size(kSteps));
  for (std::size_t i = 0; i < messages.size(); ++i) {
    EXPECT_THAT(messages[i],
                ::testing::StartsWith(std::string("ERROR ") + kSteps[i].second + " failed: "));
    EXPECT_THAT(messages[i], ::testing::EndsWith(" [1721]"));
  }
}

// The stop comes when listening has begun and is not waited for yet.
TEST_F(RunRpcServerTest, StopBeforeTheWaitIsNoFailure) {
  RpcRuntimeHooks::Answer("wait", RPC_S_NOT_LISTENING);
  StartLogging();
  EXPECT_EQ(RunRpcServer([](RpcServerStep step, std::uint32_t status) {
              if (step == RpcServerStep::kListening) StopRequested = true;
              return RpcRuntimeHooks::Report(step, status);
            }),
            0u);
  EXPECT_EQ(RpcRuntimeHooks::calls(), kWholeRun);
  EXPECT_THAT(StopLoggingAndGetMessages(), IsEmpty());
}

constexpr char kChecked[] = "checked 80 1234 131072";

TEST_F(RunRpcServerTest, NarrowerCallersAreCheckedAndTheirRequestsBounded) {
  for (const auto policy : {CallerPolicy::kLocal, CallerPolicy::kAdministrators}) {
    RpcCallers = policy;
    const std::size_t before = RpcRuntimeHooks::calls().size();
    RunRpcServer(RpcRuntimeHooks::Report);
    std::vector<std::string> expected = kWholeRun;
    std::ranges::replace(expected, std::string("register"), std::string(kChecked));
    EXPECT_EQ(std::vector(RpcRuntimeHooks::calls().begin() + static_cast<std::ptrdiff_t>(before),
                          RpcRuntimeHooks::calls().end()),
              expected);
  }
}

TEST_F(RunRpcServerTest, FailedRegistrationWithACheckIsNamed) {
  RpcCallers = CallerPolicy::kLocal;
  RpcRuntimeHooks::Answer("checked", RPC_S_OUT_OF_RESOURCES);
  StartLogging();
  EXPECT_EQ(RunRpcServer(RpcRuntimeHooks::Report), DWORD{RPC_S_OUT_OF_RESOURCES});
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(::testing::StartsWith("ERROR RpcServerRegisterIf2 failed: ")));
}

class ChangedCallersTest : public RunRpcServerTest {
 protected:
  ~ChangedCallersTest() override {
    RpcRuntimeHooks::on_wait = [] {};
  }

  // As the reading of a changed file does.
  static void Change(CallerPolicy policy) {
    RpcCallers = policy;
    OnConfigurationApplied.load()();
  }

  // What is called between the wait's begin and its end, in which `change` is made.
  std::vector<std::string> CallsOf(const std::function<void()>& change) {
    RpcRuntimeHooks::on_wait = change;
    RunRpcServer(RpcRuntimeHooks::Report);
    const auto& calls = RpcRuntimeHooks::calls();
    const auto wait = std::ranges::find(calls, "wait");
    const auto withdraw = std::ranges::find(calls, "withdraw");
    return wait < withdraw ? std::vector(wait + 1, withdraw) : calls;
  }
};

TEST_F(ChangedCallersTest, InterfaceIsRegisteredAnewFromAnyAndToAny) {
  EXPECT_THAT(CallsOf([] {
                Change(CallerPolicy::kLocal);
                Change(CallerPolicy::kAny);
              }),
              ElementsAre("unregister 0", kChecked, "unregister 0", "register"));
}

TEST_F(ChangedCallersTest, OnlyTheCheckChangesBetweenTheNarrowOnes) {
  RpcCallers = CallerPolicy::kLocal;
  EXPECT_THAT(CallsOf([] {
                Change(CallerPolicy::kAdministrators);
                Change(CallerPolicy::kLocal);
                Change(CallerPolicy::kLocal);
              }),
              IsEmpty());
}

TEST_F(ChangedCallersTest, FailureIsLoggedAndTriedAgainWithTheNextReading) {
  test::WriteFileBytes(config_path(), "");
  std::filesystem::create_directories(log_path().parent_path());
  // The readings are the test's own.
  InitLogging(log_path().wstring(), {ReadConfiguration, [](const LogWatch&) {}});
  EXPECT_THAT(CallsOf([] {
                RpcRuntimeHooks::Answer("unregister", RPC_S_UNKNOWN_IF);
                Change(CallerPolicy::kLocal);
                RpcRuntimeHooks::Answer("unregister", RPC_S_OK);
                RpcRuntimeHooks::Answer("checked", RPC_S_OUT_OF_MEMORY);
                Change(CallerPolicy::kLocal);
                RpcRuntimeHooks::Answer("checked", RPC_S_OK);
                Change(CallerPolicy::kLocal);
              }),
              ElementsAre("unregister 0", "unregister 0", kChecked, kChecked));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(::testing::StartsWith("ERROR RpcServerUnregisterIf failed: "),
                          ::testing::StartsWith("ERROR RpcServerRegisterIf2 failed: ")));
}

TEST_F(ChangedCallersTest, NothingIsRegisteredAfterTheServersEnd) {
  void (*follow)() = nullptr;
  CallsOf([&] { follow = OnConfigurationApplied; });
  EXPECT_EQ(OnConfigurationApplied, nullptr);
  const std::size_t before = RpcRuntimeHooks::calls().size();
  RpcCallers = CallerPolicy::kLocal;
  follow();  // of a reading that had begun before
  EXPECT_EQ(RpcRuntimeHooks::calls().size(), before);
}

TEST_F(RunRpcServerTest, RefusedReportEndsTheRunAtOnce) {
  int report = 0;
  for (std::size_t at = 0; at < kWholeRun.size(); ++at) {
    if (!kWholeRun[at].starts_with("report")) continue;
    RpcRuntimeHooks::RefuseReport(++report);
    const std::size_t before = RpcRuntimeHooks::calls().size();
    RunRpcServer(RpcRuntimeHooks::Report);
    EXPECT_EQ(RpcRuntimeHooks::calls().size() - before, at + 1) << report;
    RpcRuntimeHooks::RefuseReport(0);
  }
  EXPECT_EQ(report, 6);
}

TEST_F(RunRpcServerTest, ServerOfAServiceThatIsToStopDoesNotListen) {
  StopRequested = true;
  EXPECT_THAT(Run(), IsEmpty());
  std::vector<std::string> expected = kWholeRun;
  std::erase_if(expected, [](const std::string& call) {
    return call.starts_with("listen") || call == "report listening" || call == "wait";
  });
  EXPECT_EQ(RpcRuntimeHooks::calls(), expected);
}

TEST(ZelServerInterfaceTest, SaysWhatItIs) {
  EXPECT_EQ(kZelServerInterface.Length, sizeof(RPC_SERVER_INTERFACE));
  EXPECT_EQ(kZelServerInterface.InterfaceId.SyntaxVersion.MajorVersion, 3);
  EXPECT_EQ(kZelServerInterface.InterfaceId.SyntaxVersion.MinorVersion, 0);
  RPC_WSTR text = nullptr;
  UUID id = kZelServerInterface.InterfaceId.SyntaxGUID;
  ASSERT_EQ(::UuidToStringW(&id, &text), RPC_S_OK);
  EXPECT_STREQ(reinterpret_cast<wchar_t*>(text), L"7b941e5b-f53f-415d-aacb-ad7973d9e5de");
  ::RpcStringFreeW(&text);
  EXPECT_EQ(kZelServerInterface.RpcProtseqEndpointCount, 0u);
  EXPECT_EQ(kZelServerInterface.DefaultManagerEpv, nullptr);
  EXPECT_EQ(kZelServerInterface.DispatchTable->DispatchTableCount, 11u);
}

TEST(ZelServerInterfaceTest, OneInterpreterServesEveryOperationAndNothingIsBehindTheLast) {
  const auto& table = *kZelServerInterface.DispatchTable;
  ASSERT_NE(table.DispatchTable[0], nullptr);
  for (unsigned int number = 1; number < 11; ++number) {
    EXPECT_EQ(table.DispatchTable[number], table.DispatchTable[0]) << number;
  }
  EXPECT_EQ(table.DispatchTable[11], nullptr);
}

}  // namespace
}  // namespace zel
