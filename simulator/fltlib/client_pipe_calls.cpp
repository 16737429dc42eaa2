#include "simulator/fltlib/client_pipe_calls.h"

#include <cstdarg>
#include <cstring>
#include <memory>

#include "simulator/fltlib/local_call.h"
#include "simulator/fltlib/pipe_answer.h"
#include "simulator/fltlib/pipe_procedure.h"
#include "simulator/fltlib/rpc_pipe.h"
#include "win32/rpc_exception.h"

namespace zel::sim {

ClientCall* system_client_call = nullptr;

namespace {

// The client's own routines; what they raise is their answer here.
class ClientsPipe : public PipeTaker {
 public:
  explicit ClientsPipe(const RpcPipe& pipe) : pipe_(pipe) {}

  std::uint32_t Alloc(std::uint32_t wanted, std::span<std::byte>& room) override {
    void* buffer = nullptr;
    unsigned long size = 0;
    const std::uint32_t raised =
        CatchRpcException([&] { pipe_.alloc(pipe_.state, wanted, &buffer, &size); });
    room = {static_cast<std::byte*>(buffer), size};
    return raised;
  }
  std::uint32_t Push(std::span<std::byte> bytes) override {
    return CatchRpcException(
        [&] { pipe_.push(pipe_.state, bytes.data(), static_cast<unsigned long>(bytes.size())); });
  }

 private:
  const RpcPipe& pipe_;
};

// A call that the system's runtime makes, whose answer it hands over whole.
class WholeCall : public AnswerBytes {
 public:
  WholeCall() = default;
  WholeCall(const WholeCall&) = delete;
  WholeCall& operator=(const WholeCall&) = delete;
  ~WholeCall() override {
    (void)CatchRpcException([&] { ::NdrFreeBuffer(&stub_); });
  }

  std::uint32_t Make(const MIDL_STUB_DESC& descriptor, unsigned number, RPC_BINDING_HANDLE binding,
                     std::span<const std::byte> request) {
    return CatchRpcException([&] {
      ::NdrClientInitializeNew(&message_, &stub_, const_cast<MIDL_STUB_DESC*>(&descriptor), number);
      ::NdrGetBuffer(&stub_, static_cast<unsigned long>(request.size()), binding);
      if (!request.empty()) std::memcpy(stub_.Buffer, request.data(), request.size());
      ::NdrSendReceive(&stub_, stub_.Buffer + request.size());
    });
  }

  std::uint32_t Read(std::span<std::byte> buffer) override {
    if (buffer.size() > message_.BufferLength - at_) return kBadStubData;
    std::memcpy(buffer.data(), static_cast<const std::byte*>(message_.Buffer) + at_, buffer.size());
    at_ += buffer.size();
    return 0;
  }
  bool at_end() override { return at_ == message_.BufferLength; }

 private:
  RPC_MESSAGE message_ = {};
  MIDL_STUB_MESSAGE stub_ = {};
  std::size_t at_ = 0;
};

struct Outcome {
  std::uint32_t exception = 0;
  std::uint32_t return_value = 0;
};

// Makes a call in one of the two ways and takes its answer.
template <class Call, class... Arguments>
Outcome MakeAndTake(PipeTaker& pipe, const Arguments&... arguments) {
  Call call;
  Outcome outcome = {.exception = call.Make(arguments...), .return_value = 0};
  if (outcome.exception == 0) outcome.exception = TakePipe(call, pipe, outcome.return_value);
  return outcome;
}

// Owns everything that a call needs, and raises nothing.
Outcome CallWithPipe(const MIDL_STUB_DESC& descriptor, const unsigned char* format,
                     const Slots& slots) noexcept {
  const unsigned number = OperationNumber(format);
  const auto procedure = ReadPipeProcedure(format, descriptor.pFormatTypes, number);
  if (!procedure) return {.exception = RPC_X_WRONG_STUB_VERSION, .return_value = 0};
  const auto binding = reinterpret_cast<RPC_BINDING_HANDLE>(slots[procedure->handle_slot]);
  const std::vector<std::byte> request = WriteInputs(*procedure, slots);
  ClientsPipe pipe(*reinterpret_cast<const RpcPipe*>(slots[procedure->pipe_slot]));
  const auto& client =
      *static_cast<const RPC_CLIENT_INTERFACE*>(descriptor.RpcInterfaceInformation);
  if (const auto endpoint = LocalEndpoint(binding, client)) {
    return MakeAndTake<LocalCall>(pipe, *endpoint, client, number, request);
  }
  return MakeAndTake<WholeCall>(pipe, descriptor, number, binding, request);
}

}  // namespace

CLIENT_CALL_RETURN RPC_VAR_ENTRY PipingClientCall(PMIDL_STUB_DESC descriptor, PFORMAT_STRING format,
                                                  ...) {
  Slots s = {};
  const std::size_t count = CountSlots(format);
  if (count > kMaxSlots) ::RpcRaiseException(RPC_X_WRONG_STUB_VERSION);
  std::va_list arguments;
  va_start(arguments, format);
  for (std::size_t i = 0; i < count; ++i) s[i] = va_arg(arguments, std::uint64_t);
  va_end(arguments);
  // By the calling convention of 64-bit code a routine may be given more than it takes.
  if (!HasPipes(format)) {
    return system_client_call(descriptor, format, s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7],
                              s[8], s[9], s[10], s[11]);
  }
  const Outcome outcome = CallWithPipe(*descriptor, format, s);
  if (outcome.exception != 0) ::RpcRaiseException(static_cast<RPC_STATUS>(outcome.exception));
  CLIENT_CALL_RETURN result = {};
  result.Simple = static_cast<LONG_PTR>(outcome.return_value);
  return result;
}

}  // namespace zel::sim
