// The part of slow_disk_bench.py that a script cannot do: talking to the simulated driver at speed,
// calling the service over its own protocol, and watching bits with the millisecond's accuracy.
//
//   slow_disk_probe orders                              tells the driver each line of standard
//   input
//                                                       and prints the answer
//   slow_disk_probe writes VOLUME FILEID BITMAP BLOCK   reports one write after the other to a
//   loaded
//                                                       bitmap, each to the next block from BLOCK
//                                                       on
//   slow_disk_probe bitmaps VOLUME FILEID               lists the bitmaps of a file, again and
//   again slow_disk_probe files                               lists the tracked files likewise
//   slow_disk_probe stop SERVICE                        until the service has stopped
//
// `writes`, `bitmaps` and `files` print "ready" after the first one, go on until standard input
// ends and print then, times in microseconds:
//   writes:           how many were seen, the longest wait, the wait so far of one not seen (0:
//   none) bitmaps, files:   how many, the longest, the median
// `stop` prints the error of the control (0: none) and the microseconds until the service had
// stopped.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "client/zel_client.h"
#include "simulator/control_client.h"
#include "simulator/text.h"
#include "win32/handles.h"

namespace zel::bench {
namespace {

constexpr std::uint64_t kBlockSize = 65'536;
constexpr std::size_t kHeaderBytes = 512;
constexpr DWORD kPauseMs = 5;         // between two writes or look-ups
constexpr std::uint16_t kRoom = 600;  // for a name
constexpr auto kStopLimit = std::chrono::minutes(2);

using Clock = std::chrono::steady_clock;

long long MicrosecondsSince(Clock::time_point begin) {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count();
}

// Set when standard input ends.
std::atomic<bool> inputEnded = false;

void WatchInput() {
  std::thread([] {
    for (std::string line; std::getline(std::cin, line);) continue;
    inputEnded = true;
  }).detach();
}

void Say(const std::string& line) {
  std::cout << line << std::endl;  // whoever waits for it reads from a pipe
}

int RelayOrders() {
  sim::ControlClient driver;
  if (!driver.connected()) return ERROR_PIPE_NOT_CONNECTED;
  for (std::string line; std::getline(std::cin, line);) {
    Say(driver.Tell(line).value_or("error no driver"));
  }
  return 0;
}

// A bitmap file as it stands, while the service has it loaded and when it has not.
class BitmapFile {
 public:
  explicit BitmapFile(const wchar_t* path)
      : file_(::CreateFileW(path, GENERIC_READ,
                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                            OPEN_EXISTING, 0, nullptr)),
        mapping_(::CreateFileMappingW(file_.get(), nullptr, PAGE_READONLY, 0, 0, nullptr)) {
    if (!mapping_) return;
    bytes_.reset(
        static_cast<const std::uint8_t*>(::MapViewOfFile(mapping_.get(), FILE_MAP_READ, 0, 0, 0)));
  }

  [[nodiscard]] bool mapped() const { return static_cast<bool>(bytes_); }
  [[nodiscard]] bool IsSet(std::uint64_t block) const {
    const auto* const bits = static_cast<const volatile std::uint8_t*>(bytes_.get()) + kHeaderBytes;
    return (bits[block / 8] >> block % 8 & 1) != 0;
  }

 private:
  UniqueFile file_;
  UniqueMapping mapping_;
  UniqueView<const std::uint8_t> bytes_;
};

int ReportWrites(const std::string& file, const BitmapFile& bitmap, std::uint64_t block) {
  sim::ControlClient driver;
  if (!driver.connected() || !bitmap.mapped()) return ERROR_OPEN_FAILED;
  WatchInput();
  long long count = 0;
  long long longest = 0;
  long long unseen = 0;
  for (; !inputEnded; ++block) {
    const Clock::time_point begin = Clock::now();
    if (driver.Tell("write " + file + " " + std::to_string(block * kBlockSize) + " 1") != "ok") {
      return ERROR_GEN_FAILURE;
    }
    while (!bitmap.IsSet(block) && !inputEnded) ::Sleep(1);
    if (!bitmap.IsSet(block)) {
      unseen = MicrosecondsSince(begin);
      break;
    }
    longest = std::max(longest, MicrosecondsSince(begin));
    if (++count == 1) Say("ready");
    ::Sleep(kPauseMs);
  }
  Say(std::to_string(count) + " " + std::to_string(longest) + " " + std::to_string(unseen));
  return 0;
}

bool ListBitmaps(const ZelClient& client, const FileKey& file) {
  BitmapList list;
  CallResult result;
  do {
    NamedBitmap bitmap;
    result = client.ListBitmaps(file, list, kRoom, bitmap);
  } while (result.ok());
  return result.rpc_status == 0 && result.code == ERROR_NO_MORE_ITEMS;
}

bool ListFiles(const ZelClient& client) {
  std::vector<TrackedFile> files;
  return client.GetTrackedFiles(files).ok();
}

template <class List>
int LookUp(List list) {
  UniqueBinding binding;
  if (MakeBinding({}, binding) != 0) return ERROR_OPEN_FAILED;
  const ZelClient client(std::move(binding));
  WatchInput();
  if (!list(client)) return ERROR_GEN_FAILURE;  // finds the service's endpoint
  Say("ready");
  std::vector<long long> taken;
  do {
    const Clock::time_point begin = Clock::now();
    if (!list(client)) return ERROR_GEN_FAILURE;
    taken.push_back(MicrosecondsSince(begin));
    ::Sleep(kPauseMs);
  } while (!inputEnded);
  std::ranges::sort(taken);
  Say(std::to_string(taken.size()) + " " + std::to_string(taken.back()) + " " +
      std::to_string(taken[taken.size() / 2]));
  return 0;
}

int StopService(const wchar_t* name) {
  // Both handles end with the process.
  const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  const SC_HANDLE service = ::OpenServiceW(manager, name, SERVICE_STOP | SERVICE_QUERY_STATUS);
  SERVICE_STATUS status = {};
  if (!::QueryServiceStatus(service, &status)) return ERROR_OPEN_FAILED;
  const Clock::time_point begin = Clock::now();
  const DWORD error =
      ::ControlService(service, SERVICE_CONTROL_STOP, &status) ? ERROR_SUCCESS : ::GetLastError();
  do {
    if (Clock::now() > begin + kStopLimit) return ERROR_TIMEOUT;
    ::Sleep(1);
  } while (!::QueryServiceStatus(service, &status) || status.dwCurrentState != SERVICE_STOPPED);
  Say(std::to_string(error) + " " + std::to_string(MicrosecondsSince(begin)));
  return 0;
}

std::string Narrow(std::wstring_view ascii) {
  std::string text;
  for (const wchar_t c : ascii) text.push_back(static_cast<char>(c));
  return text;
}

int Run(const std::vector<std::wstring>& words) {
  const std::wstring verb = words.empty() ? L"" : words[0];
  if (verb == L"orders" && words.size() == 1) return RelayOrders();
  if (verb == L"stop" && words.size() == 2) return StopService(words[1].c_str());
  if (verb == L"files" && words.size() == 1) return LookUp(ListFiles);
  if (words.size() < 3) return ERROR_BAD_ARGUMENTS;
  FileKey file = {};
  if (!sim::ParseVolume(Narrow(words[1]), file.volume) ||
      !sim::ParseNumber(Narrow(words[2]), file.file_id)) {
    return ERROR_BAD_ARGUMENTS;
  }
  if (verb == L"bitmaps" && words.size() == 3) {
    return LookUp([&](const ZelClient& client) { return ListBitmaps(client, file); });
  }
  if (verb != L"writes" || words.size() != 5) return ERROR_BAD_ARGUMENTS;
  return ReportWrites(Narrow(words[1] + L" " + words[2]), BitmapFile(words[3].c_str()),
                      std::stoull(words[4]));
}

}  // namespace
}  // namespace zel::bench

int wmain(int argc, wchar_t** argv) {
  const int error = zel::bench::Run({argv + 1, argv + argc});
  std::cout.flush();
  // The thread that watches standard input may wait there still.
  ::ExitProcess(static_cast<UINT>(error));
}
