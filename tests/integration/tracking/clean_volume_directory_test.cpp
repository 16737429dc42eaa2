#include "tracking/clean_volume_directory.h"

#include "files/layout.h"
#include "tests/integration/support/cleanup_fixture.h"
#include "tests/integration/support/held_file.h"

extern "C" {
extern void* __imp_GetFileAttributesW;
extern void* __imp_RemoveDirectoryW;
}

namespace zel {
namespace {

namespace fs = std::filesystem;

using test::AtFirst;
using test::kFirstVolume;
using test::kFirstVolumeText;
using test::kSecondVolume;
using test::kSecondVolumeText;
using test::kTracked;
using test::kTrackedName;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class CleanVolumeDirectoryTest : public test::CleanupFixture {};

TEST_F(CleanVolumeDirectoryTest, DeletesTheDirectoriesOfUntrackedFilesAndKeepsTheOthers) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  Track(L"D:\\b", kSecondVolume, 0x18);
  const fs::path tracked = AddDirectory(kFirstVolumeText, kTrackedName);
  const fs::path untracked = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  const fs::path of_other_volume = AddDirectory(kFirstVolumeText, L"0000000000000018");
  StartLogging();
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::exists(tracked / L"bitmap"));
  EXPECT_FALSE(fs::exists(untracked));
  EXPECT_FALSE(fs::exists(of_other_volume));
  const std::string begin =
      "DEBUG Cleaning up directory for untracked Volume "
      "00000001-89ab-cdef-0123-456789abcdef, FileId ";
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      UnorderedElementsAre(begin + "0x00000000000000ab", begin + "0x0000000000000018",
                           "DEBUG Deleted bitmap " + (untracked / L"bitmap").string(),
                           "DEBUG Deleted bitmap " + (of_other_volume / L"bitmap").string()));
}

TEST_F(CleanVolumeDirectoryTest, PathsAreNotCompared) {
  Track(L"C:\\moved", kFirstVolume, kTracked);
  Track(L"C:\\linked", kFirstVolume, kTracked);
  StopTrackingFile(L"C:\\moved");
  const fs::path tracked = AddDirectory(kFirstVolumeText, kTrackedName);
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::exists(tracked));
}

TEST_F(CleanVolumeDirectoryTest, NamesThatAreNoFileIdsStay) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const wchar_t* const names[] = {L"00100000000000a",  L"0001000000000000a", L"0000000000000000",
                                  L"FFFFFFFFFFFFFFFF", L"ffffffffffffffff",  L"is not a file id"};
  for (const wchar_t* name : names) (void)AddDirectory(kFirstVolumeText, name);
  CleanVolumeDirectory(kFirstVolume);
  for (const wchar_t* name : names) {
    EXPECT_TRUE(fs::exists(cbt() / kFirstVolumeText / name / L"bitmap")) << fs::path(name);
  }
}

// Plays a link to a directory: whatever is listed, opened or deleted below it is the target's.
class DirectoryLink {
 public:
  explicit DirectoryLink(const fs::path& path) { path_ = path.wstring(); }
  [[nodiscard]] static bool was_removed() { return was_removed_; }

 private:
  static DWORD WINAPI Attributes(const wchar_t* path) {
    if (path == path_) return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    return real_attributes_(path);
  }
  static BOOL WINAPI Remove(const wchar_t* path) {
    if (path != path_) return real_remove_(path);
    was_removed_ = true;
    return TRUE;
  }

  static inline std::wstring path_;
  static inline bool was_removed_ = false;
  static inline auto* const real_attributes_ =
      reinterpret_cast<decltype(&::GetFileAttributesW)>(__imp_GetFileAttributesW);
  static inline auto* const real_remove_ =
      reinterpret_cast<decltype(&::RemoveDirectoryW)>(__imp_RemoveDirectoryW);
  test::ImportHook attributes_{__imp_GetFileAttributesW, &Attributes};
  test::ImportHook remove_{__imp_RemoveDirectoryW, &Remove};
};

TEST_F(CleanVolumeDirectoryTest, LinkForAFilesDirectoryGoesAndNothingBehindIt) {
  const fs::path link = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  const DirectoryLink played(link);
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(DirectoryLink::was_removed());
  EXPECT_TRUE(fs::exists(link / L"bitmap"));
}

TEST_F(CleanVolumeDirectoryTest, LinkFurtherDownGoesAndNothingBehindIt) {
  const fs::path link = AddDirectory(kFirstVolumeText, L"00000000000000ab") / L"x";
  test::WriteFileBytes(link / L"theirs", "text");
  const DirectoryLink played(link);
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(DirectoryLink::was_removed());
  EXPECT_TRUE(fs::exists(link / L"theirs"));
}

TEST_F(CleanVolumeDirectoryTest, LinkForAVolumesDirectoryGoesAndNothingBehindIt) {
  const fs::path theirs = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  const DirectoryLink played(cbt() / kFirstVolumeText);
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(DirectoryLink::was_removed());
  EXPECT_TRUE(fs::exists(theirs / L"bitmap"));
}

TEST_F(CleanVolumeDirectoryTest, LinkForTheDirectoryOfATrackedFileStays) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const DirectoryLink played(AddDirectory(kFirstVolumeText, kTrackedName));
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_FALSE(DirectoryLink::was_removed());
}

TEST_F(CleanVolumeDirectoryTest, PlainFilesStay) {
  const fs::path file = cbt() / kFirstVolumeText / L"00000000000000ab";
  test::WriteFileBytes(file, "bits");
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(CleanVolumeDirectoryTest, VolumeWithoutTrackedFilesLosesItsDirectory) {
  (void)AddDirectory(kFirstVolumeText, L"00000000000000ab");
  (void)AddDirectory(kSecondVolumeText, L"00000000000000ab");
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_FALSE(fs::exists(cbt() / kFirstVolumeText));
  EXPECT_TRUE(fs::exists(cbt() / kSecondVolumeText / L"00000000000000ab"));
}

TEST_F(CleanVolumeDirectoryTest, EmptyDirectoryOfAVolumeWithTrackedFilesStays) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  (void)AddDirectory(kFirstVolumeText, L"00000000000000ab");
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::is_empty(cbt() / kFirstVolumeText));
}

TEST_F(CleanVolumeDirectoryTest, MissingDirectoryIsNoFault) {
  StartLogging();
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(CleanVolumeDirectoryTest, FileThatIsHeldOpenStaysAndTheRestGoes) {
  const fs::path untracked = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  test::WriteFileBytes(untracked / L"held", "bits");
  {
    const UniqueFile holder = test::HoldFile(untracked / L"held", GENERIC_READ, FILE_SHARE_READ);
    CleanVolumeDirectory(kFirstVolume);
    EXPECT_TRUE(fs::exists(untracked / L"held"));
    EXPECT_FALSE(fs::exists(untracked / L"bitmap"));
  }
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_FALSE(fs::exists(cbt() / kFirstVolumeText));
}

TEST_F(CleanVolumeDirectoryTest, MarkBesideABitmapGoesWithIt) {
  const fs::path untracked = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  fs::create_directory(MissedMarkPath((untracked / L"bitmap").wstring()));
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_FALSE(fs::exists(untracked));
}

TEST_F(CleanVolumeDirectoryTest, TreeGoesWithEverythingInIt) {
  const fs::path tree = cbt() / L"tree";
  test::WriteFileBytes(tree / L"a" / L"b" / L"c", "");
  test::WriteFileBytes(tree / L"a" / L"d", "");
  fs::create_directories(tree / L"e");
  StartLogging();
  const auto may_delete = [] { return true; };
  EXPECT_TRUE(DeleteDirectoryTree(tree.wstring(), may_delete));
  EXPECT_FALSE(fs::exists(tree));
  EXPECT_TRUE(DeleteDirectoryTree(tree.wstring(), may_delete));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              UnorderedElementsAre("DEBUG Deleted bitmap " + (tree / L"a" / L"b" / L"c").string(),
                                   "DEBUG Deleted bitmap " + (tree / L"a" / L"d").string()));
}

TEST_F(CleanVolumeDirectoryTest, TreeIsAskedForBeforeEachDeletionAndLeftWhenItMayNotGo) {
  for (int allowed = 0; allowed < 5; ++allowed) {
    const fs::path tree = cbt() / L"tree";
    test::WriteFileBytes(tree / L"a" / L"b", "");
    test::WriteFileBytes(tree / L"c", "");
    int left = allowed;
    const bool is_gone = DeleteDirectoryTree(tree.wstring(), [&] { return left-- > 0; });
    EXPECT_EQ(is_gone, allowed == 4);  // two files and two directories
    const auto entries =
        fs::exists(tree) ? std::distance(fs::recursive_directory_iterator(tree), {}) + 1 : 0;
    EXPECT_EQ(entries, 4 - allowed);
    fs::remove_all(tree);
  }
}

TEST_F(CleanVolumeDirectoryTest, FileThatBecomesTrackedDuringThePassKeepsItsNewBitmap) {
  const fs::path path = AddDirectory(kFirstVolumeText, kTrackedName);
  const AtFirst hook(AtFirst::Call::kList, path.wstring(), [&] {
    Track(L"C:\\a", kFirstVolume, kTracked);
    test::WriteFileBytes(path / L"new", "bits");
  });
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::exists(path / L"new"));
}

TEST_F(CleanVolumeDirectoryTest, FileThatBecomesTrackedBetweenTwoDeletionsKeepsTheRest) {
  const fs::path path = AddDirectory(kFirstVolumeText, kTrackedName);
  test::WriteFileBytes(path / L"other", "bits");
  const AtFirst hook(AtFirst::Call::kDelete, path.wstring(),
                     [&] { Track(L"C:\\a", kFirstVolume, kTracked); });
  CleanVolumeDirectory(kFirstVolume);
  // The call that was under way could not be called back.
  EXPECT_EQ(std::distance(fs::directory_iterator(path), {}), 1);
}

TEST_F(CleanVolumeDirectoryTest, EmptiedDirectoryOfAFileThatBecomesTrackedStays) {
  const fs::path path = AddDirectory(kFirstVolumeText, kTrackedName);
  const AtFirst hook(AtFirst::Call::kDelete, path.wstring(),
                     [&] { Track(L"C:\\a", kFirstVolume, kTracked); });
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::exists(path));
}

}  // namespace
}  // namespace zel
