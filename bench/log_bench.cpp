// The cost of a log call: switched off, and written by one and by four threads.
#include <share.h>
#include <windows.h>

#include <filesystem>
#include <string>

#include "bench/bench.h"
#include "config/config_file.h"
#include "logging/log_message.h"
#include "logging/logging.h"
#include "win32/critical_section.h"

namespace zel::bench {
namespace {

volatile std::uint32_t reference_mask = 0;

// A loop with one volatile load and one branch.
bool DisabledCall() {
  constexpr std::uint32_t kCalls = 200'000'000;
  const double disabled = BestSeconds(5, [] {
    for (std::uint32_t i = 0; i < kCalls; ++i) LogMessage(kGeneralTrace, L"off %u\n", i);
  });
  const double reference = BestSeconds(5, [] {
    for (std::uint32_t i = 0; i < kCalls; ++i) {
      if ((reference_mask & 1) != 0) std::printf("never %u\n", i);
    }
  });
  return Report("disabled log call", disabled / kCalls * 1e9, reference / kCalls * 1e9, "ns",
                Bound::kAtMost, 1.5);
}

constexpr int kLines = 200'000;  // over all threads

void LogLines(int lines) {
  for (int i = 0; i < lines; ++i) {
    LogMessage(kDriverCommDebug,
               L"FileId 0x%016I64x write at offset %I64u length %u; %u bitmaps updated\n",
               0x0001000000000123ull, static_cast<std::uint64_t>(i) * 65'536, 4096u, 2u);
  }
}

CriticalSection reference_lock;

// The bytes of such a line, through a text stream opened as the log is, under one lock.
void WriteReferenceLines(FILE* stream, int lines) {
  const std::string line =
      "2026-01-31 23:59:59.000 DEBUG [1234] "
      "FileId 0x0001000000000123 write at offset 6553600000 length 4096; 2 bitmaps updated\n";
  for (int i = 0; i < lines; ++i) {
    const LockGuard guard(reference_lock);
    std::fwrite(line.data(), 1, line.size(), stream);
  }
}

bool WrittenLines(const std::filesystem::path& directory, int threads) {
  const int share = kLines / threads;
  const double logged = BestSeconds(5, [=] { OnThreads(threads, [=](int) { LogLines(share); }); });
  FILE* stream = ::_wfsopen((directory / "reference.log").c_str(), L"a+", _SH_DENYWR);
  const double reference =
      BestSeconds(5, [=] { OnThreads(threads, [=](int) { WriteReferenceLines(stream, share); }); });
  std::fclose(stream);
  const std::string name = "lines written by " + std::to_string(threads) + " thread(s)";
  return Report(name.c_str(), kLines / logged, kLines / reference, "lines/s", Bound::kAtLeast, 0.4);
}

bool Run() {
  const std::filesystem::path directory = std::filesystem::temp_directory_path() /
                                          ("zel-bench-" + std::to_string(::GetCurrentProcessId()));
  std::filesystem::create_directories(directory / "log");
  InitLogging((directory / "log" / "zelservice.log").wstring(), kConfigurationFile);
  LogEnableMask = 0x7FFE;
  bool kept = DisabledCall();
  kept = WrittenLines(directory, 1) && kept;
  kept = WrittenLines(directory, 4) && kept;
  ShutdownLogging();
  std::filesystem::remove_all(directory);
  return kept;
}

}  // namespace
}  // namespace zel::bench

int main() {
  return zel::bench::Run() ? 0 : 1;
}
