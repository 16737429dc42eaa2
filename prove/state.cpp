#include "prove/state.h"

namespace zel::prove {

namespace {

constexpr std::string_view kFirstLine = "state of the proving kit, 1";
constexpr std::string_view kFolder = "folder ";
constexpr std::string_view kService = "service ";
constexpr std::string_view kInstallDirectory = "install directory";
constexpr std::string_view kLastLine = "end";

void AddLine(std::string& text, std::string_view word, std::string_view value = {}) {
  text.append(word).append(value).push_back('\n');
}

// The next line without its end; nothing when there is no whole one.
std::optional<std::string_view> TakeLine(std::string_view& text) {
  const std::size_t end = text.find('\n');
  if (end == text.npos) return std::nullopt;
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end + 1);
  return line;
}

bool TakeEntry(std::string_view line, State& state) {
  if (line.starts_with(kService) && line.size() > kService.size()) {
    state.services.emplace_back(line.substr(kService.size()));
    return true;
  }
  if (line != kInstallDirectory || state.install_directory) return false;
  state.install_directory = true;
  return true;
}

wchar_t Folded(wchar_t letter) {
  return letter >= L'A' && letter <= L'Z' ? static_cast<wchar_t>(letter - L'A' + L'a') : letter;
}

}  // namespace

std::string FormatState(const State& state) {
  std::string text;
  AddLine(text, kFirstLine);
  AddLine(text, kFolder, state.folder);
  for (const std::string& service : state.services) AddLine(text, kService, service);
  if (state.install_directory) AddLine(text, kInstallDirectory);
  AddLine(text, kLastLine);
  return text;
}

std::optional<State> ParseState(std::string_view text) {
  if (TakeLine(text) != kFirstLine) return std::nullopt;
  const std::optional<std::string_view> folder = TakeLine(text);
  if (!folder || !folder->starts_with(kFolder) || folder->size() == kFolder.size()) {
    return std::nullopt;
  }
  State state = {std::string(folder->substr(kFolder.size())), {}, false};
  for (;;) {
    const std::optional<std::string_view> line = TakeLine(text);
    if (!line) return std::nullopt;
    if (*line == kLastLine) break;
    if (!TakeEntry(*line, state)) return std::nullopt;
  }
  if (!text.empty()) return std::nullopt;
  return state;
}

bool RunsFrom(std::wstring_view command_line, std::wstring_view folder) {
  if (command_line.starts_with(L'"')) command_line.remove_prefix(1);
  return LiesIn(command_line.substr(0, command_line.find(L'"')), folder);
}

bool LiesIn(std::wstring_view path, std::wstring_view folder) {
  if (folder.empty() || path.size() < folder.size()) return false;
  for (std::size_t i = 0; i < folder.size(); ++i) {
    if (Folded(path[i]) != Folded(folder[i])) return false;
  }
  return path.size() == folder.size() || path[folder.size()] == L'\\';
}

}  // namespace zel::prove
