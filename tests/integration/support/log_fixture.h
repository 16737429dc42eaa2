// A test's own log: <dir>\log\zelservice.log, configured by <dir>\config\plexor.conf.
//
// The log is process-wide and is set up once in a process: ctest runs every test in its own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/config_file.h"
#include "logging/logging.h"
#include "tests/integration/support/temp_directory.h"

namespace zel::test {

inline constexpr std::string_view kEverythingOn =
    "zelservicelog=trace\nzelservicelog:bitmap=trace\nzelservicelog:drivercomm=trace\n";

struct LogLine {
  std::string level;      // five characters
  std::string thread_id;  // decimal
  std::string message;    // UTF-8, without its line end

  bool operator==(const LogLine&) const = default;
};

// The lines of a log's bytes. A line that does not have the layout fails the test.
std::vector<LogLine> ParseLog(const std::string& bytes);

class LogFixture : public ::testing::Test {
 protected:
  ~LogFixture() override { ShutdownLogging(); }

  std::filesystem::path log_path() const { return dir_.path() / "log" / "zelservice.log"; }
  std::filesystem::path config_path() const { return dir_.path() / "config" / "plexor.conf"; }
  const std::filesystem::path& directory() const { return dir_.path(); }

  // Starts the log with `configuration` as its file.
  void StartLogging(std::string_view configuration = kEverythingOn) {
    WriteFileBytes(config_path(), configuration);
    std::filesystem::create_directories(log_path().parent_path());
    InitLogging(log_path().wstring(), kConfigurationFile);
  }

  // Ends the log and returns what it holds.
  std::vector<LogLine> StopLogging() {
    ShutdownLogging();
    return ParseLog(ReadFileBytes(log_path()));
  }

  // Ends the log and returns its messages, each behind its level: "ERROR text".
  std::vector<std::string> StopLoggingAndGetMessages() {
    std::vector<std::string> messages;
    for (const LogLine& line : StopLogging()) messages.push_back(line.level + " " + line.message);
    return messages;
  }

 private:
  TempDirectory dir_;
};

}  // namespace zel::test
