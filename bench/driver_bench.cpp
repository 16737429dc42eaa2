// The driver's messages: from the receive buffer through parsing and lookup to the bits, with few
// and many tracked files, on one thread and on four. The reference is what receiving costs at
// least: one overlapped read of the same bytes from a local message pipe.
#include <windows.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "bench/counting_new.h"
#include "bench/many_bitmaps.h"
#include "bench/pipe_reads.h"
#include "driver/driver_protocol.h"
#include "driver/message_handler.h"
#include "tests/integration/support/cbt_directory.h"

namespace zel::bench {
namespace {

constexpr int kRounds = 5;
constexpr int kThreads = 4;
constexpr std::size_t kMessages = 200'000;  // for each thread
constexpr double kLimit = 0.2;
static_assert(kMessageBytes == sizeof(DriverMessage));

using Messages = std::vector<DriverMessage>;

std::span<const std::byte> BytesOf(const DriverMessage& message) {
  return std::as_bytes(std::span(&message, 1));
}

// Writes to `files`, each to any block.
Messages MakeMessages(std::span<const FileId> files, unsigned seed) {
  std::mt19937_64 random(seed);
  Messages messages(kMessages);
  for (DriverMessage& message : messages) {
    message = {};
    message.Magic = kDriverMessageMagic;
    message.Type = DriverMessageType::kWrite;
    message.Timestamp = random();
    message.VolumeGuid = kVolume;
    message.FileId = files[random() % files.size()];
    message.OffsetOrSize = random() % (kBitmapBytes * 8ull * kBlockSize);
    message.Length = 1;
  }
  return messages;
}

void HandleAll(const Messages& messages) {
  for (const DriverMessage& message : messages) HandleDriverMessage(BytesOf(message));
}

// Nanoseconds of a message, all threads together.
double HandlingNanoseconds(std::span<const FileId> files, int threads) {
  std::vector<Messages> messages;
  for (int thread = 0; thread < threads; ++thread) {
    messages.push_back(MakeMessages(files, static_cast<unsigned>(thread)));
  }
  std::atomic<int> done{0};
  const double seconds = BestSeconds(kRounds, [&] {
    OnThreads(threads, [&](int thread) {
      HandleAll(messages[static_cast<std::size_t>(thread)]);
      ++done;
    });
  });
  if (done != kRounds * threads) std::abort();
  return seconds * 1e9 / static_cast<double>(kMessages) / threads;
}

bool ReportHandling(const char* files_text, std::span<const FileId> files, double receiving) {
  bool kept = true;
  for (const int threads : {1, kThreads}) {
    const double handling = HandlingNanoseconds(files, threads);
    const std::string name = std::string("message, ") + files_text + " tracked, " +
                             std::to_string(threads) + (threads == 1 ? " thread" : " threads");
    kept = Report(name.c_str(), handling, receiving, "ns", Bound::kAtMost, kLimit) && kept;
    std::printf("  = %.2f million messages a second\n", 1e3 / handling);
  }
  return kept;
}

bool ReportHeap(std::span<const FileId> files) {
  const Messages messages = MakeMessages(files, 0);
  HandleAll(messages);
  const std::int64_t before = heap_allocations;
  HandleAll(messages);
  return Report("heap allocations, messages about loaded bitmaps",
                static_cast<double>(heap_allocations - before), kMessages, "", Bound::kAtMost, 0.0);
}

bool RunAll() {
  const WithoutDeviceFlushes hook;
  const test::TempDirectory directory;
  const std::wstring install_directory = directory.path().wstring();
  test::UseCbtDirectoryOf(install_directory);
  std::vector<FileId> files(100'000);
  for (FileId i = 0; i < files.size(); ++i) files[i] = 0x0001000000000000 + i * 37;
  const std::span<const FileId> all = files;

  const double receiving = PipeReads().Nanoseconds(10 * kRounds);
  std::vector<FileId> loaded;
  LoadMore(all.first(1), loaded);
  bool kept = ReportHandling("1 file", loaded, receiving);
  LoadMore(all.subspan(1, 999), loaded);
  kept = ReportHandling("1,000 files", loaded, receiving) && kept;
  kept = ReportHeap(loaded) && kept;
  constexpr std::size_t kUnloaded = 92'000;  // more cannot be loaded everywhere
  for (const FileId file : all.subspan(1000, kUnloaded)) AddUnloadedBitmap(file);
  LoadMore(all.subspan(1000 + kUnloaded), loaded);
  std::printf("(of 100,000 tracked files %zu have a loaded bitmap and are written to)\n",
              loaded.size());
  kept = ReportHandling("100,000 files", loaded, receiving) && kept;
  ShutdownBitmapManager();
  return kept;
}

}  // namespace
}  // namespace zel::bench

int main() {
  return zel::bench::RunAll() ? 0 : 1;
}
