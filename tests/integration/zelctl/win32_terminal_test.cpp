// The tool's output on pipes and nowhere. On a console: tests/e2e/test_zelctl_console.py.
#include "zelctl/win32_terminal.h"

#include <gmock/gmock.h>

#include "win32/handles.h"

namespace zel::ctl {
namespace {

// Standard output and standard error are what a test says, until it ends.
class Win32TerminalTest : public testing::Test {
 protected:
  ~Win32TerminalTest() override {
    ::SetStdHandle(STD_OUTPUT_HANDLE, output_);
    ::SetStdHandle(STD_ERROR_HANDLE, errors_);
  }
  static void Redirect(HANDLE handle) {
    ::SetStdHandle(STD_OUTPUT_HANDLE, handle);
    ::SetStdHandle(STD_ERROR_HANDLE, handle);
  }

 private:
  const HANDLE output_ = ::GetStdHandle(STD_OUTPUT_HANDLE);
  const HANDLE errors_ = ::GetStdHandle(STD_ERROR_HANDLE);
};

TEST_F(Win32TerminalTest, PipeGetsUtf8AndNoPerson) {
  HANDLE read_end = nullptr;
  HANDLE write_end = nullptr;
  ASSERT_TRUE(::CreatePipe(&read_end, &write_end, nullptr, 1 << 16));
  const UniqueFile reader(read_end);
  UniqueFile writer(write_end);
  Redirect(writer.get());
  Win32Terminal terminal;
  EXPECT_FALSE(terminal.prints_to_person());
  EXPECT_TRUE(terminal.Print("\xC3\xB6\n"));
  terminal.Note("note");
  char buffer[32];
  DWORD count = 0;
  ASSERT_TRUE(::ReadFile(reader.get(), buffer, sizeof buffer, &count, nullptr));
  EXPECT_EQ(std::string_view(buffer, count), "\xC3\xB6\nnote\n");
  const TextMapLayout layout = terminal.map_layout();
  EXPECT_EQ(layout.columns, 80u);
  EXPECT_EQ(layout.lines, 24u);
}

TEST_F(Win32TerminalTest, ClosedPipeIsTold) {
  HANDLE read_end = nullptr;
  HANDLE write_end = nullptr;
  ASSERT_TRUE(::CreatePipe(&read_end, &write_end, nullptr, 0));
  UniqueFile reader(read_end);
  const UniqueFile writer(write_end);
  Redirect(writer.get());
  Win32Terminal terminal;
  reader.reset();
  EXPECT_FALSE(terminal.Print("nobody reads this"));
}

TEST_F(Win32TerminalTest, ProcessWithoutOutputPrintsNothing) {
  Redirect(nullptr);
  Win32Terminal terminal;
  EXPECT_FALSE(terminal.prints_to_person());
  EXPECT_FALSE(terminal.Print("x"));
  EXPECT_TRUE(terminal.Print(""));
  terminal.Note("x");
}

}  // namespace
}  // namespace zel::ctl
