#include "rpc/callers.h"

#include <rpc.h>
#include <sddl.h>

#include <atomic>
#include <string>

#include "config/settings.h"
#include "errors/error_info.h"
#include "logging/log_message.h"
#include "rpc/caller_road.h"
#include "rpc/procedures.h"
#include "rpc/recent_texts.h"
#include "win32/critical_section.h"
#include "win32/handles.h"

namespace zel {

namespace {

constexpr unsigned int kMaxCalls = RPC_C_LISTEN_MAX_CALLS_DEFAULT;  // RpcServerListen's count
// The longest proper request is a start of tracking with a path of 32,767 characters.
constexpr unsigned int kMaxRequestBytes = 128 * 1024;
// Callers without authentication are the callback's to refuse, so that the log tells of them; an
// answer of it is not kept, so that a changed setting holds for connections that there are.
constexpr unsigned int kFlags = RPC_IF_ALLOW_CALLBACKS_WITH_NO_AUTH | RPC_IF_SEC_NO_CACHE;

// How the interface is registered.
enum class Registration { kNone, kUnconditional, kChecked };

CriticalSection registrationLock;
bool isFollowing ZEL_GUARDED_BY(registrationLock) = false;
Registration registration ZEL_GUARDED_BY(registrationLock) = Registration::kNone;

// What the security callback goes by. Never kAny: the interface is registered unconditionally
// first.
constinit std::atomic<CallerPolicy> checkedPolicy{CallerPolicy::kAdministrators};

CriticalSection refusalsLock;

RPC_IF_HANDLE Interface() {
  return const_cast<RPC_SERVER_INTERFACE*>(&kZelServerInterface);
}

// Null when the caller has not said who it is, or not so that the service could know.
UniqueToken TokenOf(RPC_BINDING_HANDLE caller) {
  UniqueToken token;
  if (::RpcImpersonateClient(caller) != RPC_S_OK) return token;
  ::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, token.put());
  // A thread that is left in the caller's name is the runtime's, which gives it back itself.
  if (::RpcRevertToSelfEx(caller) != RPC_S_OK) token.reset();
  return token;
}

bool IsAdministrator(HANDLE token) {
  alignas(SID) BYTE administrators[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof administrators;
  BOOL is_member = FALSE;
  return ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size) &&
         ::CheckTokenMembership(token, administrators, &is_member) && is_member;
}

// Whom a token stands for.
class Account {
 public:
  // Nobody's with a null token.
  explicit Account(HANDLE token) {
    DWORD size = sizeof user_;
    is_known_ = token != nullptr && ::GetTokenInformation(token, TokenUser, user_, size, &size);
  }

  [[nodiscard]] std::wstring SidText() const {
    wchar_t* text = nullptr;
    if (!is_known_ || !::ConvertSidToStringSidW(sid(), &text)) return {};
    const std::wstring copy = text;
    ::LocalFree(text);
    return copy;
  }

  // May ask a domain controller.
  [[nodiscard]] std::wstring Name() const {
    if (!is_known_) return L"a caller without authentication";
    wchar_t name[256];
    wchar_t domain[256];
    DWORD name_size = 256;
    DWORD domain_size = 256;
    SID_NAME_USE use;
    if (!::LookupAccountSidW(nullptr, sid(), name, &name_size, domain, &domain_size, &use)) {
      return SidText();
    }
    return std::wstring(domain) + L"\\" + name;
  }

 private:
  [[nodiscard]] PSID sid() const { return reinterpret_cast<const TOKEN_USER*>(user_)->User.Sid; }

  alignas(TOKEN_USER) BYTE user_[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  bool is_known_;
};

bool IsToBeLogged(const std::wstring& caller) ZEL_EXCLUDES(refusalsLock) {
  // Never destroyed: calls may still come while the process ends.
  static auto& refusals = *new RecentTexts;
  const LockGuard guard(refusalsLock);
  return refusals.Admit(caller, ::GetTickCount64());
}

void LogRefusal(const CallerRoad& road, HANDLE token, CallerPolicy policy) {
  const Account account(token);
  const std::wstring way = L" over " + road.protocol_sequence + L" from " + road.address;
  if (!IsToBeLogged(account.SidText() + way)) return;
  LogMessage(kGeneralWarn, L"Refused a call of %s%s: RpcCallers is %s\n", account.Name().c_str(),
             way.c_str(), WordOf(policy));
}

// The security callback.
RPC_STATUS RPC_ENTRY CheckCaller(RPC_IF_HANDLE, void* caller) noexcept {
  const CallerPolicy policy = checkedPolicy;
  const CallerRoad road = RoadOf(caller);
  const UniqueToken token = TokenOf(caller);
  const bool may_call = policy == CallerPolicy::kLocal ? road.protocol_sequence == L"ncalrpc"
                                                       : token && IsAdministrator(token.get());
  if (may_call) return RPC_S_OK;
  LogRefusal(road, token.get(), policy);
  return RPC_S_ACCESS_DENIED;
}

RegistrationResult RegisterAs(Registration kind) {
  if (kind == Registration::kUnconditional) {
    return {L"RpcServerRegisterIf", ::RpcServerRegisterIf(Interface(), nullptr, nullptr)};
  }
  return {L"RpcServerRegisterIf2",
          ::RpcServerRegisterIf2(Interface(), nullptr, nullptr, kFlags, kMaxCalls, kMaxRequestBytes,
                                 &CheckCaller)};
}

RegistrationResult Follow() ZEL_REQUIRES(registrationLock) {
  const CallerPolicy policy = RpcCallers;
  const auto wanted =
      policy == CallerPolicy::kAny ? Registration::kUnconditional : Registration::kChecked;
  if (wanted == Registration::kChecked) checkedPolicy = policy;
  RegistrationResult result = {L"", RPC_S_OK};
  if (wanted == registration) return result;
  if (registration != Registration::kNone) {
    result = {L"RpcServerUnregisterIf", ::RpcServerUnregisterIf(Interface(), nullptr, FALSE)};
    if (result.status != RPC_S_OK) return result;
    registration = Registration::kNone;
  }
  result = RegisterAs(wanted);
  if (result.status == RPC_S_OK) registration = wanted;
  return result;
}

// Once the configuration has been applied.
void FollowConfiguration() ZEL_EXCLUDES(registrationLock) {
  const LockGuard guard(registrationLock);
  if (!isFollowing) return;
  const RegistrationResult result = Follow();
  if (result.status == RPC_S_OK) return;
  LogMessage(kGeneralError, L"%s failed: %hs\n", result.function,
             ErrorInfo(static_cast<std::uint32_t>(result.status)).text());
}

}  // namespace

CallerControl::~CallerControl() {
  OnConfigurationApplied = nullptr;
  const LockGuard guard(registrationLock);
  isFollowing = false;
  registration = Registration::kNone;
}

RegistrationResult CallerControl::Register() {
  // In this order: a setting that changes meanwhile is seen below, or told of.
  OnConfigurationApplied = FollowConfiguration;
  const LockGuard guard(registrationLock);
  const RegistrationResult result = Follow();
  isFollowing = result.status == RPC_S_OK;
  return result;
}

}  // namespace zel
