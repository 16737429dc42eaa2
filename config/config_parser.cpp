#include "config/config_parser.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace zel {

namespace {

constexpr char FoldCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, {}, FoldCase, FoldCase);
}

std::string_view TrimBlanksAndTabs(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// A leading decimal number, 0 without one, the nearest limit beyond 64 bits. 0 and -1 stand for
// the default.
std::int64_t ParseTimeout(std::string_view value, std::int64_t default_seconds) {
  const long long seconds = std::strtoll(std::string(value).c_str(), nullptr, 10);
  return seconds == 0 || seconds == -1 ? default_seconds : seconds;
}

template <LogCategory kCategory>
void ApplyLevel(std::string_view value, Configuration& configuration) {
  configuration.levels[kCategory] = ParseLevelWord(value);
}

struct Setting {
  std::string_view key;
  void (*apply)(std::string_view value, Configuration& configuration);
};

constexpr std::array kSettings = {
    Setting{"zelservicelog", ApplyLevel<kGeneral>},
    Setting{"zelservicelog:bitmap", ApplyLevel<kBitmap>},
    Setting{"zelservicelog:drivercomm", ApplyLevel<kDriverComm>},
    Setting{"zelservice:BitmapIdleTimeout",
            [](std::string_view value, Configuration& configuration) {
              configuration.bitmap_idle_timeout = ParseTimeout(value, kDefaultBitmapIdleTimeout);
            }},
    Setting{"zelservice:SyncTimeout",
            [](std::string_view value, Configuration& configuration) {
              configuration.sync_timeout = ParseTimeout(value, kDefaultSyncTimeout);
            }},
    Setting{"zelservice:RpcCallers",
            [](std::string_view value, Configuration& configuration) {
              configuration.rpc_callers = ParseCallerPolicy(value);
            }},
};

void ApplySetting(std::string_view key, std::string_view value, Configuration& configuration) {
  for (const Setting& setting : kSettings) {
    if (EqualsIgnoringCase(key, setting.key)) setting.apply(value, configuration);
  }
}

void ApplyLine(std::string_view line, Configuration& configuration) {
  line = TrimBlanksAndTabs(line);
  if (line.starts_with('#')) return;
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) return;
  ApplySetting(TrimBlanksAndTabs(line.substr(0, equals)),
               TrimBlanksAndTabs(line.substr(equals + 1)), configuration);
}

}  // namespace

std::vector<std::string_view> ConfigurationKeys() {
  std::vector<std::string_view> keys;
  for (const Setting& setting : kSettings) keys.push_back(setting.key);
  return keys;
}

LevelThreshold ParseLevelWord(std::string_view word) {
  constexpr std::array<std::string_view, kLogLevels> kWords = {"trace", "debug", "info", "warn",
                                                               "error"};
  for (int level = 0; level < kLogLevels; ++level) {
    if (EqualsIgnoringCase(word, kWords[static_cast<std::size_t>(level)])) return level;
  }
  return kSilent;
}

CallerPolicy ParseCallerPolicy(std::string_view word) {
  if (EqualsIgnoringCase(word, "any")) return CallerPolicy::kAny;
  if (EqualsIgnoringCase(word, "local")) return CallerPolicy::kLocal;
  return CallerPolicy::kAdministrators;
}

const wchar_t* WordOf(CallerPolicy policy) {
  constexpr const wchar_t* kWords[] = {L"any", L"local", L"administrators"};
  return kWords[static_cast<std::size_t>(policy)];
}

Configuration ParseConfiguration(std::string_view text) {
  Configuration configuration;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    ApplyLine(text.substr(0, end), configuration);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return configuration;
}

std::uint32_t ComputeLogEnableMask(const std::array<LevelThreshold, kLogCategories>& levels) {
  std::uint32_t mask = 0;
  for (int category = 0; category < kLogCategories; ++category) {
    for (int level = levels[static_cast<std::size_t>(category)]; level < kLogLevels; ++level) {
      mask |= 1u << (category * kLogLevels + level);
    }
  }
  return mask;
}

ConfigPaths DeriveConfigPaths(std::wstring_view log_path) {
  ConfigPaths paths{.directory = {}, .file = std::wstring(log_path)};
  const std::size_t file_separator = log_path.rfind(L'\\');
  if (file_separator == std::wstring_view::npos) return paths;
  const std::wstring_view log_directory = log_path.substr(0, file_separator);
  const std::size_t directory_separator = log_directory.rfind(L'\\');
  if (directory_separator == std::wstring_view::npos) return paths;
  paths.directory = std::wstring(log_directory.substr(0, directory_separator)) + L"\\config";
  paths.file = paths.directory + L"\\plexor.conf";
  return paths;
}

}  // namespace zel
