#include "simulator/simhook/reporter.h"

#include <windows.h>

#include <algorithm>
#include <optional>
#include <string>

#include "simulator/control_client.h"
#include "simulator/file_identity.h"
#include "simulator/run.h"
#include "win32/last_error.h"

namespace zel::sim {

namespace {

// Never closed: files are closed until the process has ended.
ControlClient* driver = nullptr;

void Report(const char* what, const FileKey& file, const std::string& numbers) {
  const LastErrorKeeper keeper;
  const std::optional<std::string> answer =
      driver->Tell(std::string(what) + " " + OrderText(file) + numbers);
  if (answer && answer->starts_with("ok")) return;
  ::TerminateProcess(::GetCurrentProcess(), kReportsLost);
}

std::string Number(std::uint64_t number) {
  return " " + std::to_string(number);
}

std::string Process() {
  return Number(::GetCurrentProcessId());
}

void ReportRange(const char* what, const FileKey& file, std::uint64_t offset, std::uint64_t length,
                 const std::string& more) {
  constexpr std::uint64_t kMostInOneMessage = UINT32_MAX;
  while (length != 0) {
    const std::uint64_t part = std::min(length, kMostInOneMessage);
    Report(what, file, Number(offset) + Number(part) + more);
    offset += part;
    length -= part;
  }
}

}  // namespace

bool StartReporting() {
  driver = new ControlClient;
  return driver->connected();
}

void ReportOpen(const FileKey& file) {
  Report("open", file, Process());
}

void ReportClose(const FileKey& file) {
  Report("close", file, Process());
}

void ReportRename(const FileKey& file) {
  Report("rename", file, Process());
}

void ReportRead(const FileKey& file, std::uint64_t offset, std::uint64_t length) {
  ReportRange("read", file, offset, length, "");
}

void ReportWrite(const FileKey& file, std::uint64_t offset, std::uint64_t length) {
  ReportRange("write", file, offset, length, Process());
}

void ReportSize(const FileKey& file, std::uint64_t size) {
  Report("size", file, Number(size) + Process());
}

void ReportUnreported(const FileKey& file) {
  Report("unreported", file, "");
}

}  // namespace zel::sim
