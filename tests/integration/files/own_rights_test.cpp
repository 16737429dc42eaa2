#include "files/own_rights.h"

#include <aclapi.h>
#include <sddl.h>

#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/log_fixture.h"
#include "win32/no_links.h"

extern "C" {
extern void* __imp_GetFinalPathNameByHandleW;
extern void* __imp_GetSecurityInfo;
extern void* __imp_SetKernelObjectSecurity;
}

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr SECURITY_INFORMATION kOwnerAndList =
    OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

// Answers the same rights for every file and directory, and notes what is set.
class PlayedRights {
 public:
  explicit PlayedRights(const wchar_t* text) {
    text_ = text;
    set_.clear();
  }
  [[nodiscard]] static std::vector<std::string> set() { return set_; }

 private:
  static DWORD WINAPI Get(HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID* owner, PSID*,
                          PACL* list, PACL*, PSECURITY_DESCRIPTOR* descriptor) {
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(text_, 1, descriptor, nullptr)) {
      return ::GetLastError();
    }
    BOOL is_present = FALSE;
    BOOL is_default = FALSE;
    ::GetSecurityDescriptorOwner(*descriptor, owner, &is_default);
    ::GetSecurityDescriptorDacl(*descriptor, &is_present, list, &is_default);
    if (!is_present) *list = nullptr;
    return ERROR_SUCCESS;
  }

  static BOOL WINAPI Set(HANDLE, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR descriptor) {
    wchar_t* text = nullptr;
    EXPECT_TRUE(::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, 1, kOwnerAndList,
                                                                       &text, nullptr));
    set_.push_back(std::filesystem::path(text).string());
    ::LocalFree(text);
    return TRUE;
  }

  static inline const wchar_t* text_;
  static inline std::vector<std::string> set_;
  test::ImportHook get_{__imp_GetSecurityInfo, &Get};
  test::ImportHook set_hook_{__imp_SetKernelObjectSecurity, &Set};
};

class OwnRightsTest : public test::LogFixture {
 protected:
  std::vector<std::string> TakeOver(std::uint32_t code = 0) {
    StartLogging();
    EXPECT_EQ(TakeOverCbtDirectory(path_), code);
    return StopLoggingAndGetMessages();
  }

  // As the rights of the CBT directory.
  std::vector<std::string> TakeOver(const wchar_t* rights) {
    std::filesystem::create_directories(path_);
    const PlayedRights played(rights);
    return TakeOver();
  }

  std::string Warning(const std::string& others) const {
    return "WARN  " + std::filesystem::path(path_).string() +
           " had rights for others than SYSTEM and Administrators (" + others +
           "), who could have changed bitmaps: they are taken away";
  }

  std::wstring path_ = (directory() / L"cbt").wstring();
};

constexpr char kDirectory[] = "D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
constexpr char kFile[] = "D:P(A;;FA;;;SY)(A;;FA;;;BA)";

TEST_F(OwnRightsTest, MissingDirectoryIsMadeClosed) {
  EXPECT_THAT(TakeOver(), IsEmpty());
  EXPECT_TRUE(std::filesystem::is_directory(path_));
}

TEST_F(OwnRightsTest, MadeDirectoryIsFoundAsItShouldBe) {
  EXPECT_TRUE(::CreateDirectoryW(path_.c_str(), RightsOfOwnDirectory()));
  EXPECT_THAT(TakeOver(), IsEmpty());
}

TEST_F(OwnRightsTest, ClosedDirectoryIsLeftAsItIs) {
  EXPECT_THAT(TakeOver(L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"), IsEmpty());
  EXPECT_THAT(PlayedRights::set(), IsEmpty());
}

TEST_F(OwnRightsTest, NothingMoreIsInherited) {
  EXPECT_THAT(TakeOver(L"O:SYD:(A;OICIID;FA;;;SY)(A;OICIID;FA;;;BA)"), IsEmpty());
  EXPECT_THAT(PlayedRights::set(), ElementsAre(kDirectory));
}

TEST_F(OwnRightsTest, OthersAreNamedOnceAndLoseTheirRightsInTheWholeTree) {
  test::WriteFileBytes(std::filesystem::path(path_) / L"volume" / L"bitmap", "bits");
  EXPECT_THAT(TakeOver(L"O:BAD:(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1301bf;;;AU)"
                       L"(A;OICIIO;GA;;;AU)(A;OICI;0x1200a9;;;BU)(D;OICI;FA;;;BG)"),
              ElementsAre(Warning("S-1-5-11, S-1-5-32-545")));
  EXPECT_THAT(PlayedRights::set(), ElementsAre(kDirectory, kDirectory, kFile));
}

// Whoever owns it can change its rights at any time.
TEST_F(OwnRightsTest, OtherOwnerLosesIt) {
  EXPECT_THAT(TakeOver(L"O:BUD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"),
              ElementsAre(Warning("S-1-5-32-545")));
  EXPECT_THAT(PlayedRights::set(), ElementsAre("O:BA", kDirectory));
}

TEST_F(OwnRightsTest, DirectoryWithoutAListIsEverybodys) {
  EXPECT_THAT(TakeOver(L"O:BA"), ElementsAre(Warning("everybody")));
  EXPECT_THAT(PlayedRights::set(), ElementsAre(kDirectory));
}

BOOL WINAPI RefuseToSet(HANDLE, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return FALSE;
}

TEST_F(OwnRightsTest, RightsThatCannotBeChangedAreLoggedAndNoFailure) {
  std::filesystem::create_directories(path_);
  const PlayedRights played(L"O:SYD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;WD)");
  const test::ImportHook hook(__imp_SetKernelObjectSecurity, &RefuseToSet);
  const std::vector<std::string> messages = TakeOver();
  ASSERT_THAT(messages, SizeIs(2));
  EXPECT_EQ(messages[0], Warning("S-1-1-0"));
  EXPECT_TRUE(messages[1].starts_with("ERROR The rights of ")) << messages[1];
}

DWORD WINAPI LieElsewhere(HANDLE file, wchar_t* path, DWORD, DWORD) {
  ::swprintf(path, MAX_PATH, L"\\Device\\HarddiskVolume1\\%p", file);
  return static_cast<DWORD>(::wcslen(path));
}

TEST_F(OwnRightsTest, LinkIsRefusedAndLeftAsItIs) {
  std::filesystem::create_directories(path_);
  const PlayedRights played(L"O:SYD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;WD)");
  const test::ImportHook hook(__imp_GetFinalPathNameByHandleW, &LieElsewhere);
  StartLogging("zelservicelog=none\n");  // it is opened in its place, too
  EXPECT_EQ(TakeOverCbtDirectory(path_), kLinkRefused);
  EXPECT_THAT(PlayedRights::set(), IsEmpty());
}

}  // namespace
}  // namespace zel
