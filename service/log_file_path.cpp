#include "service/log_file_path.h"
#include "files/layout.h"

namespace zel {

namespace {

// The last index at which the first dot leaves room for "log" behind it.
constexpr std::size_t kLastDot = kMaxPathLength - 4;

std::wstring BesideProgram(std::wstring_view program_path) {
  const std::size_t dot = program_path.find(L'.');
  if (dot <= kLastDot) return std::wstring(program_path.substr(0, dot)) + L".log";
  // One character stays free: a path of exactly kMaxPathLength is not made this way.
  if (program_path.size() + 5 > kMaxPathLength) return L"zelservice.log";
  return std::wstring(program_path) + L".log";
}

}  // namespace

std::wstring DeriveLogFilePath(std::wstring_view install_directory,
                               std::wstring_view program_path) {
  if (install_directory.empty()) return BesideProgram(program_path);
  return (std::wstring(install_directory) + L"\\log\\zelservice.log").substr(0, kMaxPathLength);
}

}  // namespace zel
