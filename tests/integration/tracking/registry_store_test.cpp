#include "tracking/registry_store.h"

#include <random>

#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/tracking_fixture.h"

extern "C" {
extern void* __imp_RegCloseKey;
extern void* __imp_RegEnumValueW;
extern void* __imp_RegQueryValueExW;
extern void* __imp_RegSetValueExW;
}

namespace zel {
namespace {

using test::kFirstVolume;
using test::kFirstVolumeText;
using test::kSecondVolume;
using test::kSecondVolumeText;
using test::ValueOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

class TrackedFileListTest : public test::TrackingFixture {
 protected:
  TrackedFileListTest() { StartLogging(); }
};

const test::Files kOneFile = {{L"C:\\a", 0x17}};

TEST_F(TrackedFileListTest, SaveWritesTheCodecsBytesUnderTheVolumesName) {
  VolumeFileList list(kFirstVolume);
  list.Set(L"C:\\a", 0x17);
  list.Set(L"C:\\\u00DCbung", 0x18);
  SaveVolumeFileList(list, key().Open().get());
  EXPECT_THAT(key().Values(),
              ElementsAre(Pair(kFirstVolumeText, test::RegistryValue{REG_BINARY, ValueOf(list)})));
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(TrackedFileListTest, SaveOfAnEmptyListDeletesTheValue) {
  key().Set(kFirstVolumeText, ValueOf(kFirstVolume, kOneFile));
  key().Set(kSecondVolumeText, ValueOf(kSecondVolume, kOneFile));
  SaveVolumeFileList(VolumeFileList(kFirstVolume), key().Open().get());
  EXPECT_THAT(key().Values(), ElementsAre(Pair(kSecondVolumeText, ::testing::_)));
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(TrackedFileListTest, DeletionThatFailsIsLogged) {
  SaveVolumeFileList(VolumeFileList(kFirstVolume), key().Open().get());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("WARN  RegDeleteValue(00000001-89ab-cdef-0123-456789abcdef) failed: 2"));
}

LSTATUS WINAPI RefuseToSet(HKEY, const wchar_t*, DWORD, DWORD, const BYTE*, DWORD) {
  return ERROR_ACCESS_DENIED;
}

TEST_F(TrackedFileListTest, WriteThatFailsIsLoggedAndTheTableKeepsTheChange) {
  ASSERT_TRUE(OpenAndLoad());
  {
    const test::ImportHook hook(__imp_RegSetValueExW, &RefuseToSet);
    Track(L"C:\\a", kFirstVolume, 0x17);
  }
  EXPECT_THAT(test::Collect(), ElementsAre(TrackedFileEntry{L"C:\\a", kFirstVolume, 0x17}));
  EXPECT_THAT(key().Values(), IsEmpty());
  EXPECT_EQ(StopLoggingAndGetMessages().back(),
            "WARN  RegSetValueEx(00000001-89ab-cdef-0123-456789abcdef) failed: 5");
}

TEST_F(TrackedFileListTest, SaveWithoutAKeyDoesNothing) {
  SaveVolumeFileList(VolumeFileList(kFirstVolume), nullptr);
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(TrackedFileListTest, LoadFillsTheTableAndLogsEveryFile) {
  key().Set(kFirstVolumeText,
            ValueOf(kFirstVolume, {{L"C:\\B", 0xFEDCBA9876543210}, {L"C:\\a", 0x17}}));
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_THAT(test::Collect(),
              ElementsAre(TrackedFileEntry{L"C:\\a", kFirstVolume, 0x17},
                          TrackedFileEntry{L"C:\\B", kFirstVolume, 0xFEDCBA9876543210}));
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre(
          "INFO  Loading tracked file list for Volume 00000001-89ab-cdef-0123-456789abcdef:",
          "INFO     FileId 0x0000000000000017: C:\\a",
          "INFO     FileId 0xfedcba9876543210: C:\\B"));
}

TEST_F(TrackedFileListTest, LoadOfAnEmptyKeySucceeds) {
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_THAT(test::Collect(), IsEmpty());
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(TrackedFileListTest, ValuesOfAnotherTypeOrNameAreSkippedSilently) {
  const std::string value = ValueOf(kFirstVolume, kOneFile);
  const std::wstring guid = kFirstVolumeText;
  key().Set(guid, value, REG_NONE);
  key().Set(kSecondVolumeText, value, REG_SZ);
  key().Set(L"", value);
  key().Set(guid.substr(1), value);
  key().Set(guid + L"0", value);
  key().Set(L"{" + guid + L"}", value);
  key().Set(L"0000000g-89ab-cdef-0123-456789abcdef", value);
  key().Set(L"00000003-89ab-cdef-0123-4567-9abcdef", value);
  EXPECT_EQ(key().Values().size(), 8u);
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_THAT(test::Collect(), IsEmpty());
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(TrackedFileListTest, NameInCapitalsIsTheVolumesToo) {
  key().Set(L"00000001-89AB-CDEF-0123-456789ABCDEF", ValueOf(kFirstVolume, kOneFile));
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_THAT(test::Collect(), ElementsAre(TrackedFileEntry{L"C:\\a", kFirstVolume, 0x17}));
}

TEST_F(TrackedFileListTest, GuidInTheValueCountsNotItsName) {
  key().Set(kFirstVolumeText, ValueOf(kSecondVolume, kOneFile));
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_THAT(test::Collect(), ElementsAre(TrackedFileEntry{L"C:\\a", kSecondVolume, 0x17}));
  EXPECT_EQ(StopLoggingAndGetMessages().front(),
            "INFO  Loading tracked file list for Volume 00000001-89ab-cdef-0123-456789abcdef:");
}

TEST_F(TrackedFileListTest, MagicIsNotChecked) {
  std::string value = ValueOf(kFirstVolume, kOneFile);
  value[0] = value[1] = '\0';
  key().Set(kFirstVolumeText, value);
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_EQ(test::Collect().size(), 1u);
}

// What RegEnumValueW answers: the values of a list instead of a key's.
struct FakeValues {
  static inline std::vector<std::pair<std::wstring, std::string>> values;
  static inline LSTATUS status_behind = ERROR_NO_MORE_ITEMS;

  static LSTATUS WINAPI Enumerate(HKEY, DWORD index, wchar_t* name, DWORD* chars, DWORD*,
                                  DWORD* type, BYTE* data, DWORD* bytes) {
    if (index >= values.size()) return status_behind;
    const auto& [value_name, value] = values[index];
    *type = REG_BINARY;
    const DWORD offered = std::exchange(*bytes, static_cast<DWORD>(value.size()));
    // As some systems do, without a word about the length of the name.
    if (*chars <= value_name.size() || offered < value.size()) return ERROR_MORE_DATA;
    *chars = static_cast<DWORD>(value_name.size());
    std::wcscpy(name, value_name.c_str());
    std::memcpy(data, value.data(), value.size());
    return ERROR_SUCCESS;
  }

  test::ImportHook hook{__imp_RegEnumValueW, &Enumerate};
};

TEST_F(TrackedFileListTest, LaterValueOfAVolumeReplacesTheEarlier) {
  FakeValues::values = {{kFirstVolumeText, ValueOf(kFirstVolume, {{L"C:\\a", 1}, {L"C:\\b", 2}})},
                        {kSecondVolumeText, ValueOf(kFirstVolume, {{L"C:\\c", 3}})}};
  const FakeValues fake;
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_THAT(test::Collect(), ElementsAre(TrackedFileEntry{L"C:\\c", kFirstVolume, 3}));
}

TEST_F(TrackedFileListTest, EnumerationThatFailsKeepsWhatWasLoaded) {
  FakeValues::values = {{kFirstVolumeText, ValueOf(kFirstVolume, kOneFile)}, {L"other", "x"}};
  FakeValues::status_behind = ERROR_ACCESS_DENIED;
  const FakeValues fake;
  EXPECT_FALSE(OpenAndLoad());
  EXPECT_THAT(test::Collect(), ElementsAre(TrackedFileEntry{L"C:\\a", kFirstVolume, 0x17}));
  EXPECT_EQ(StopLoggingAndGetMessages().back(), "ERROR RegEnumValue(2) failed: 5");
}

TEST_F(TrackedFileListTest, LoadWithoutAKeyFails) {
  EXPECT_FALSE(LoadTrackedFileList());
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("ERROR RegEnumValue(0) failed: 6"));
}

TEST_F(TrackedFileListTest, ValuesLargerThanTheFirstBuffersAreRead) {
  test::Files files;
  for (FileId i = 1; i <= 60; ++i) files.emplace_back(L"C:\\" + std::to_wstring(i), i);
  const std::string large = ValueOf(kSecondVolume, files);
  ASSERT_GT(large.size(), 1024u);
  key().Set(std::wstring(100, L'n'), "short");
  key().Set(std::wstring(5000, L'n'), std::string(3000, 'd'));
  key().Set(kFirstVolumeText, ValueOf(kFirstVolume, kOneFile));
  key().Set(kSecondVolumeText, large);
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_EQ(test::Collect().size(), 61u);
}

TEST_F(TrackedFileListTest, NamesAreReadThoughTheSystemDoesNotTellTheirLength) {
  FakeValues::values = {{std::wstring(16'383, L'n'), ""},
                        {kFirstVolumeText, ValueOf(kFirstVolume, kOneFile)}};
  const FakeValues fake;
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_EQ(test::Collect().size(), 1u);
}

TEST_F(TrackedFileListTest, NameThatNoBufferCanTakeEndsTheLoad) {
  FakeValues::values = {{std::wstring(16'384, L'n'), ""}};
  const FakeValues fake;
  EXPECT_FALSE(OpenAndLoad());
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("ERROR RegEnumValue(0) failed: 234"));
}

TEST_F(TrackedFileListTest, DamagedValueKeepsTheFilesInFrontOfTheDamage) {
  const std::string value = ValueOf(kFirstVolume, {{L"C:\\a", 0x17}, {L"C:\\b", 0x18}});
  key().Set(kFirstVolumeText, value.substr(0, value.size() - 1));
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_THAT(test::Collect(), ElementsAre(TrackedFileEntry{L"C:\\a", kFirstVolume, 0x17}));
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre(
          "INFO  Loading tracked file list for Volume 00000001-89ab-cdef-0123-456789abcdef:",
          "INFO     FileId 0x0000000000000017: C:\\a",
          "WARN  Tracked file list for Volume 00000001-89ab-cdef-0123-456789abcdef is damaged "
          "behind 1 files"));
}

TEST_F(TrackedFileListTest, ValueTooShortForItsVolumeLoadsNothing) {
  key().Set(kFirstVolumeText, ValueOf(kFirstVolume, {}).substr(0, 21));
  key().Set(kSecondVolumeText, "");
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_THAT(test::Collect(), IsEmpty());
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      UnorderedElementsAre(
          "INFO  Loading tracked file list for Volume 00000001-89ab-cdef-0123-456789abcdef:",
          "WARN  Tracked file list for Volume 00000001-89ab-cdef-0123-456789abcdef is damaged "
          "behind 0 files",
          "INFO  Loading tracked file list for Volume 00000002-89ab-cdef-0123-456789abcdef:",
          "WARN  Tracked file list for Volume 00000002-89ab-cdef-0123-456789abcdef is damaged "
          "behind 0 files"));
}

TEST_F(TrackedFileListTest, RandomListsSurviveARestart) {
  std::mt19937 random(1);
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(Restart());
    for (std::size_t files = random() % 20; files > 0; --files) {
      std::wstring path(1 + random() % 500, L'\0');
      for (wchar_t& unit : path) unit = static_cast<wchar_t>(1 + random() % 0xFFFF);
      Track(path, random() % 2 == 0 ? kFirstVolume : kSecondVolume, 1 + random());
    }
    const std::vector<TrackedFileEntry> before = test::Collect();
    ASSERT_TRUE(Restart());
    ASSERT_EQ(test::Collect(), before) << round;
  }
}

// The reading of the list fails at its second value.
decltype(&::RegEnumValueW) real_enumerate = nullptr;
LSTATUS WINAPI FailAtTheSecondValue(HKEY enumerated, DWORD index, wchar_t* name, DWORD* chars,
                                    DWORD* reserved, DWORD* type, BYTE* data, DWORD* bytes) {
  if (index > 0) return ERROR_NO_SYSTEM_RESOURCES;
  return real_enumerate(enumerated, index, name, chars, reserved, type, data, bytes);
}

LSTATUS WINAPI FailToQuery(HKEY, const wchar_t*, DWORD*, DWORD*, BYTE*, DWORD*) {
  return ERROR_NO_SYSTEM_RESOURCES;
}

const test::Files kUnreadFiles = {{L"D:\\a", 0x21}, {L"D:\\b", 0x22}};

class HalfReadListTest : public TrackedFileListTest {
 protected:
  HalfReadListTest() {
    key().Set(kFirstVolumeText, ValueOf(kFirstVolume, kOneFile));
    key().Set(kSecondVolumeText, ValueOf(kSecondVolume, kUnreadFiles));
    LoadHalf();
  }

  void LoadHalf() {
    real_enumerate = reinterpret_cast<decltype(real_enumerate)>(__imp_RegEnumValueW);
    const test::ImportHook hook(__imp_RegEnumValueW, &FailAtTheSecondValue);
    EXPECT_FALSE(Restart());
  }

  [[nodiscard]] std::string Value(const wchar_t* name) const { return key().Values()[name].bytes; }
};

TEST_F(HalfReadListTest, FirstWriteForTheUnreadVolumeKeepsItsFiles) {
  Track(L"D:\\new", kSecondVolume, 0x23);
  test::Files files = kUnreadFiles;
  files.emplace_back(L"D:\\new", 0x23);
  EXPECT_EQ(Value(kSecondVolumeText), ValueOf(kSecondVolume, files));
  EXPECT_EQ(Value(kFirstVolumeText), ValueOf(kFirstVolume, kOneFile));
  EXPECT_EQ(test::Collect().size(), 4u);
  ASSERT_TRUE(Restart());
  EXPECT_EQ(test::Collect().size(), 4u);
}

TEST_F(HalfReadListTest, WriteForTheReadVolumeLeavesTheOtherAlone) {
  Track(L"C:\\new", kFirstVolume, 0x18);
  EXPECT_EQ(Value(kSecondVolumeText), ValueOf(kSecondVolume, kUnreadFiles));
  EXPECT_EQ(test::Collect().size(), 2u);
}

TEST_F(HalfReadListTest, FileOfTheUnreadListIsTrackedAndNotNew) {
  bool is_new = true;
  EXPECT_TRUE(StartTrackingFile(L"d:\\B", kSecondVolume, 0x22, is_new));
  EXPECT_FALSE(is_new);
  EXPECT_TRUE(IsTracked({kSecondVolume, 0x21}));
  EXPECT_EQ(Value(kSecondVolumeText), ValueOf(kSecondVolume, kUnreadFiles));
}

TEST_F(HalfReadListTest, UnreadListCanBeInConflict) {
  bool is_new = true;
  EXPECT_FALSE(StartTrackingFile(L"D:\\a", kSecondVolume, 0x99, is_new));
  EXPECT_EQ(Value(kSecondVolumeText), ValueOf(kSecondVolume, kUnreadFiles));
}

TEST_F(HalfReadListTest, ListThatCannotBeReadByNameEitherRefusesTheStart) {
  bool is_new = true;
  {
    const test::ImportHook hook(__imp_RegQueryValueExW, &FailToQuery);
    EXPECT_EQ(EnsureVolumeListIsRead(kSecondVolume), DWORD{ERROR_NO_SYSTEM_RESOURCES});
    EXPECT_FALSE(StartTrackingFile(L"D:\\new", kSecondVolume, 0x23, is_new));
    EXPECT_FALSE(is_new);
  }
  EXPECT_EQ(Value(kSecondVolumeText), ValueOf(kSecondVolume, kUnreadFiles));
  EXPECT_EQ(test::Collect().size(), 1u);
  Track(L"D:\\new", kSecondVolume, 0x23);
  EXPECT_EQ(test::Collect().size(), 4u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ::testing::Contains("ERROR RegQueryValueEx(00000002-89ab-cdef-0123-456789abcdef) "
                                  "failed: 1450")
                  .Times(2));
}

TEST_F(HalfReadListTest, ListIsReadByNameOnce) {
  Track(L"D:\\new", kSecondVolume, 0x23);
  const test::ImportHook hook(__imp_RegQueryValueExW, &FailToQuery);
  Track(L"D:\\newer", kSecondVolume, 0x24);
  StopTrackingFile(L"D:\\a");
  EXPECT_EQ(test::Collect().size(), 4u);
}

TEST_F(HalfReadListTest, UnreadListLargerThanTheFirstBufferIsRead) {
  test::Files files;
  for (FileId i = 1; i <= 60; ++i) files.emplace_back(L"D:\\" + std::to_wstring(i), i);
  key().Set(kSecondVolumeText, ValueOf(kSecondVolume, files));
  EXPECT_EQ(EnsureVolumeListIsRead(kSecondVolume), 0u);
  EXPECT_EQ(test::Collect().size(), 61u);
}

TEST_F(TrackedFileListTest, ListUnderAnotherVolumesNameIsKeptWhenThatVolumeIsWritten) {
  key().Set(kFirstVolumeText, ValueOf(kSecondVolume, kOneFile));
  ASSERT_TRUE(OpenAndLoad());
  Track(L"C:\\new", kFirstVolume, 0x18);
  EXPECT_EQ(key().Values()[kFirstVolumeText].bytes, ValueOf(kFirstVolume, {{L"C:\\new", 0x18}}));
  EXPECT_EQ(key().Values()[kSecondVolumeText].bytes, ValueOf(kSecondVolume, kOneFile));
}

TEST_F(TrackedFileListTest, ListOfAVolumeThatWasReplacedByAnotherValueIsMergedWhenItIsWritten) {
  FakeValues::values = {{kFirstVolumeText, ValueOf(kFirstVolume, {{L"C:\\a", 1}, {L"C:\\b", 2}})},
                        {kSecondVolumeText, ValueOf(kFirstVolume, {{L"C:\\b", 9}, {L"C:\\c", 3}})}};
  for (const auto& [name, value] : FakeValues::values) key().Set(name, value);
  {
    const FakeValues in_this_order;
    ASSERT_TRUE(OpenAndLoad());
  }
  Track(L"C:\\new", kFirstVolume, 4);
  EXPECT_EQ(key().Values()[kFirstVolumeText].bytes,
            ValueOf(kFirstVolume, {{L"C:\\a", 1}, {L"C:\\b", 9}, {L"C:\\c", 3}, {L"C:\\new", 4}}));
}

HKEY closed_key = nullptr;
int times_closed = 0;
decltype(&::RegCloseKey) real_close = nullptr;

LSTATUS WINAPI CountCloses(HKEY closed) {
  if (closed == closed_key) ++times_closed;
  return real_close(closed);
}

TEST_F(TrackedFileListTest, CloseClosesTheKeyOnceAndEmptiesTheTable) {
  UniqueRegistryKey handed_over = key().Open();
  closed_key = handed_over.get();
  const test::ImportHook hook(__imp_RegCloseKey, &CountCloses);
  real_close = reinterpret_cast<decltype(real_close)>(hook.original());
  SetTrackedFileListKey(std::move(handed_over));
  Track(L"C:\\a", kFirstVolume, 1);
  CloseTrackedFileList();
  EXPECT_EQ(times_closed, 1);
  EXPECT_THAT(test::Collect(), IsEmpty());
  EXPECT_THAT(key().Values(), ElementsAre(Pair(kFirstVolumeText, ::testing::_)));
  CloseTrackedFileList();
  EXPECT_EQ(times_closed, 1);
}

TEST_F(TrackedFileListTest, StopOfTrackingKeepsFilesOfAValueThatTheTableLacks) {
  key().Set(kFirstVolumeText, ValueOf(kFirstVolume, {{L"C:\\b", 2}}));
  key().Set(kSecondVolumeText, ValueOf(kFirstVolume, {{L"C:\\a", 1}}));  // takes its place
  ASSERT_TRUE(OpenAndLoad());
  StopTrackingFile(L"C:\\a");
  EXPECT_EQ(key().Values().at(kFirstVolumeText).bytes, ValueOf(kFirstVolume, {{L"C:\\b", 2}}));
}

}  // namespace
}  // namespace zel
