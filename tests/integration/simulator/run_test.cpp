// driversim run: what the driver hears of a program's file activity, against the files themselves.
#include <algorithm>
#include <set>

#include "tests/integration/support/simulated_driver.h"
#include "tests/integration/support/temp_directory.h"

namespace zel::test {
namespace {

constexpr std::uint64_t kBlock = 4096;
constexpr FileKey kNoFile = {};

FileKey Identify(const std::filesystem::path& path) {
  const UniqueFile file(
      ::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, 7, nullptr, OPEN_EXISTING, 0, nullptr));
  return sim::IdentifyFile(file.get()).value_or(kNoFile);
}

using Blocks = std::set<std::uint64_t>;

// The blocks that a file of `size` bytes had and the messages touch.
Blocks ReportedBlocks(const std::vector<sim::EventMessage>& messages, std::uint64_t size) {
  const std::uint64_t count = (size + kBlock - 1) / kBlock;
  Blocks blocks;
  for (const sim::EventMessage& message : messages) {
    const std::uint64_t first = message.offset_or_size / kBlock;
    std::uint64_t end = 0;
    if (message.type == sim::MessageType::kWrite) {
      end = (message.offset_or_size + message.length + kBlock - 1) / kBlock;
    } else if (message.type == sim::MessageType::kSizeChanged && message.offset_or_size < size) {
      end = count;
    }
    for (std::uint64_t block = first; block < std::min(end, count); ++block) blocks.insert(block);
  }
  return blocks;
}

// The blocks of `before` that are others in `after`.
Blocks ChangedBlocks(const std::string& before, const std::string& after) {
  Blocks blocks;
  for (std::uint64_t at = 0; at < before.size(); at += kBlock) {
    const std::string now = at < after.size() ? after.substr(at, kBlock) : "";
    // A block that was the file's last and short goes on in the file that has grown.
    const std::string old = before.substr(at, kBlock);
    if (now.substr(0, old.size()) != old) blocks.insert(at / kBlock);
  }
  return blocks;
}

class RunTest : public ::testing::Test {
 protected:
  RunTest() { WriteFileBytes(path_, initial_); }

  void Track(const std::filesystem::path& path) {
    key_ = Identify(path);
    WriteTrackedList(key_.volume, {key_.file_id});
    EXPECT_EQ(port_.Send(0), S_OK);
  }

  // Runs a command line under driversim run; its exit code.
  static DWORD Run(const std::wstring& command_line) {
    return ChildProcess(DriverSim() + command_line).WaitForEnd();
  }
  static std::wstring DriverSim() {
    return L"\"" + BesideThisProgram(L"driversim.exe") + L"\" run -- ";
  }
  static std::wstring Worker() { return L"\"" + BesideThisProgram(L"file_worker.exe") + L"\" "; }
  static std::wstring Quoted(const std::filesystem::path& path) {
    return L"\"" + path.wstring() + L"\"";
  }

  // All that the driver has queued until now.
  std::vector<sim::EventMessage> Messages() {
    EXPECT_EQ(port_.Send(1), S_OK);
    std::vector<sim::EventMessage> messages;
    for (;;) {
      const sim::EventMessage message = reader_.Next();
      if (message.type == sim::MessageType::kSync || HasFailure()) return messages;
      EXPECT_EQ(message.file_id, key_.file_id);
      EXPECT_NE(message.process_id, 0u);
      messages.push_back(message);
    }
  }

  // What the driver knows of reads since it was last asked.
  std::string Reads() { return driver_.Tell("reads " + sim::OrderText(key_)); }

  // Offsets and lengths.
  using Ranges = std::vector<std::pair<std::uint64_t, std::uint32_t>>;
  Ranges Writes() {
    Ranges ranges;
    for (const sim::EventMessage& message : Messages()) {
      if (message.type != sim::MessageType::kWrite) continue;
      ranges.emplace_back(message.offset_or_size, message.length);
    }
    return ranges;
  }

  static int Count(const std::vector<sim::EventMessage>& messages, sim::MessageType type) {
    return static_cast<int>(std::ranges::count(messages, type, &sim::EventMessage::type));
  }

  TempDirectory directory_;
  std::filesystem::path path_ = directory_.path() / L"b\u00e4ckup file";
  std::string initial_ = std::string(150'000, '\xFF');
  SimulatedDriver driver_;
  PortClient port_;
  PortReader reader_{port_};
  FileKey key_ = {};
};

class RandomRunTest : public RunTest, public ::testing::WithParamInterface<int> {};

TEST_P(RandomRunTest, ReportedBlocksAreTheChangedBlocks) {
  Track(path_);
  // Every third program works in a child process.
  const std::wstring task = GetParam() % 3 == 0 ? L"child " : L"random ";
  EXPECT_EQ(Run(Worker() + task + std::to_wstring(GetParam()) + L" " + Quoted(path_)), 0u);
  const std::vector<sim::EventMessage> messages = Messages();
  EXPECT_GE(Count(messages, sim::MessageType::kWrite), 20);
  EXPECT_GE(Count(messages, sim::MessageType::kSizeChanged), 1);
  EXPECT_EQ(ReportedBlocks(messages, initial_.size()),
            ChangedBlocks(initial_, ReadFileBytes(path_)));
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomRunTest, ::testing::Range(1, 13));

TEST_F(RunTest, CopyOfTwoFilesIntoATrackedOneIsSeen) {
  const std::filesystem::path a = directory_.path() / "a";
  const std::filesystem::path b = directory_.path() / "b";
  WriteFileBytes(a, std::string(10'000, 'a'));
  WriteFileBytes(b, std::string(10'000, 'b'));
  Track(path_);
  EXPECT_EQ(
      Run(L"cmd /c copy /b /y \"" + a.wstring() + L"\"+\"" + b.wstring() + L"\" " + Quoted(path_)),
      0u);
  EXPECT_EQ(Identify(path_), key_);
  const std::string after = ReadFileBytes(path_);
  EXPECT_EQ(after, std::string(10'000, 'a') + std::string(10'000, 'b'));
  EXPECT_EQ(ReportedBlocks(Messages(), initial_.size()), ChangedBlocks(initial_, after));
}

TEST_F(RunTest, OpensAndClosesAreSeenWithTheirProcess) {
  Track(path_);
  EXPECT_EQ(Run(Worker() + L"overlapped " + Quoted(path_)), 0u);
  const std::vector<sim::EventMessage> messages = Messages();
  ASSERT_GE(messages.size(), 4u);
  EXPECT_EQ(messages.front().type, sim::MessageType::kOpened);
  EXPECT_EQ(messages.back().type, sim::MessageType::kClosed);
  for (const sim::EventMessage& message : messages) {
    EXPECT_EQ(message.process_id, messages.front().process_id);
  }
}

TEST_F(RunTest, OverlappedWriteIsReportedBeforeAndBehindIt) {
  Track(path_);
  EXPECT_EQ(Run(Worker() + L"overlapped " + Quoted(path_)), 0u);
  EXPECT_EQ(Writes(), (Ranges{{5, 3}, {5, 3}, {9, 3}, {9, 3}}));
}

TEST_F(RunTest, GatheredWriteIsSeen) {
  Track(path_);
  EXPECT_EQ(Run(Worker() + L"gather " + Quoted(path_)), 0u);
  EXPECT_EQ(ReadFileBytes(path_).substr(8192, 4096), std::string(4096, '\0'));
  EXPECT_EQ(Writes(), (Ranges{{8192, 4096}, {8192, 4096}}));
}

TEST_F(RunTest, ReadsAreKnownWithTheirPlaces) {
  Track(path_);
  EXPECT_EQ(Run(Worker() + L"read " + Quoted(path_)), 0u);
  EXPECT_EQ(Reads(), "ok 4156 100+30 200+30 8192+4096");
  EXPECT_EQ(Reads(), "ok 0");
}

TEST_F(RunTest, SectionCountsAsAReadOfTheWholeFile) {
  Track(path_);
  EXPECT_EQ(Run(Worker() + L"map " + Quoted(path_)), 0u);
  EXPECT_EQ(Reads(), "ok 150000 0+150000");
}

TEST_F(RunTest, RenameIsSeen) {
  Track(path_);
  const std::filesystem::path renamed = directory_.path() / "renamed";
  EXPECT_EQ(Run(Worker() + L"rename " + Quoted(path_) + L" " + Quoted(renamed)), 0u);
  EXPECT_EQ(Identify(renamed), key_);
  EXPECT_EQ(Count(Messages(), sim::MessageType::kRenamed), 1);
}

TEST_F(RunTest, FileThatIsCreatedAnewIsSeenToBeEmptied) {
  Track(path_);
  EXPECT_EQ(Run(Worker() + L"recreate " + Quoted(path_)), 0u);
  EXPECT_EQ(Identify(path_), key_);
  const std::vector<sim::EventMessage> messages = Messages();
  ASSERT_EQ(Count(messages, sim::MessageType::kSizeChanged), 1);
  EXPECT_EQ(ReportedBlocks(messages, initial_.size()).size(), 37u);
}

TEST_F(RunTest, WritableSectionMarksTheFile) {
  Track(path_);
  EXPECT_EQ(Run(Worker() + L"map " + Quoted(path_)), 0u);
  EXPECT_EQ(ReadFileBytes(path_).front(), 'm');
  const std::vector<sim::EventMessage> messages = Messages();
  EXPECT_EQ(std::ranges::count(messages, 1, &sim::EventMessage::unreported_changes), 1);
}

TEST_F(RunTest, ExitCodeIsTheProgramsOwn) {
  EXPECT_EQ(Run(L"cmd /c exit 42"), 42u);
  EXPECT_EQ(Run(Worker() + L"map C:\\no\\such\\file"), 10u);
}

TEST_F(RunTest, ProgramThatDoesNotExistCannotRun) {
  EXPECT_EQ(Run(L"no_such_program"), 3u);
}

TEST_F(RunTest, RunEndsBadlyWithoutADriver) {
  driver_.Stop();
  EXPECT_EQ(Run(L"cmd /c exit 0"), 3u);
}

TEST_F(RunTest, ProgramThatLosesTheDriverIsEndedBeforeItGoesOn) {
  const UniqueEvent waits(::CreateEventW(nullptr, TRUE, FALSE, L"zel_file_worker_waits"));
  const UniqueEvent goes_on(::CreateEventW(nullptr, TRUE, FALSE, L"zel_file_worker_goes_on"));
  const ChildProcess run(DriverSim() + Worker() + L"late " + Quoted(path_));
  ASSERT_EQ(::WaitForSingleObject(waits.get(), 20'000), WAIT_OBJECT_0);
  driver_.Kill();
  ::SetEvent(goes_on.get());
  EXPECT_EQ(run.WaitForEnd(), 3u);
}

TEST_F(RunTest, RunSaysSoWhenTheDriverWentThoughTheProgramDidNotNotice) {
  // As a program that ignores how its children end: cmd /c worker & exit 0.
  const UniqueEvent waits(::CreateEventW(nullptr, TRUE, FALSE, L"zel_file_worker_waits"));
  const UniqueEvent goes_on(::CreateEventW(nullptr, TRUE, FALSE, L"zel_file_worker_goes_on"));
  const ChildProcess run(DriverSim() + L"cmd /c \"" + Worker() + L"late " + Quoted(path_) +
                         L" & exit 0\"");
  ASSERT_EQ(::WaitForSingleObject(waits.get(), 20'000), WAIT_OBJECT_0);
  driver_.Kill();
  ::SetEvent(goes_on.get());
  EXPECT_EQ(run.WaitForEnd(), 3u);
}

}  // namespace
}  // namespace zel::test
