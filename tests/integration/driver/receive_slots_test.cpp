// What becomes of messages in hand when the service dies.
#include "driver/receive_slots.h"

#include <random>

#include "driver/driver_session.h"
#include "driver/message_threads.h"
#include "driver/message_times.h"
#include "files/layout.h"
#include "tests/integration/support/child_process.h"
#include "tests/integration/support/driver_fixture.h"
#include "tests/integration/support/held_file.h"
#include "tests/integration/support/scripted_port.h"

extern "C" {
extern void* __imp_CreateFileW;
extern void* __imp_MapViewOfFile;
extern void* __imp_ReadFile;
extern void* __imp_WriteFile;
}

namespace zel {
namespace {

using test::kBlockSize;
using test::kKey;
using test::kVolume;
using test::MakeWrite;
using test::ReadFileBytes;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::StartsWith;

constexpr std::string_view kDriverWarnings =
    "zelservicelog=none\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=warn\n";

class ReceiveSlotsTest : public test::DriverFixture {
 protected:
  ReceiveSlotsTest() : path_(ComposeReceivedMessagesPath(cbt().wstring())) {}
  ~ReceiveSlotsTest() override { StopDriverThreads(); }

  // As if in a new process.
  void Start() {
    driverThreadsStopping = false;
    AllowLoads(true);
    ASSERT_EQ(ConnectDriverPort(), S_OK);
    ASSERT_EQ(StartDriverThreads(), 0u);
    ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
  }

  [[nodiscard]] std::string SlotBytes() const { return ReadFileBytes(path_); }
  [[nodiscard]] LeftMessages Left() const {
    const std::string bytes = SlotBytes();
    return FindLeftMessages(std::as_bytes(std::span(bytes)));
  }

  // A file in whose first slot somebody has just received `message`.
  void LeaveBehind(const DriverMessage& message, const ProcessIdentity& receiver = {}) const {
    const auto slots = std::make_unique<ReceiveSlot[]>(kMessageThreads);
    for (std::size_t i = 0; i < kMessageThreads; ++i) ClaimSlot(slots[i], receiver);
    PrepareForRead(slots[0]);
    std::memcpy(slots[0].Message, &message, sizeof message);
    test::WriteFileBytes(path_, {reinterpret_cast<const char*>(slots.get()), kReceiveSlotsBytes});
  }

  std::filesystem::path path_;
  test::ScriptedPort port_;
};

void ExpectNothing(const LeftMessages& left) {
  EXPECT_THAT(left.messages, IsEmpty());
  EXPECT_FALSE(left.is_damaged || left.one_is_unreadable);
}

TEST_F(ReceiveSlotsTest, CleanStopLeavesNothing) {
  Create(16);
  Start();
  for (std::uint64_t block = 0; block < 8; ++block) port_.Post(MakeWrite(block * kBlockSize, 1));
  ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
  StopDriverThreads();
  EXPECT_EQ(SlotBytes().size(), kReceiveSlotsBytes);
  ExpectNothing(Left());
}

TEST_F(ReceiveSlotsTest, MessageThatWasHandledIsNotLeft) {
  const BitmapId id = Create(16);
  Start();
  port_.Post(MakeWrite(0, 1));
  ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
  EXPECT_THAT(Bits(id), ElementsAre(0));
  ExpectNothing(Left());
}

TEST_F(ReceiveSlotsTest, MessageInHandIsHandledByTheNextStartAndItsBitmapStaysTrusted) {
  const auto bitmap = AddGood();
  Start();
  std::string slots_in_hand;
  std::string bitmap_in_hand;
  {
    const LockGuard guard(bitmapCacheLock);  // nobody finds a bitmap
    port_.Post(MakeWrite(3 * kBlockSize, 1));
    slots_in_hand = SlotBytes();
    bitmap_in_hand = ReadFileBytes(bitmap);
  }
  StopDriverThreads();
  ShutdownBitmapManager();
  // What a kill at that moment would have left.
  test::WriteFileBytes(path_, slots_in_hand);
  test::WriteFileBytes(bitmap, bitmap_in_hand);
  ASSERT_EQ(test::Get(bitmap_in_hand, test::kAtClosedCleanly, 1), 1u);
  Start();
  EXPECT_THAT(Bits(test::IdOf(bitmap)), ElementsAre(3));
  EXPECT_EQ(Header(test::IdOf(bitmap)).Unreliable, 0);
  ExpectNothing(Left());
}

TEST_F(ReceiveSlotsTest, MessagesInHandOfAKilledServiceAreInTheBitmap) {
  const auto bitmap = AddGood();
  const std::wstring event_name = L"zel-in-hand-" + std::to_wstring(::GetCurrentProcessId());
  const UniqueEvent in_hand(::CreateEventW(nullptr, TRUE, FALSE, event_name.c_str()));
  {
    const test::ChildProcess child(L"\"" + test::BesideThisProgram(L"message_in_hand_probe.exe") +
                                   L"\" \"" + directory().wstring() + L"\" " + event_name);
    const HANDLE either[] = {in_hand.get(), child.get()};
    ASSERT_EQ(::WaitForMultipleObjects(2, either, FALSE, 60'000), WAIT_OBJECT_0);
    child.Kill();
  }
  const std::string bytes = ReadFileBytes(bitmap);
  EXPECT_EQ(test::Get(bytes, test::kAtClosedCleanly, 1), 1u);
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=info\n");
  Start();
  EXPECT_THAT(Bits(test::IdOf(bitmap)), ElementsAre(3, 7));
  EXPECT_EQ(Header(test::IdOf(bitmap)).Unreliable, 0);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Handling 2 messages that were in hand when the service ended"));
}

TEST_F(ReceiveSlotsTest, WhatIsLeftIsHandledBeforeAnybodyReads) {
  const BitmapId id = Create(16);
  LeaveBehind(MakeWrite(0, 1));
  std::atomic<int> reads{0};
  std::atomic<bool> handled_first{true};
  port_.on_read = [&] {
    ++reads;
    if (LastMessageTime.Get() != test::kEventTime) handled_first = false;
  };
  Start();
  EXPECT_GE(reads, 4);
  EXPECT_TRUE(handled_first);
  EXPECT_THAT(Bits(id), ElementsAre(0));
}

TEST_F(ReceiveSlotsTest, OwnOperationIsThatOfTheProcessWhichReceivedIt) {
  const BitmapId id = Create(16);
  constexpr ProcessIdentity kDead = {.id = test::kOtherProcess, .start = test::kEventTime - 1};
  LeaveBehind(MakeWrite(0, 1), kDead);
  Start();
  EXPECT_THAT(Bits(id), IsEmpty());
  StopDriverThreads();
  LeaveBehind(MakeWrite(0, 1, test::kEventTime - 1), kDead);  // of another one with its id
  Start();
  EXPECT_THAT(Bits(id), ElementsAre(0));
}

TEST_F(ReceiveSlotsTest, MessageThatCannotBeReadMakesEveryBitmapUnreliable) {
  constexpr FileKey kOtherFile = {kVolume, test::kFile + 1};
  const auto first = AddGood();
  const auto second = AddGood(kOtherFile);
  DriverMessage message = MakeWrite(0, 1);
  message.Magic ^= 1;
  LeaveBehind(message);
  StartLogging(kDriverWarnings);
  Start();
  EXPECT_EQ(Header(test::IdOf(first)).Unreliable, 1);
  EXPECT_EQ(Header(test::IdOf(second)).Unreliable, 1);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(AllOf(StartsWith("WARN  A message that was in hand when the service "
                                           "ended cannot be read from "),
                                HasSubstr("every bitmap becomes unreliable"))));
  ExpectNothing(Left());
}

TEST_F(ReceiveSlotsTest, DamagedFileCostsOneWarningAndOnlyItsMessagesAreBelieved) {
  const BitmapId id = Create(16);
  LeaveBehind(MakeWrite(0, 1));
  std::string bytes = SlotBytes();
  bytes[0] = 'x';
  bytes.replace(sizeof(ReceiveSlot), 4096, std::string(4096, 'y'));
  bytes.resize(bytes.size() - 1000);
  test::WriteFileBytes(path_, bytes);
  StartLogging(kDriverWarnings);
  Start();
  EXPECT_THAT(Bits(id), ElementsAre(0));
  EXPECT_EQ(Header(id).Unreliable, 0);
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(HasSubstr("received-messages is damaged")));
  EXPECT_EQ(SlotBytes().size(), kReceiveSlotsBytes);
  ExpectNothing(Left());
}

TEST_F(ReceiveSlotsTest, AnyFileInItsPlaceIsMadeOneOfSlots) {
  std::mt19937 random(1);
  for (const std::size_t size :
       {std::size_t{1}, std::size_t{79}, kReceiveSlotsBytes, 2 * kReceiveSlotsBytes}) {
    std::string bytes(size, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    test::WriteFileBytes(path_, bytes);
    Start();
    StopDriverThreads();
    EXPECT_EQ(SlotBytes().size(), kReceiveSlotsBytes);
    ExpectNothing(Left());
  }
}

// A full disk is met when the file is made, not by a reader in its view.
TEST_F(ReceiveSlotsTest, FileHasAllOfItsRoomFromTheStart) {
  Start();
  const UniqueFile file(::CreateFileW(path_.c_str(), FILE_READ_ATTRIBUTES,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                      nullptr));
  FILE_STANDARD_INFO info = {};
  ASSERT_TRUE(::GetFileInformationByHandleEx(file.get(), FileStandardInfo, &info, sizeof info));
  EXPECT_GE(static_cast<std::uint64_t>(info.AllocationSize.QuadPart), kReceiveSlotsBytes);
}

TEST_F(ReceiveSlotsTest, MissingCbtDirectoryIsMade) {
  std::filesystem::remove_all(cbt());
  Start();
  EXPECT_EQ(SlotBytes().size(), kReceiveSlotsBytes);
}

decltype(&::CreateFileW) real_create = nullptr;

HANDLE WINAPI RefuseToMake(const wchar_t* path, DWORD access, DWORD share,
                           SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                           HANDLE model) {
  const bool is_of_slots = std::wstring_view(path).ends_with(kReceivedMessagesName);
  if (!is_of_slots || disposition != OPEN_ALWAYS) {
    return real_create(path, access, share, security, disposition, flags, model);
  }
  ::SetLastError(ERROR_DISK_FULL);
  return INVALID_HANDLE_VALUE;
}

// Messages are handled as ever.
class UnusableSlotsTest : public ReceiveSlotsTest {
 protected:
  // The warnings of a start, messages and a stop.
  std::vector<std::string> WarningsOfALife() {
    StartLogging(kDriverWarnings);
    Start();
    for (std::uint64_t block = 0; block < 8; ++block) port_.Post(MakeWrite(block * kBlockSize, 1));
    EXPECT_TRUE(port_.WaitForReads(kMessageThreads));
    EXPECT_THAT(Bits(id_), IsSupersetOf({0, 1, 2, 3, 4, 5, 6, 7}));
    StopDriverThreads();
    return StopLoggingAndGetMessages();
  }
  static auto SaysUnusable(const char* error) {
    return AllOf(StartsWith("WARN  Messages in hand are lost if the service is killed: "),
                 HasSubstr("received-messages cannot be used: "), HasSubstr(error));
  }
  static auto SaysUnread(const char* error) {
    return AllOf(StartsWith("WARN  What was in hand when the service ended cannot be read from "),
                 HasSubstr("received-messages, and every bitmap becomes unreliable: "),
                 HasSubstr(error));
  }

  void ExpectOneWarningAndTrust(const char* error) {
    EXPECT_THAT(WarningsOfALife(), ElementsAre(SaysUnusable(error)));
    EXPECT_EQ(Header(id_).Unreliable, 0);
  }
  void ExpectDistrust(const char* error) {
    EXPECT_THAT(WarningsOfALife(), ElementsAre(SaysUnread(error), SaysUnusable(error)));
    EXPECT_EQ(Header(id_).Unreliable, 1);
  }

  const BitmapId id_ = Create(16);
};

TEST_F(UnusableSlotsTest, DirectoryInItsPlace) {
  std::filesystem::create_directory(path_);
  ExpectDistrust("");
}

TEST_F(UnusableSlotsTest, FileThatCannotBeMadeLeavesNothingUnread) {
  std::filesystem::remove(path_);
  const test::ImportHook hook(__imp_CreateFileW, &RefuseToMake);
  real_create = reinterpret_cast<decltype(real_create)>(hook.original());
  ExpectOneWarningAndTrust("[ERROR_DISK_FULL]");
}

TEST_F(UnusableSlotsTest, WhatAReaderHoldsIsHandledAndLeftToTheNextStartToo) {
  LeaveBehind(MakeWrite(9 * kBlockSize, 1));
  const std::string before = SlotBytes();
  {
    const UniqueFile holder = test::HoldFile(path_, GENERIC_READ, FILE_SHARE_READ);
    ExpectOneWarningAndTrust("[ERROR_SHARING_VIOLATION]");
  }
  EXPECT_THAT(Bits(id_), Contains(9));
  EXPECT_EQ(SlotBytes(), before);
}

TEST_F(UnusableSlotsTest, WhatNobodyElseMayReadMakesEveryBitmapUnreliable) {
  LeaveBehind(MakeWrite(9 * kBlockSize, 1));
  const std::string before = SlotBytes();
  {
    const UniqueFile holder = test::HoldFile(path_);
    ExpectDistrust("[ERROR_SHARING_VIOLATION]");
  }
  EXPECT_EQ(SlotBytes(), before);  // left to the next start
}

decltype(&::ReadFile) real_read = nullptr;

BOOL WINAPI FailToReadSlots(HANDLE file, void* bytes, DWORD size, DWORD* read, OVERLAPPED* o) {
  if (size != kReceiveSlotsBytes) return real_read(file, bytes, size, read, o);
  ::SetLastError(ERROR_CRC);
  return FALSE;
}

TEST_F(UnusableSlotsTest, BadSectorMakesEveryBitmapUnreliable) {
  LeaveBehind(MakeWrite(9 * kBlockSize, 1));
  const test::ImportHook hook(__imp_ReadFile, &FailToReadSlots);
  real_read = reinterpret_cast<decltype(real_read)>(hook.original());
  EXPECT_THAT(WarningsOfALife(), ElementsAre(SaysUnread("[ERROR_CRC]")));
  EXPECT_EQ(Header(id_).Unreliable, 1);
}

decltype(&::WriteFile) real_write = nullptr;

BOOL WINAPI WriteToFullDisk(HANDLE file, const void* bytes, DWORD size, DWORD* written,
                            OVERLAPPED* overlapped) {
  if (size != kReceiveSlotsBytes) return real_write(file, bytes, size, written, overlapped);
  *written = 4096;
  return TRUE;
}

TEST_F(UnusableSlotsTest, FullDisk) {
  const test::ImportHook hook(__imp_WriteFile, &WriteToFullDisk);
  real_write = reinterpret_cast<decltype(real_write)>(hook.original());
  ExpectOneWarningAndTrust("[ERROR_DISK_FULL]");
}

decltype(&::MapViewOfFile) real_map = nullptr;

void* WINAPI RefuseToMap(HANDLE mapping, DWORD access, DWORD high, DWORD low, SIZE_T bytes) {
  if (bytes != kReceiveSlotsBytes) return real_map(mapping, access, high, low, bytes);
  ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return nullptr;
}

TEST_F(UnusableSlotsTest, ViewThatCannotBeMade) {
  const test::ImportHook hook(__imp_MapViewOfFile, &RefuseToMap);
  real_map = reinterpret_cast<decltype(real_map)>(hook.original());
  ExpectOneWarningAndTrust("[ERROR_NOT_ENOUGH_MEMORY]");
}

}  // namespace
}  // namespace zel
