// A server with a pipe procedure in tables of its own, in a program that imports the user library,
// a client that reads the response as plain data, and one that calls by the tables.
#include <gmock/gmock.h>
#include <rpc.h>
#include <rpcndr.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "simulator/on_wine.h"
#include "tests/integration/support/simulated_driver.h"
#include "win32/rpc_exception.h"

namespace zel::test {
namespace {

// A program gets the library by importing from it.
const auto kImportsTheLibrary [[maybe_unused]] = &::FilterGetMessage;

constexpr wchar_t kEndpoint[] = L"zel_pipe_calls_test";

struct BytePipe {
  void (*pull)(char*, void*, unsigned long, unsigned long*);
  void (*push)(char*, void*, unsigned long);
  void (*alloc)(char*, unsigned long, void**, unsigned long*);
  char* state;
};

enum Operation : unsigned { kPing, kPour, kOperations };

// What kPour is to do besides pouring.
enum Manner : unsigned short { kInOrder, kWithoutEnd, kBehindEnd, kPulling, kRaising };

unsigned long Ping(handle_t) {
  return 4711;
}

// Pushes `chunks` chunks of 1, 2, 3... bytes, each byte the chunk's number.
unsigned long Pour(handle_t binding, std::uint64_t chunks, unsigned short manner, BytePipe* pipe) {
  if (manner == kRaising) ::RpcRaiseException(1234);
  if (manner == kPulling) pipe->pull(pipe->state, nullptr, 0, nullptr);
  for (std::uint64_t i = 1; i <= chunks; ++i) {
    std::string chunk(i, static_cast<char>(i));
    pipe->push(pipe->state, chunk.data(), static_cast<unsigned long>(chunk.size()));
  }
  if (manner != kWithoutEnd) pipe->push(pipe->state, nullptr, 0);
  if (manner == kBehindEnd) pipe->push(pipe->state, nullptr, 0);
  return binding != nullptr ? static_cast<unsigned long>(chunks) : 0;
}

const unsigned char kTypes[] = {0, 0, 0x01, 0x5C, 0xB5, 0, 0xFC, 0xFF, 1, 0, 1, 0};
const unsigned char kProcedures[] = {
    // Ping
    0x00, 0x48, 0, 0, 0, 0, 0, 0, 16, 0, 0x32, 0, 0, 0, 0, 0, 8, 0, 0x44, 1,  //
    0x0A, 0x01, 0, 0, 0, 0, 0, 0, 0, 0,                                       //
    0x70, 0x00, 8, 0, 0x10, 0,
    // Pour: [in] hyper, [in] unsigned short, [out] pipe of byte
    0x00, 0x48, 0, 0, 0, 0, 1, 0, 40, 0, 0x32, 0, 0, 0, 16, 0, 8, 0, 0x4C, 4,  //
    0x0A, 0x01, 0, 0, 0, 0, 0, 0, 0, 0,                                        //
    0x48, 0x00, 8, 0, 0x0B, 0,                                                 //
    0x48, 0x00, 16, 0, 0x07, 0,                                                //
    0x14, 0x81, 24, 0, 4, 0,                                                   //
    0x70, 0x00, 32, 0, 0x10, 0};
const unsigned short kOffsets[] = {0, 36};

const SERVER_ROUTINE kRoutines[] = {
    reinterpret_cast<SERVER_ROUTINE>(reinterpret_cast<void*>(&Ping)),
    reinterpret_cast<SERVER_ROUTINE>(reinterpret_cast<void*>(&Pour))};

constexpr RPC_SYNTAX_IDENTIFIER kNdr = {
    {0x8A885D04, 0x1CEB, 0x11C9, {0x9F, 0xE8, 0x08, 0x00, 0x2B, 0x10, 0x48, 0x60}}, {2, 0}};
constexpr RPC_SYNTAX_IDENTIFIER kInterfaceId = {
    {0x5A1C0DE5, 0x1111, 0x2222, {1, 2, 3, 4, 5, 6, 7, 8}}, {1, 0}};

MIDL_STUB_DESC stub_descriptor = {};
MIDL_SERVER_INFO server_info = {};
RPC_DISPATCH_FUNCTION dispatch_functions[] = {NdrServerCall2, NdrServerCall2, nullptr};
RPC_DISPATCH_TABLE dispatch_table = {kOperations, dispatch_functions, 0};
RPC_SERVER_INTERFACE server_interface = {};
RPC_CLIENT_INTERFACE client_interface = {};

void FillTables() {
  stub_descriptor.RpcInterfaceInformation = &server_interface;
  stub_descriptor.pfnAllocate = std::malloc;
  stub_descriptor.pfnFree = std::free;
  stub_descriptor.pFormatTypes = kTypes;
  stub_descriptor.fCheckBounds = 1;
  stub_descriptor.Version = 0x60001;
  stub_descriptor.MIDLVersion = 0x8000000;
  stub_descriptor.mFlags = 1;
  server_info.pStubDesc = &stub_descriptor;
  server_info.DispatchTable = kRoutines;
  server_info.ProcString = kProcedures;
  server_info.FmtStringOffset = kOffsets;
  server_interface.Length = sizeof server_interface;
  server_interface.InterfaceId = kInterfaceId;
  server_interface.TransferSyntax = kNdr;
  server_interface.DispatchTable = &dispatch_table;
  server_interface.InterpreterInfo = &server_info;
  server_interface.Flags = 0x04000000 | RPC_INTERFACE_HAS_PIPES;
  client_interface.Length = sizeof client_interface;
  client_interface.InterfaceId = kInterfaceId;
  client_interface.TransferSyntax = kNdr;
}

struct Outcome {
  RPC_STATUS raised = RPC_S_OK;
  std::string response;
};

// Calls with plain bytes. MinGW has no structured handlers: the exception is caught by a vectored
// one, which jumps back here.
class PlainCall {
 public:
  PlainCall(handle_t binding, unsigned operation, const std::string& request)
      : binding_(binding), operation_(operation), request_(request) {}

  Outcome Make() {
    current = this;
    void* const handler = ::AddVectoredExceptionHandler(1, &PlainCall::Catch);
    if (__builtin_setjmp(way_back_) == 0) Send();
    current = nullptr;
    ::RemoveVectoredExceptionHandler(handler);
    ::NdrFreeBuffer(&stub_);
    return outcome_;
  }

 private:
  void Send() {
    ::NdrClientInitializeNew(&message_, &stub_, &ClientDescriptor(), operation_);
    ::NdrGetBuffer(&stub_, static_cast<unsigned long>(request_.size()), binding_);
    std::memcpy(stub_.Buffer, request_.data(), request_.size());
    stub_.Buffer += request_.size();
    ::NdrSendReceive(&stub_, stub_.Buffer);
    outcome_.response.assign(static_cast<const char*>(message_.Buffer), message_.BufferLength);
  }

  static const MIDL_STUB_DESC& ClientDescriptor() {
    static const MIDL_STUB_DESC descriptor = [] {
      MIDL_STUB_DESC client = stub_descriptor;
      client.RpcInterfaceInformation = &client_interface;
      return client;
    }();
    return descriptor;
  }

  // The server's threads have no call of their own and are left to their handlers.
  static LONG CALLBACK Catch(EXCEPTION_POINTERS* exception) {
    if (current == nullptr) return EXCEPTION_CONTINUE_SEARCH;
    current->outcome_.raised = static_cast<RPC_STATUS>(exception->ExceptionRecord->ExceptionCode);
    __builtin_longjmp(current->way_back_, 1);
  }

  static thread_local PlainCall* current;

  handle_t binding_;
  unsigned operation_;
  const std::string& request_;
  Outcome outcome_;
  RPC_MESSAGE message_ = {};
  MIDL_STUB_MESSAGE stub_ = {};
  void* way_back_[5];
};
thread_local PlainCall* PlainCall::current = nullptr;

class PipeCallsTest : public ::testing::Test {
 protected:
  PipeCallsTest() {
    FillTables();
    auto protocol = reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(L"ncalrpc"));
    auto endpoint = reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(kEndpoint));
    EXPECT_EQ(::RpcServerUseProtseqEpW(protocol, 10, endpoint, nullptr), RPC_S_OK);
    EXPECT_EQ(::RpcServerRegisterIf(&server_interface, nullptr, nullptr), RPC_S_OK);
    EXPECT_EQ(::RpcServerListen(1, 10, TRUE), RPC_S_OK);
    RPC_WSTR text = nullptr;
    EXPECT_EQ(::RpcStringBindingComposeW(nullptr, protocol, nullptr, endpoint, nullptr, &text), 0);
    EXPECT_EQ(::RpcBindingFromStringBindingW(text, &binding_), RPC_S_OK);
    ::RpcStringFreeW(&text);
  }
  // Elsewhere the library leaves pipes to the system's engine, whose local calls are no plain data.
  void SetUp() override {
    if (!sim::IsOnWine()) GTEST_SKIP() << "the system has pipes of its own";
  }
  ~PipeCallsTest() override {
    ::RpcBindingFree(&binding_);
    ::RpcMgmtStopServerListening(nullptr);
    ::RpcMgmtWaitServerListen();
    ::RpcServerUnregisterIf(&server_interface, nullptr, TRUE);
  }

  Outcome Call(unsigned operation, const std::string& request = "") {
    return PlainCall(binding_, operation, request).Make();
  }

  Outcome CallPour(std::uint64_t chunks, Manner manner = kInOrder) {
    std::string request(10, '\0');
    std::memcpy(request.data(), &chunks, 8);
    std::memcpy(request.data() + 8, &manner, 2);
    return Call(kPour, request);
  }

  handle_t binding_ = nullptr;
};

// A client's pipe: what was pushed, each push for itself, and what a test wants of it.
struct ClientsPipe {
  static void Alloc(char* state, unsigned long wanted, void** buffer, unsigned long* size) {
    auto& pipe = *reinterpret_cast<ClientsPipe*>(state);
    pipe.buffer.resize(pipe.room);
    *buffer = pipe.buffer.data();
    *size = std::min(wanted, pipe.room);
  }
  static void Push(char* state, void* bytes, unsigned long count) {
    auto& pipe = *reinterpret_cast<ClientsPipe*>(state);
    if (pipe.pushes.size() == pipe.failing_push) ::RpcRaiseException(ERROR_DISK_FULL);
    pipe.pushes.emplace_back(static_cast<const char*>(bytes), count);
  }

  unsigned long room = 65'536;
  std::size_t failing_push = ~std::size_t{0};
  std::vector<std::string> pushes;
  std::string buffer;
};

class ClientPipeCallsTest : public PipeCallsTest {
 protected:
  // The RPC exception; what is answered is in `answer`.
  template <class... Arguments>
  std::uint32_t CallByTables(unsigned operation, Arguments... arguments) {
    return CatchRpcException([&] {
      MIDL_STUB_DESC descriptor = stub_descriptor;
      descriptor.RpcInterfaceInformation = &client_interface;
      answer =
          ::NdrClientCall2(&descriptor, kProcedures + kOffsets[operation], binding_, arguments...)
              .Simple;
    });
  }
  std::uint32_t Pour(std::uint64_t chunks, Manner manner = kInOrder) {
    BytePipe rpc_pipe = {nullptr, ClientsPipe::Push, ClientsPipe::Alloc,
                         reinterpret_cast<char*>(&pipe)};
    return CallByTables(kPour, chunks, manner, &rpc_pipe);
  }

  ClientsPipe pipe;
  LONG_PTR answer = -1;
};

std::string Long(std::uint32_t value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

TEST_F(PipeCallsTest, ProcedureWithoutPipesIsTheSystemsAffair) {
  const Outcome outcome = Call(kPing);
  EXPECT_EQ(outcome.raised, RPC_S_OK);
  EXPECT_EQ(outcome.response, Long(4711));
}

TEST_F(PipeCallsTest, ChunksArriveAsTheyWerePushed) {
  const Outcome outcome = CallPour(3);
  EXPECT_EQ(outcome.raised, RPC_S_OK);
  EXPECT_EQ(outcome.response, Long(1) + std::string("\1\0\0\0", 4) + Long(2) +
                                  std::string("\2\2\0\0", 4) + Long(3) +
                                  std::string("\3\3\3\0", 4) + Long(0) + Long(3));
}

TEST_F(PipeCallsTest, EmptyPipeIsItsEndAndTheReturnValue) {
  EXPECT_EQ(CallPour(0).response, Long(0) + Long(0));
}

TEST_F(PipeCallsTest, ResponseOfManyFragmentsArrivesWhole) {
  const Outcome outcome = CallPour(1000);
  EXPECT_EQ(outcome.raised, RPC_S_OK);
  std::size_t at = 0;
  for (std::uint32_t i = 1; i <= 1000; ++i) {
    ASSERT_EQ(outcome.response.substr(at, 4 + i), Long(i) + std::string(i, static_cast<char>(i)));
    at += (4 + i + 3) / 4 * 4;
  }
  EXPECT_EQ(outcome.response.substr(at), Long(0) + Long(1000));
}

TEST_F(PipeCallsTest, PipeThatIsNotEndedIsADisciplineError) {
  EXPECT_EQ(CallPour(1, kWithoutEnd).raised, RPC_X_PIPE_DISCIPLINE_ERROR);
}

TEST_F(PipeCallsTest, PushBehindTheEndFindsThePipeClosed) {
  EXPECT_EQ(CallPour(1, kBehindEnd).raised, RPC_X_PIPE_CLOSED);
}

TEST_F(PipeCallsTest, PullOfAnOutPipeIsOutOfOrder) {
  EXPECT_EQ(CallPour(1, kPulling).raised, RPC_X_WRONG_PIPE_ORDER);
}

TEST_F(PipeCallsTest, ExceptionOfTheProcedureReachesTheClientAndTheServerLivesOn) {
  EXPECT_EQ(CallPour(1, kRaising).raised, 1234);
  EXPECT_EQ(CallPour(0).response, Long(0) + Long(0));
}

TEST_F(ClientPipeCallsTest, ProcedureWithoutPipesIsTheSystemsAffair) {
  EXPECT_EQ(CallByTables(kPing), 0u);
  EXPECT_EQ(answer, 4711);
}

TEST_F(ClientPipeCallsTest, ChunksArePushedAsTheServerPushedThem) {
  EXPECT_EQ(Pour(3), 0u);
  EXPECT_THAT(pipe.pushes, ::testing::ElementsAre("\1", "\2\2", "\3\3\3", ""));
  EXPECT_EQ(answer, 3);
  pipe.pushes.clear();
  EXPECT_EQ(Pour(0), 0u);
  EXPECT_THAT(pipe.pushes, ::testing::ElementsAre(""));
}

TEST_F(ClientPipeCallsTest, AnswerOfManyFragmentsFillsTheRoomThatIsOffered) {
  pipe.room = 7;
  EXPECT_EQ(Pour(1000), 0u);
  std::string expected;
  std::string pushed;
  for (int i = 1; i <= 1000; ++i) expected += std::string(i, static_cast<char>(i));
  for (const std::string& push : pipe.pushes) {
    EXPECT_LE(push.size(), 7u);
    pushed += push;
  }
  EXPECT_TRUE(pushed == expected);
  EXPECT_EQ(pipe.pushes.back(), "");
  EXPECT_EQ(answer, 1000);
}

TEST_F(ClientPipeCallsTest, ClientsExceptionEndsTheCallAndTheNextOneIsMade) {
  for (const std::size_t push : {0, 5, 1000}) {
    pipe = {};
    pipe.failing_push = push;
    EXPECT_EQ(Pour(1000), static_cast<std::uint32_t>(ERROR_DISK_FULL));
    EXPECT_EQ(pipe.pushes.size(), push);
  }
  pipe = {};
  EXPECT_EQ(Pour(1), 0u);
}

TEST_F(ClientPipeCallsTest, ExceptionOfTheProcedureReachesTheClient) {
  EXPECT_EQ(Pour(1, kRaising), 1234u);
  EXPECT_EQ(Pour(1, kWithoutEnd), static_cast<std::uint32_t>(RPC_X_PIPE_DISCIPLINE_ERROR));
  EXPECT_EQ(Pour(1), 0u);
}

TEST_F(ClientPipeCallsTest, ServerThatIsNotThereIsUnavailable) {
  ::RpcBindingFree(&binding_);
  wchar_t text[] = L"ncalrpc:[zel_nobody]";
  ASSERT_EQ(::RpcBindingFromStringBindingW(reinterpret_cast<RPC_WSTR>(text), &binding_), 0);
  EXPECT_EQ(Pour(1), static_cast<std::uint32_t>(RPC_S_SERVER_UNAVAILABLE));
}

TEST_F(PipeCallsTest, RequestThatIsTooShortIsBadData) {
  EXPECT_EQ(Call(kPour, std::string(8, '\0')).raised, RPC_X_BAD_STUB_DATA);
}

}  // namespace
}  // namespace zel::test
