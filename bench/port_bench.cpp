// The road of the driver's messages end to end: from the queue of the simulated driver, another
// process, through the port and the four message threads to the bits. Messages per second, and
// processor time of the process that hosts the modules. The reference is what receiving costs at
// least: one overlapped read of the same bytes from a local message pipe.
#include <windows.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "bench/bench.h"
#include "bench/pipe_reads.h"
#include "bitmap/bitmap_manager.h"
#include "bitmap/create_bitmap.h"
#include "driver/driver_port.h"
#include "driver/message_threads.h"
#include "simulator/text.h"
#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/simulated_driver.h"
#include "tests/integration/support/temp_directory.h"
#include "win32/file_time.h"

namespace zel::bench {
namespace {

constexpr VolumeGuid kVolume = {0x01234567, 0x89AB, 0xCDEF, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr FileId kFile = 1;
constexpr std::uint32_t kBlockSize = 65'536;
constexpr std::uint64_t kBurst = 10'000;
constexpr std::uint64_t kBursts = 3;  // of a round
constexpr std::uint64_t kRounds = 5;
constexpr std::uint64_t kMessages = kBursts * kBurst;
constexpr std::uint32_t kBitmapBytes = kMessages * kRounds / 8;
constexpr int kReferenceRounds = 300;

void Require(bool condition) {
  if (!condition) std::abort();
}

double Seconds(const FILETIME& time) {
  return static_cast<double>(JoinHalves(time.dwHighDateTime, time.dwLowDateTime)) /
         kFileTimeUnitsPerSecond;
}

// Of this process; what the system's other processes do for it does not count.
double ProcessorSeconds() {
  FILETIME created;
  FILETIME ended;
  FILETIME kernel;
  FILETIME user;
  Require(::GetProcessTimes(::GetCurrentProcess(), &created, &ended, &kernel, &user));
  return Seconds(kernel) + Seconds(user);
}

struct Cost {
  double seconds = 0;            // of the clock
  double processor_seconds = 0;  // coarse: told in steps of up to 15 ms
};

template <class Work>
Cost CostOf(Work work) {
  const double before = ProcessorSeconds();
  const double seconds = BestSeconds(1, work);
  return {seconds, ProcessorSeconds() - before};
}

class Road {
 public:
  Road() {
    const std::wstring install_directory = directory_.path().wstring();
    std::filesystem::create_directories(install_directory + L"\\cbt");
    test::UseCbtDirectoryOf(install_directory);
    test::WriteTrackedList(kVolume, {kFile});
    BitmapId id = 0;
    Require(CreateNewBitmap(kVolume, kFile, kBitmapBytes, kBlockSize,
                            kBitmapBytes * std::uint64_t{8} * kBlockSize, id));
    bitmap_ = GetBitmapById(id);
    Require(ConnectDriverPort() == S_OK && NotifyDriverOfTrackingChanges() == S_OK);
    Require(StartDriverThreads() == ERROR_SUCCESS);
  }
  ~Road() {
    StopDriverThreads();
    bitmap_ = {};
    ShutdownBitmapManager();
  }

  // From the release of what the driver has queued, a new bit in each message, to the last bit.
  Cost Round(std::uint64_t round) {
    driver_.Order("hold");
    for (std::uint64_t burst = 0; burst < kBursts; ++burst)
      Queue(round * kMessages + burst * kBurst);
    return CostOf([&] {
      driver_.Order("release");
      WaitForBits(round * kMessages, (round + 1) * kMessages);
    });
  }

 private:
  void Queue(std::uint64_t first_block) {
    driver_.Order("burst " + sim::VolumeText(kVolume) + " " + std::to_string(kFile) + " " +
                  std::to_string(first_block * kBlockSize) + " " + std::to_string(kBlockSize) +
                  " " + std::to_string(kBurst));
  }

  // Threads may be done with messages in another order than they got them.
  void WaitForBits(std::uint64_t first, std::uint64_t end) const {
    const auto* const bytes = reinterpret_cast<const volatile std::uint8_t*>(bitmap_->header() + 1);
    for (std::uint64_t byte = first / 8; byte < end / 8; ++byte) {
      while (bytes[byte] != 0xFF) ::Sleep(1);
    }
  }

  test::TempDirectory directory_;
  test::SimulatedDriver driver_;
  PinnedBitmap bitmap_;
};

bool RunAll() {
  PipeReads pipe;
  const double read_seconds = pipe.Nanoseconds(kReferenceRounds) / 1e9;
  double read_processor_seconds = 0;
  for (int round = 0; round < kReferenceRounds; ++round) {
    pipe.Fill();
    read_processor_seconds += CostOf([&] { pipe.ReadAll(); }).processor_seconds;
  }
  read_processor_seconds /= static_cast<double>(kReferenceRounds * kPipedMessages);

  Road road;
  double seconds = std::numeric_limits<double>::max();
  double processor_seconds = 0;
  for (std::uint64_t round = 0; round < kRounds; ++round) {
    const Cost cost = road.Round(round);
    seconds = std::min(seconds, cost.seconds / kMessages);
    processor_seconds += cost.processor_seconds / (kMessages * kRounds);
  }
  const bool kept = Report("messages from the driver to the bits", 1 / seconds, 1 / read_seconds,
                           "1/s", Bound::kAtLeast, 0.2);
  return Report("processor time of the service for one", processor_seconds * 1e6,
                read_processor_seconds * 1e6, "us", Bound::kAtMost, 5.0) &&
         kept;
}

}  // namespace
}  // namespace zel::bench

int main() {
  return zel::bench::RunAll() ? 0 : 1;
}
