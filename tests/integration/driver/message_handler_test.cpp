#include "driver/message_handler.h"

#include "driver/message_times.h"
#include "driver/missing_bitmaps.h"
#include "tests/integration/support/driver_fixture.h"
#include "tracking/registry_store.h"
#include "tracking/tracked_file_table.h"
#include "win32/file_time.h"

namespace zel {
namespace {

using test::Handle;
using test::kEventTime;
using test::kFile;
using test::kKey;
using test::kVolume;
using test::MakeMessage;
using test::MakeSizeChange;
using test::MakeWrite;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Type = DriverMessageType;

constexpr std::string_view kDriverTrace =
    "zelservicelog=none\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=trace\n";
constexpr char kDetails[] =
    "TRACE Message details: timestamp 134143457843397588, Volume "
    "01234567-89ab-cdef-0123-456789abcdef, FileId 0x0001000000000123, UnreportedChanges no";

class MessageHandlerTest : public test::DriverFixture {
 protected:
  // With a stamp from after this process began, `later` units of time.
  static DriverMessage ByThisProcess(DriverMessage message, FileTime later = 1) {
    message.ProcessId = ::GetCurrentProcessId();
    message.Timestamp = ThisProcess().start + later;
    return message;
  }
  static DriverMessage WithUnreportedChanges(DriverMessage message) {
    message.UnreportedChanges = 0x80;  // any bit
    return message;
  }
  static void HandleFirst(const DriverMessage& message, std::size_t bytes) {
    HandleDriverMessage(std::as_bytes(std::span(&message, 1)).first(bytes));
  }
};

TEST_F(MessageHandlerTest, WriteSetsItsBits) {
  const BitmapId id = Create(16);
  Handle(MakeWrite(65'535, 2));
  EXPECT_THAT(Bits(id), ElementsAre(0, 1));
}

TEST_F(MessageHandlerTest, SizeChangeIsAppliedAndLogged) {
  const BitmapId id = Create(16);
  StartLogging(test::kDriverDebug);
  Handle(MakeSizeChange(14 * 65'536));
  EXPECT_THAT(Bits(id), ElementsAre(14, 15));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG FileId 0x0001000000000123 size changed to 917504"));
}

TEST_F(MessageHandlerTest, MessageOf79BytesIsLoggedAndDroppedAndOneOf80IsNot) {
  const BitmapId id = Create(16);
  StartLogging(test::kDriverErrors);
  HandleFirst(MakeWrite(0, 1), 79);
  HandleFirst(MakeWrite(0, 1), 0);
  EXPECT_THAT(Bits(id), IsEmpty());
  EXPECT_EQ(LastMessageTime.Get(), 0u);
  HandleFirst(MakeWrite(0, 1), 80);
  EXPECT_THAT(Bits(id), ElementsAre(0));
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("ERROR Message too small (79 bytes)",
                                                       "ERROR Message too small (0 bytes)"));
}

TEST_F(MessageHandlerTest, WrongMagicIsLoggedAndTheMessageDroppedWithItsMarks) {
  const BitmapId id = Create(16);
  DriverMessage message = WithUnreportedChanges(MakeWrite(0, 1));
  message.Magic = 0x092ABB39;
  StartLogging(test::kDriverErrors);
  Handle(message);
  EXPECT_THAT(Bits(id), IsEmpty());
  EXPECT_EQ(Header(id).Unreliable, 0);
  EXPECT_EQ(LastMessageTime.Get(), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Magic number incorrect, expected 0x092abb38 but was 0x092abb39"));
}

TEST_F(MessageHandlerTest, ReplyLengthIsTracedFirstEvenOfAFaultyMessage) {
  DriverMessage message = MakeMessage(Type::kOpened);
  message.ReplyLength = 16;
  message.MessageId = 0xABC;
  StartLogging(kDriverTrace);
  HandleFirst(message, 16);
  Handle(message);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("TRACE ReplyLength 16, MessageId 0x0000000000000abc",
                          "ERROR Message too small (16 bytes)",
                          "TRACE ReplyLength 16, MessageId 0x0000000000000abc", kDetails,
                          "DEBUG FileId 0x0001000000000123 opened by PID 4711"));
}

TEST_F(MessageHandlerTest, EventsWithoutConsequencesAreLogged) {
  StartLogging(test::kDriverDebug);
  Handle(MakeMessage(Type::kOpened));
  Handle(MakeMessage(Type::kClosed));
  Handle(MakeMessage(Type::kRenamed));
  Handle(MakeMessage(Type::kQueueSync));
  Handle(MakeMessage(Type::kVerify));
  Handle(MakeMessage(static_cast<Type>(0xFEDC)));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG FileId 0x0001000000000123 opened by PID 4711",
                          "DEBUG FileId 0x0001000000000123 closed by PID 4711",
                          "DEBUG FileId 0x0001000000000123 renamed by PID 4711",
                          "DEBUG Message queue sync notification received at 134143457843397588",
                          "DEBUG Volume 01234567-89ab-cdef-0123-456789abcdef, FileId "
                          "0x0001000000000123 verify FSCTL",
                          "ERROR Unknown message type 0xfedc"));
}

TEST_F(MessageHandlerTest, SyncNotificationsAndOtherMessagesRaiseTheirOwnTime) {
  Handle(MakeMessage(Type::kQueueSync, 500));
  EXPECT_EQ(LastSyncTime.Get(), 500u);
  EXPECT_EQ(LastMessageTime.Get(), 0u);
  FileTime time = 1000;
  for (const Type type : {Type::kWrite, Type::kVerify, Type::kOpened, Type::kClosed,
                          Type::kSizeChanged, Type::kRenamed, Type{}}) {
    Handle(MakeMessage(type, ++time));
    EXPECT_EQ(LastMessageTime.Get(), time);
  }
  EXPECT_EQ(LastSyncTime.Get(), 500u);
}

TEST_F(MessageHandlerTest, OlderMessageLeavesTheTimesAsTheyAre) {
  Handle(MakeMessage(Type::kWrite, 1000));
  Handle(MakeMessage(Type::kQueueSync, 1000));
  Handle(MakeMessage(Type::kWrite, 999));
  Handle(MakeMessage(Type::kQueueSync, 999));
  EXPECT_EQ(LastMessageTime.Get(), 1000u);
  EXPECT_EQ(LastSyncTime.Get(), 1000u);
}

TEST_F(MessageHandlerTest, OldMessageIsAppliedAllTheSame) {
  const BitmapId id = Create(16);
  Handle(MakeMessage(Type::kOpened, 1000));
  Handle(MakeWrite(0, 1, 1));
  EXPECT_THAT(Bits(id), ElementsAre(0));
}

TEST_F(MessageHandlerTest, WriteByThisProcessIsSkippedButItsMarkAndTimeCount) {
  const BitmapId id = Create(16);
  StartLogging(kDriverTrace);
  Handle(ByThisProcess(MakeWrite(0, 1)));
  EXPECT_EQ(Header(id).Unreliable, 0);
  Handle(ByThisProcess(WithUnreportedChanges(MakeWrite(0, 1)), 2));
  EXPECT_THAT(Bits(id), IsEmpty());
  EXPECT_EQ(Header(id).Unreliable, 1);
  EXPECT_EQ(LastMessageTime.Get(), ThisProcess().start + 2);
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  ASSERT_EQ(messages.size(), 5u);
  EXPECT_THAT(messages[0], ::testing::EndsWith("UnreportedChanges no"));
  EXPECT_EQ(messages[1],
            "TRACE Skipping processing message because this process performed the file operation");
  EXPECT_THAT(messages[2], ::testing::EndsWith("UnreportedChanges yes"));
  EXPECT_THAT(messages[3], ::testing::StartsWith("INFO  Filter driver indicated unreported"));
  EXPECT_EQ(messages[4], messages[1]);
}

// The driver keeps messages while there is no service, and the next one may get any id.
TEST_F(MessageHandlerTest, WriteByAnEarlierProcessOfTheSameIdCounts) {
  const BitmapId id = Create(16);
  Handle(ByThisProcess(MakeWrite(0, 1), 0));
  Handle(ByThisProcess(MakeSizeChange(14 * 65'536), ~FileTime{0}));  // one unit before
  EXPECT_THAT(Bits(id), ElementsAre(0, 14, 15));
}

TEST_F(MessageHandlerTest, ThisProcessHasBegunBeforeNow) {
  EXPECT_EQ(ThisProcess().id, ::GetCurrentProcessId());
  EXPECT_LE(ThisProcess().start, SystemTimeNow());
  EXPECT_GT(ThisProcess().start, SystemTimeNow() - 3600 * test::kSecond);
}

TEST_F(MessageHandlerTest, NothingButAVerifyByThisProcessIsActedOn) {
  StartLogging(test::kDriverDebug);
  for (const Type type : {Type::kOpened, Type::kClosed, Type::kRenamed, Type::kSizeChanged,
                          Type::kQueueSync, Type{}}) {
    Handle(ByThisProcess(MakeMessage(type)));
  }
  EXPECT_EQ(LastSyncTime.Get(), ThisProcess().start + 1);
  EXPECT_THAT(StopLoggingAndGetMessages(), IsEmpty());
}

TEST_F(MessageHandlerTest, UnreportedChangesMarkWhateverTheType) {
  for (const Type type : {Type::kQueueSync, Type::kVerify, Type::kOpened, Type{}}) {
    const BitmapId id = Create(16);
    Handle(WithUnreportedChanges(MakeMessage(type)));
    EXPECT_EQ(Header(id).Unreliable, 1);
  }
}

TEST_F(MessageHandlerTest, VerifyStampsEveryBitmapOfItsFile) {
  Create(16);
  Create(16);
  Handle(MakeMessage(Type::kVerify, 1000));
  EXPECT_TRUE(AllVerifiedSince(kKey, 1000));
  EXPECT_FALSE(AllVerifiedSince(kKey, 1001));
  Handle(ByThisProcess(MakeMessage(Type::kVerify)));
  EXPECT_TRUE(AllVerifiedSince(kKey, ThisProcess().start + 1));
}

TEST_F(MessageHandlerTest, VerifyOfAFileWithoutBitmapsChangesNothing) {
  Handle(MakeMessage(Type::kVerify));
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
}

class MissingBitmapTest : public MessageHandlerTest {
 protected:
  MissingBitmapTest() {
    StartLogging("zelservicelog=warn\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=none\n");
  }
  ~MissingBitmapTest() override { CloseTrackedFileList(); }

  static void Track(FileId file_id) {
    bool is_new = false;
    EXPECT_TRUE(StartTrackingFile(L"C:\\" + std::to_wstring(file_id), kVolume, file_id, is_new));
  }
  static DriverMessage Of(FileId file_id, DriverMessage message) {
    message.FileId = file_id;
    return message;
  }
};

TEST_F(MissingBitmapTest, ChangesOfATrackedFileWithoutABitmapAreOneWarningPerFile) {
  Track(kFile);
  Track(kFile + 1);
  for (int i = 0; i < 3; ++i) Handle(MakeWrite(0, 1));
  Handle(MakeSizeChange(1));
  Handle(WithUnreportedChanges(MakeMessage(Type::kOpened)));
  Handle(Of(kFile + 1, MakeSizeChange(1)));
  Handle(Of(kFile + 1, MakeWrite(0, 1)));
  const std::string begin =
      "WARN  A change was reported for Volume 01234567-89ab-cdef-0123-456789abcdef, FileId ";
  const std::string end = ", which is tracked but has no bitmap";
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(begin + "0x0001000000000123" + end, begin + "0x0001000000000124" + end));
}

TEST_F(MissingBitmapTest, EachKindOfChangeIsOne) {
  for (FileId file = kFile; file < kFile + 3; ++file) Track(file);
  Handle(MakeWrite(0, 1));
  Handle(Of(kFile + 1, MakeSizeChange(1)));
  Handle(Of(kFile + 2, WithUnreportedChanges(MakeMessage(Type::kOpened))));
  EXPECT_THAT(StopLogging(), ::testing::SizeIs(3));
}

TEST_F(MissingBitmapTest, UntrackedFilesAndOtherMessagesAreNoneOfIt) {
  Handle(MakeWrite(0, 1));
  Track(kFile);
  Handle(MakeMessage(Type::kOpened));
  Handle(MakeMessage(Type::kClosed));
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(MissingBitmapTest, BitmapThatIsJustBeingMadeIsNotMissed) {
  {
    const BitmapInTheMaking making(kKey);
    Track(kFile);
    Handle(MakeWrite(0, 1));
  }
  EXPECT_TRUE(std::filesystem::is_empty(cbt()));
  Handle(MakeWrite(0, 1));
  EXPECT_THAT(StopLogging(), ::testing::SizeIs(1));
}

TEST_F(MissingBitmapTest, BitmapThatCannotBeOpenedIsNotMissing) {
  Track(kFile);
  AddBitmap(kVolume, kFile, 7, L"C:\\gone\\" + test::BitmapName(test::kCreated), 600);
  Handle(MakeWrite(0, 1));
  EXPECT_THAT(StopLogging(), IsEmpty());
}

}  // namespace
}  // namespace zel
