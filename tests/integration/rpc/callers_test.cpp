// Who may call, by the setting RpcCallers: real clients over every protocol sequence. Wine's
// runtime calls no security callback and knows no other caller than the server's own account: the
// first is played by the simulator's user library, the second by the hooks of this file.
#include "config/settings.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/rpc_fixture.h"
#include "win32/handles.h"

extern "C" {
extern void* __imp_RpcImpersonateClient;
extern void* __imp_RpcRevertToSelfEx;
}

namespace zel {
namespace {

using test::ConnectTo;
using test::FakeDriver;
using test::ImportHook;
using test::kKey;
using test::Track;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr CallResult kDone = {0, 0};
constexpr CallResult kRefused = {ERROR_ACCESS_DENIED, 0};
constexpr const wchar_t* kRemoteSequences[] = {L"ncacn_ip_tcp", L"ncacn_np"};
constexpr std::uint16_t kRoom = 600;

// Every caller is the server's own account without its membership of the administrators.
class NoAdministrator {
 public:
  NoAdministrator() {
    UniqueToken own;
    EXPECT_TRUE(
        ::OpenProcessToken(::GetCurrentProcess(), TOKEN_DUPLICATE | TOKEN_QUERY, own.put()));
    alignas(SID) BYTE administrators[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof administrators;
    EXPECT_TRUE(::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size));
    SID_AND_ATTRIBUTES disabled = {administrators, 0};
    UniqueToken restricted;
    EXPECT_TRUE(::CreateRestrictedToken(own.get(), 0, 1, &disabled, 0, nullptr, 0, nullptr,
                                        restricted.put()));
    EXPECT_TRUE(::DuplicateTokenEx(restricted.get(), MAXIMUM_ALLOWED, nullptr,
                                   SecurityImpersonation, TokenImpersonation, token_.put()));
  }

 private:
  static RPC_STATUS RPC_ENTRY Impersonate(RPC_BINDING_HANDLE) {
    EXPECT_TRUE(::SetThreadToken(nullptr, token_.get()));
    return RPC_S_OK;
  }
  static RPC_STATUS RPC_ENTRY Revert(RPC_BINDING_HANDLE) {
    EXPECT_TRUE(::RevertToSelf());
    return RPC_S_OK;
  }

  static inline UniqueToken token_;
  ImportHook impersonate_{__imp_RpcImpersonateClient, &Impersonate};
  ImportHook revert_{__imp_RpcRevertToSelfEx, &Revert};
};

class CallersTest : public test::RpcFixture {
 protected:
  ~CallersTest() override { Set(CallerPolicy::kAny); }

  // As the reading of a changed file does.
  static void Set(CallerPolicy policy) {
    RpcCallers = policy;
    if (void (*const applied)() = OnConfigurationApplied) applied();
  }
};

TEST_F(CallersTest, AnyLetsEverybodyInOverEverything) {
  for (const wchar_t* sequence : kRemoteSequences) EXPECT_EQ(ConnectTo(sequence).Ping(), kDone);
  const NoAdministrator hooks;
  EXPECT_EQ(client.Ping(), kDone);
}

TEST_F(CallersTest, LocalLetsInWhatHasNoWayFromAnotherMachine) {
  Set(CallerPolicy::kLocal);
  EXPECT_EQ(client.Ping(), kDone);
  for (const wchar_t* sequence : kRemoteSequences) EXPECT_EQ(ConnectTo(sequence).Ping(), kRefused);
  const NoAdministrator hooks;
  EXPECT_EQ(client.Ping(), kDone);
}

TEST_F(CallersTest, AdministratorsLetsInThemAlone) {
  Set(CallerPolicy::kAdministrators);
  EXPECT_EQ(client.Ping(), kDone);
  EXPECT_EQ(ConnectTo(L"ncacn_ip_tcp").Ping(), kRefused);  // it has not said who it is
  const NoAdministrator hooks;
  EXPECT_EQ(client.Ping(), kRefused);
  EXPECT_EQ(ConnectTo(L"ncacn_np").Ping(), kRefused);
}

TEST_F(CallersTest, RefusedCallerGetsNothingDone) {
  Track(L"C:\\a");
  const auto path = AddGood();
  const BitmapId id = test::IdOf(path);
  Set(CallerPolicy::kAdministrators);
  const NoAdministrator hooks;
  wire::BitmapInfo info = {};
  FileList files;
  ListedFile file;
  BitmapList bitmaps;
  NamedBitmap bitmap;
  std::vector<TrackedFile> all;
  EXPECT_EQ(client.Ping(), kRefused);
  EXPECT_EQ(client.ListFiles(files, kRoom, file), kRefused);
  EXPECT_EQ(client.ListBitmaps(kKey, bitmaps, kRoom, bitmap), kRefused);
  const auto no_bytes = [](std::span<const std::byte>) {
    ADD_FAILURE();
    return 0u;
  };
  EXPECT_EQ(client.CopyBitmap(id, no_bytes), kRefused);
  EXPECT_EQ(client.StartTracking(L"C:\\b", 4096, info), kRefused);
  EXPECT_EQ(client.StartTracking2(L"C:\\b", {test::kVolume, 9}, 100'000, 4096, info), kRefused);
  EXPECT_EQ(client.StopTracking(L"C:\\a"), kRefused);
  EXPECT_EQ(client.DeleteBitmap(id), kRefused);
  EXPECT_EQ(client.SynchronizeBitmaps(7), kRefused);
  EXPECT_EQ(client.GetDriverStatus(), kRefused);
  EXPECT_EQ(client.GetTrackedFiles(all), kRefused);
  EXPECT_THAT(FakeDriver::Take(), IsEmpty());
  EXPECT_TRUE(std::filesystem::exists(path));
  std::vector<TrackedFileEntry> entries;
  CollectTrackedFiles(entries);
  EXPECT_EQ(entries.size(), 1u);
}

TEST_F(CallersTest, EnumerationGoesOnOverAChange) {
  Track(L"C:\\a");
  Track(L"C:\\b", {test::kVolume, 2});
  FileList files;
  ListedFile file;
  ASSERT_EQ(client.ListFiles(files, kRoom, file), kDone);
  Set(CallerPolicy::kAdministrators);
  EXPECT_EQ(client.ListFiles(files, kRoom, file), kDone);
  EXPECT_EQ(file.path, L"C:\\b");
  EXPECT_EQ(client.ListFiles(files, kRoom, file), (CallResult{0, ERROR_NO_MORE_ITEMS}));
}

TEST_F(CallersTest, RefusedCallersAreNamedOnceWithTheirWay) {
  StartLogging("zelservice:RpcCallers = administrators\n");
  const ZelClient remote = ConnectTo(L"ncacn_ip_tcp");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(remote.Ping(), kRefused);
  {
    const NoAdministrator hooks;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(client.Ping(), kRefused);
  }
  wchar_t user[256];
  DWORD size = 256;
  ASSERT_TRUE(::GetUserNameW(user, &size));
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  ASSERT_EQ(messages.size(), 2u) << ::testing::PrintToString(messages);
  EXPECT_EQ(messages[0],
            "WARN  Refused a call of a caller without authentication over ncacn_ip_tcp from "
            "127.0.0.1: RpcCallers is administrators");
  EXPECT_THAT(messages[1],
              AllOf(StartsWith("WARN  Refused a call of "),
                    HasSubstr("\\" + std::filesystem::path(user).string() + " over ncalrpc from "),
                    EndsWith(": RpcCallers is administrators")));
}

TEST_F(CallersTest, FileThatIsWrittenWhileTheServerRunsClosesTheDoor) {
  StartLogging("zelservicelog = info\n");
  const ZelClient remote = ConnectTo(L"ncacn_ip_tcp");
  EXPECT_EQ(remote.Ping(), kDone);
  EXPECT_TRUE(test::PollUntil([&] {
    test::WriteFileBytes(config_path(), "zelservice:RpcCallers = local\n");
    return remote.Ping() == kRefused;
  }));
  EXPECT_EQ(client.Ping(), kDone);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              Contains("INFO  Changing RPC callers from any to local"));
}

}  // namespace
}  // namespace zel
