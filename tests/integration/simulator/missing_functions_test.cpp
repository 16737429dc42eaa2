// What the user library puts into a program that imports it: this one.
#include "files/file_identity.h"
#include "simulator/file_identity.h"
#include "tests/integration/support/simulated_driver.h"
#include "tests/integration/support/temp_directory.h"

namespace zel::test {
namespace {

constexpr DWORD kVerify = 0x000937CF;

// A program gets the library by importing from it.
const auto kImportsTheLibrary [[maybe_unused]] = &::FilterGetMessage;

UniqueFile Open(const std::filesystem::path& path) {
  return UniqueFile(::CreateFileW(path.c_str(), SYNCHRONIZE | FILE_READ_ATTRIBUTES, 7, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

BOOL Control(const UniqueFile& file, DWORD code) {
  DWORD returned = 77;
  return ::DeviceIoControl(file.get(), code, nullptr, 0, nullptr, 0, &returned, nullptr);
}

class MissingFunctionsTest : public ::testing::Test {
 protected:
  MissingFunctionsTest() { WriteFileBytes(path_, "data"); }

  FileKey Key() const {
    FileKey key = {};
    EXPECT_EQ(GetFileIdAndSize(path_.c_str(), &key.file_id, nullptr), 0u);
    EXPECT_EQ(GetVolumeGuidForPath(path_.c_str(), key.volume), 0u);
    return key;
  }

  TempDirectory directory_;
  std::filesystem::path path_ = directory_.path() / L"dat\u00e9i";
};

TEST_F(MissingFunctionsTest, VolumeNameNamesItself) {
  wchar_t name[64] = {};
  ASSERT_TRUE(::GetVolumeNameForVolumeMountPointW(L"C:\\", name, 64));
  wchar_t again[64] = {};
  EXPECT_TRUE(::GetVolumeNameForVolumeMountPointW(name, again, 64));
  EXPECT_STREQ(again, name);
}

TEST_F(MissingFunctionsTest, VolumeNameNeedsRoom) {
  wchar_t name[64] = {};
  ASSERT_TRUE(::GetVolumeNameForVolumeMountPointW(L"C:\\", name, 64));
  wchar_t small[49];
  EXPECT_FALSE(::GetVolumeNameForVolumeMountPointW(name, small, 49));
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_FILENAME_EXCED_RANGE));
}

TEST_F(MissingFunctionsTest, VolumeThatDoesNotExistHasNoName) {
  wchar_t name[64];
  EXPECT_FALSE(::GetVolumeNameForVolumeMountPointW(
      LR"(\\?\Volume{12345678-1234-1234-1234-123456789abc}\)", name, 64));
  EXPECT_NE(::GetLastError(), 0u);
}

TEST_F(MissingFunctionsTest, HandleAndPathNameTheSameFile) {
  EXPECT_EQ(sim::IdentifyFile(Open(path_).get()), Key());
  EXPECT_FALSE(sim::IdentifyFile(Open(directory_.path()).get()));
  const UniqueEvent no_file(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  EXPECT_FALSE(sim::IdentifyFile(no_file.get()));
}

TEST_F(MissingFunctionsTest, VerifyCodeOnATrackedFileQueuesAVerifyMessage) {
  SimulatedDriver driver;
  const FileKey key = Key();
  WriteTrackedList(key.volume, {key.file_id});
  const PortClient port;
  ASSERT_EQ(port.Send(0), S_OK);
  EXPECT_TRUE(Control(Open(path_), kVerify));
  PortReader reader(port);
  const sim::EventMessage message = reader.Next();
  EXPECT_EQ(message.type, sim::MessageType::kVerify);
  EXPECT_EQ(message.file_id, key.file_id);
  EXPECT_EQ(message.volume, key.volume);
  EXPECT_EQ(message.process_id, ::GetCurrentProcessId());
}

TEST_F(MissingFunctionsTest, VerifyCodeOnAnotherFileSucceedsAndQueuesNothing) {
  SimulatedDriver driver;
  EXPECT_TRUE(Control(Open(path_), kVerify));
  EXPECT_EQ(driver.Counter("untracked"), 1u);
  EXPECT_EQ(driver.Counter("queued"), 0u);
}

TEST_F(MissingFunctionsTest, WithoutADriverTheVerifyCodeIsUnknownToTheFileSystem) {
  EXPECT_FALSE(Control(Open(path_), kVerify));
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
}

TEST_F(MissingFunctionsTest, OtherCodesGoToTheSystem) {
  SimulatedDriver driver;
  EXPECT_FALSE(Control(Open(path_), kVerify + 4));
  EXPECT_EQ(driver.Counter("untracked"), 0u);
}

}  // namespace
}  // namespace zel::test
