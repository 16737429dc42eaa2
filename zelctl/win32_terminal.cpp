#include "zelctl/win32_terminal.h"

#include <algorithm>
#include <array>
#include <string>

#include "zelctl/wide_text.h"

namespace zel::ctl {

namespace {

constexpr std::size_t kLargestPiece = 8192;  // a console refuses large ones

bool WriteToConsole(HANDLE console, std::wstring_view text) {
  while (!text.empty()) {
    DWORD written = 0;
    const auto count = static_cast<DWORD>(std::min(text.size(), kLargestPiece));
    if (!::WriteConsoleW(console, text.data(), count, &written, nullptr) || written == 0) {
      return false;
    }
    text.remove_prefix(written);
  }
  return true;
}

bool WriteBytes(HANDLE file, std::string_view bytes) {
  while (!bytes.empty()) {
    DWORD written = 0;
    const auto count = static_cast<DWORD>(std::min(bytes.size(), kLargestPiece));
    if (!::WriteFile(file, bytes.data(), count, &written, nullptr) || written == 0) return false;
    bytes.remove_prefix(written);
  }
  return true;
}

// A line without its end, cut to what anybody types as an answer; empty where none can be had.
std::wstring ReadLineFrom(HANDLE console) {
  std::array<wchar_t, 80> text;
  DWORD read = 0;
  if (!::ReadConsoleW(console, text.data(), static_cast<DWORD>(text.size()), &read, nullptr)) {
    return {};
  }
  const std::wstring_view line(text.data(), read);
  return std::wstring(line.substr(0, line.find_first_of(L"\r\n")));
}

}  // namespace

Win32Terminal::Win32Terminal()
    : input_(OpenStream(STD_INPUT_HANDLE)),
      output_(OpenStream(STD_OUTPUT_HANDLE)),
      errors_(OpenStream(STD_ERROR_HANDLE)) {}

Win32Terminal::Stream Win32Terminal::OpenStream(DWORD which) {
  const HANDLE handle = ::GetStdHandle(which);
  DWORD mode = 0;
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return {nullptr, false};
  return {handle, ::GetConsoleMode(handle, &mode) != 0};
}

bool Win32Terminal::Write(const Stream& stream, std::string_view text) {
  if (text.empty()) return true;
  if (stream.handle == nullptr) return false;
  return stream.is_console ? WriteToConsole(stream.handle, ToWide(text))
                           : WriteBytes(stream.handle, text);
}

bool Win32Terminal::Print(std::string_view text) {
  return Write(output_, text);
}

void Win32Terminal::Note(std::string_view line) {
  // Nobody is left to be told when this fails.
  (void)Write(errors_, std::string(line) + "\n");
}

void Win32Terminal::DrawProgress(std::string_view line) {
  const std::size_t fill = drawn_ > line.size() ? drawn_ - line.size() : 0;
  std::string text = "\r" + std::string(line) + std::string(fill, ' ');
  if (line.empty()) text += "\r";
  drawn_ = line.size();
  (void)Write(errors_, text);
}

std::optional<bool> Win32Terminal::Ask(std::string_view question) {
  if (!input_.is_console || !errors_.is_console) return std::nullopt;
  (void)Write(errors_, std::string(question) + " [y/N] ");
  const std::wstring answer = ReadLineFrom(input_.handle);
  return answer == L"y" || answer == L"Y" || answer == L"yes";
}

TextMapLayout Win32Terminal::map_layout() const {
  TextMapLayout layout;
  layout.ascii = !output_.is_console && ::GetConsoleOutputCP() != CP_UTF8;
  CONSOLE_SCREEN_BUFFER_INFO screen;
  if (output_.is_console && ::GetConsoleScreenBufferInfo(output_.handle, &screen)) {
    // A line that fills the last column would be followed by an empty one.
    layout.columns = static_cast<std::size_t>(screen.srWindow.Right - screen.srWindow.Left);
    layout.lines = static_cast<std::size_t>(screen.srWindow.Bottom - screen.srWindow.Top + 1);
  }
  return layout;
}

}  // namespace zel::ctl
