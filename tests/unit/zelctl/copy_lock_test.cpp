// Keeping other runs away from a copy, also in the moment before there is a lock.
#include "zelctl/copies/copy_lock.h"

#include <gtest/gtest.h>

#include "tests/unit/support/memory_files.h"

namespace zel::ctl {
namespace {

constexpr char kCopy[] = "D:\\copy";

// Where others put files in place while somebody takes a lock.
class BusyMachine : public test::MemoryMachine {
 public:
  std::uint32_t Lock(const std::string& path, std::unique_ptr<HeldLock>& lock) override {
    if (!appearing.empty()) {
      files[kCopy] = appearing.back();
      appearing.pop_back();
    }
    return MemoryMachine::Lock(path, lock);
  }
  std::uint32_t OpenTarget(const std::string& path, std::unique_ptr<TargetFile>& file) override {
    const std::uint32_t code = MemoryMachine::OpenTarget(path, file);
    if (put_back) files[kCopy] = put_back;
    return code;
  }
  std::shared_ptr<test::MemoryFile> NewFile(FileId id) {
    return std::make_shared<test::MemoryFile>(test::MemoryFile{.bytes = {}, .id = id});
  }

  std::vector<std::shared_ptr<test::MemoryFile>> appearing;  // the last one first
  std::shared_ptr<test::MemoryFile> put_back;                // once the other was opened
};

class CopyLockTest : public testing::Test {
 protected:
  // The reason, or nothing.
  std::string_view Take() {
    const MaybeFailure failure = lock.Take();
    return failure ? ReasonWord(failure->reason) : "";
  }

  BusyMachine machine;
  const CopyPlace place{machine, kCopy};
  CopyLock lock{machine, place};
};

TEST_F(CopyLockTest, NameIsLockedWhereThereIsNoCopy) {
  EXPECT_EQ(Take(), "");
  EXPECT_EQ(lock.file(), nullptr);
  EXPECT_EQ(lock.identity(), FileIdentity{});
  EXPECT_TRUE(machine.locks.contains(place.lock({})));
  CopyLock another(machine, place);
  EXPECT_EQ(another.Take()->reason, Reason::kBusy);
}

TEST_F(CopyLockTest, FileThatAppearsMeanwhileIsTheOneThatIsLocked) {
  machine.appearing = {machine.NewFile(7)};
  EXPECT_EQ(Take(), "");
  ASSERT_NE(lock.file(), nullptr);
  EXPECT_EQ(lock.identity().file_id, 7u);
  EXPECT_EQ(machine.locks.size(), 1u);
  EXPECT_TRUE(machine.locks.contains(place.lock(lock.identity())));
}

TEST_F(CopyLockTest, FileThatIsReplacedMeanwhileAndPutBackIsLocked) {
  machine.files[kCopy] = machine.NewFile(7);
  machine.put_back = machine.files[kCopy];
  machine.appearing = {machine.NewFile(8)};
  ASSERT_EQ(Take(), "");
  EXPECT_EQ(lock.identity().file_id, 7u);
  FileIdentity opened;
  EXPECT_EQ(lock.file()->Identify(opened), 0u);
  EXPECT_EQ(opened, lock.identity());
}

TEST_F(CopyLockTest, FileThatIsReplacedAgainAndAgainIsBusy) {
  for (FileId id = 20; id > 10; --id) machine.appearing.push_back(machine.NewFile(id));
  EXPECT_EQ(Take(), "busy");
}

TEST_F(CopyLockTest, FileWithoutAnIdIsRefused) {
  machine.files[kCopy] = machine.NewFile(0);
  EXPECT_EQ(Take(), "identity");
}

}  // namespace
}  // namespace zel::ctl
