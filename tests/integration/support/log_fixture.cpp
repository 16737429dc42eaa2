#include "tests/integration/support/log_fixture.h"

#include <regex>

namespace zel::test {

std::vector<LogLine> ParseLog(const std::string& bytes) {
  static const std::regex kLayout(
      R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) (TRACE|DEBUG|INFO |WARN |ERROR) \[(\d+)\] (.*))");
  std::vector<LogLine> lines;
  for (std::size_t begin = 0; begin < bytes.size();) {
    const std::size_t end = bytes.find("\r\n", begin);
    std::smatch fields;
    const std::string line = bytes.substr(begin, end - begin);
    EXPECT_TRUE(end != std::string::npos && std::regex_match(line, fields, kLayout))
        << "not a log line: " << line.substr(0, 200);
    if (end == std::string::npos || fields.empty()) return lines;
    lines.push_back({fields[2], fields[3], fields[4]});
    begin = end + 2;
  }
  return lines;
}

}  // namespace zel::test
