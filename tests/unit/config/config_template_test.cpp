// The plexor.conf of a new installation, and the table in docs/operations.md, against the keys that
// the code knows.
#include "config/config_parser.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>

namespace zel {
namespace {

std::string ReadText(const char* path) {
  std::ifstream file(path);
  EXPECT_TRUE(file.is_open()) << path;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// The template with its settings taken into use.
std::string WithoutCommentMarks(const std::string& text) {
  std::string settings;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("#zel")) settings += line.substr(1) + "\n";
  }
  return settings;
}

// {key: value as written}, one for each line.
std::multimap<std::string, std::string> Settings(const std::string& text) {
  std::multimap<std::string, std::string> settings;
  std::istringstream lines(WithoutCommentMarks(text));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find(" = ");
    EXPECT_NE(equals, std::string::npos) << line;
    settings.emplace(line.substr(0, equals), line.substr(equals + 3));
  }
  return settings;
}

void ExpectDefaults(const Configuration& configuration) {
  const Configuration defaults;
  EXPECT_EQ(configuration.levels, defaults.levels);
  EXPECT_EQ(configuration.bitmap_idle_timeout, defaults.bitmap_idle_timeout);
  EXPECT_EQ(configuration.sync_timeout, defaults.sync_timeout);
}

TEST(ConfigTemplateTest, SetsNothingAsItStands) {
  for (const char c : ReadText("package/plexor.conf"))
    EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~'));
  std::istringstream lines(ReadText("package/plexor.conf"));
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(line.empty() || line.starts_with('#')) << line;
  }
}

TEST(ConfigTemplateTest, HasEveryKeyOnceAndNoOther) {
  const auto settings = Settings(ReadText("package/plexor.conf"));
  for (const std::string_view key : ConfigurationKeys()) {
    EXPECT_EQ(settings.count(std::string(key)), 1u) << key;
  }
  EXPECT_EQ(settings.size(), ConfigurationKeys().size());
}

TEST(ConfigTemplateTest, ExplainsEveryKeyInTheLineAboveIt) {
  std::istringstream lines(ReadText("package/plexor.conf"));
  std::string before;
  for (std::string line; std::getline(lines, line); before = line) {
    EXPECT_TRUE(!line.starts_with("#zel") || before.starts_with("# ")) << line;
  }
}

TEST(ConfigTemplateTest, WrittenValuesAreTheDefaults) {
  const std::string text = ReadText("package/plexor.conf");
  ExpectDefaults(ParseConfiguration(WithoutCommentMarks(text)));
  // A time-out that could not be read would be the default, too.
  const auto settings = Settings(text);
  const Configuration defaults;
  EXPECT_EQ(settings.find("zelservice:BitmapIdleTimeout")->second,
            std::to_string(defaults.bitmap_idle_timeout));
  EXPECT_EQ(settings.find("zelservice:SyncTimeout")->second, std::to_string(defaults.sync_timeout));
  EXPECT_EQ(settings.find("zelservice:RpcCallers")->second, "any");
}

TEST(ConfigTemplateTest, ManualHasEveryKeyInItsTable) {
  const std::string manual = ReadText("docs/operations.md");
  for (const std::string_view key : ConfigurationKeys()) {
    EXPECT_NE(manual.find("| `" + std::string(key) + "` |"), std::string::npos) << key;
  }
}

}  // namespace
}  // namespace zel
