// What the kill loops (crash.py) need inside the Windows world and cannot do from outside at speed:
// orders to the simulated driver, calls of the service, the service manager, files held open.
//
// Standard input has one order a line, `TAG VERB ARGUMENT...`; each is answered with one line,
// `TAG ANSWER...`. What may last (calls, starts and stops) is done by threads, so that several are
// under way at once and answers come in any order; everything else is done in its turn. Words hold
// no blanks. Ends with its standard input.
//
//   driver ORDER...              the driver's answer
//   hold PATH SHARE, let PATH    opens a file for reading with that share mode, and closes it;
//                                the error
//   wipe                         deletes the list of tracked files; the error
//   state                        the service's state as the manager has it
//   start, stop                  the error; returns when the manager does
//   ping, status, copy ID, delete ID, sync TIME, untrack PATH, track PATH BLOCK,
//   track2 PATH VOLUME FILEID SIZE BLOCK, bitmaps VOLUME FILEID, files, list
//                                the RPC status, the service's code, and what came with it
#include <windows.h>

#include <condition_variable>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "client/zel_client.h"
#include "simulator/control_client.h"
#include "simulator/text.h"
#include "win32/handles.h"

namespace zel::crash {
namespace {

constexpr wchar_t kService[] = L"ZelService";
constexpr wchar_t kListKey[] =
    LR"(SYSTEM\CurrentControlSet\Services\VelmoraActivityMonitor\Parameters\TrackedFileList)";
constexpr std::uint16_t kRoom = 600;  // for a name
constexpr int kThreads = 12;

std::wstring Wide(std::string_view ascii) {
  return std::wstring(ascii.begin(), ascii.end());
}

std::string Narrow(std::wstring_view ascii) {
  std::string text;
  for (const wchar_t c : ascii) text.push_back(static_cast<char>(c));
  return text;
}

void Answer(const std::string& tag, const std::string& answer) {
  static std::mutex& lock = *new std::mutex;
  const std::lock_guard guard(lock);
  std::cout << tag + " " + answer << std::endl;
}

// The words behind a verb; what is missing or no number reads as nothing.
class Words {
 public:
  explicit Words(const std::string& line) : stream_(line) {}

  std::string Next() {
    std::string word;
    stream_ >> word;
    return word;
  }
  std::uint64_t Number() {
    std::uint64_t number = 0;
    return sim::ParseNumber(Next(), number) ? number : 0;
  }
  FileKey File() {
    FileKey file = {};
    if (!sim::ParseVolume(Next(), file.volume)) file.volume = {};
    file.file_id = Number();
    return file;
  }
  std::string Rest() {
    std::string rest;
    std::getline(stream_ >> std::ws, rest);
    return rest;
  }

 private:
  std::istringstream stream_;
};

std::string Text(const CallResult& result, const std::string& more = {}) {
  return std::to_string(result.rpc_status) + " " + std::to_string(result.code) +
         (more.empty() ? "" : " " + more);
}

std::string ListBitmaps(const ZelClient& client, const FileKey& file) {
  BitmapList list;
  std::string found;
  for (;;) {
    NamedBitmap bitmap;
    const CallResult result = client.ListBitmaps(file, list, kRoom, bitmap);
    if (!result.ok()) return Text(result, found);
    const std::size_t name = bitmap.name.rfind(L'\\') + 1;
    found += (found.empty() ? "" : ",") + std::to_string(bitmap.info.BitmapId) + ":" +
             Narrow(bitmap.name.substr(name));
  }
}

std::string ListFiles(const ZelClient& client) {
  FileList list;
  int count = 0;
  for (;; ++count) {
    ListedFile file;
    const CallResult result = client.ListFiles(list, kRoom, file);
    if (!result.ok()) return Text(result, std::to_string(count));
  }
}

std::string GetFiles(const ZelClient& client) {
  std::vector<TrackedFile> files;
  const CallResult result = client.GetTrackedFiles(files);
  std::string found;
  for (const TrackedFile& file : files) {
    found += (found.empty() ? "" : ",") + Narrow(file.path) + ":" +
             sim::VolumeText(file.key.volume) + ":" + std::to_string(file.key.file_id);
  }
  return Text(result, found);
}

std::string Copy(const ZelClient& client, BitmapId id) {
  sim::Bytes contents;
  const CallResult result = client.CopyBitmap(id, [&](std::span<const std::byte> piece) {
    contents.insert(contents.end(), piece.begin(), piece.end());
    return 0u;
  });
  return Text(result, sim::BytesText(contents));
}

std::string Track(const ZelClient& client, const std::string& verb, Words& words) {
  const std::wstring path = Wide(words.Next());
  wire::BitmapInfo info = {};
  CallResult result;
  if (verb == "track2") {
    const FileKey file = words.File();
    const std::uint64_t size = words.Number();
    result =
        client.StartTracking2(path, file, size, static_cast<std::uint32_t>(words.Number()), info);
  } else {
    result = client.StartTracking(path, static_cast<std::uint32_t>(words.Number()), info);
  }
  return Text(result, std::to_string(info.BitmapId) + " " + std::to_string(info.CreationTime));
}

std::string Call(const ZelClient& client, const std::string& verb, Words& words) {
  if (verb == "ping") return Text(client.Ping());
  if (verb == "status") return Text(client.GetDriverStatus());
  if (verb == "copy") return Copy(client, words.Number());
  if (verb == "delete") return Text(client.DeleteBitmap(words.Number()));
  if (verb == "sync") return Text(client.SynchronizeBitmaps(words.Number()));
  if (verb == "untrack") return Text(client.StopTracking(Wide(words.Next())));
  if (verb == "track" || verb == "track2") return Track(client, verb, words);
  if (verb == "bitmaps") return ListBitmaps(client, words.File());
  if (verb == "files") return GetFiles(client);
  if (verb == "list") return ListFiles(client);
  return "no such order";
}

// For the program's life.
const SC_HANDLE service = [] {
  const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  return ::OpenServiceW(manager, kService, SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
}();

std::string Start() {
  return std::to_string(::StartServiceW(service, 0, nullptr) ? ERROR_SUCCESS : ::GetLastError());
}

std::string Stop() {
  SERVICE_STATUS status = {};
  return std::to_string(
      ::ControlService(service, SERVICE_CONTROL_STOP, &status) ? ERROR_SUCCESS : ::GetLastError());
}

struct Job {
  std::string tag;
  std::string verb;
  std::string arguments;
};

class Jobs {
 public:
  void Add(Job job) {
    {
      const std::lock_guard guard(lock_);
      jobs_.push_back(std::move(job));
    }
    added_.notify_one();
  }

  Job Take() {
    std::unique_lock guard(lock_);
    added_.wait(guard, [this] { return !jobs_.empty(); });
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    return job;
  }

 private:
  std::mutex lock_;
  std::condition_variable added_;
  std::deque<Job> jobs_;
};

// Each thread has a connection of its own; a new one after each failure, for the next service.
void Work(Jobs& jobs) {
  for (;;) {
    const Job job = jobs.Take();
    Words words(job.arguments);
    if (job.verb == "start") {
      Answer(job.tag, Start());
    } else if (job.verb == "stop") {
      Answer(job.tag, Stop());
    } else {
      UniqueBinding binding;
      if (const std::uint32_t status = MakeBinding({}, binding); status != 0) {
        Answer(job.tag, std::to_string(status) + " 0");
        continue;
      }
      Answer(job.tag, Call(ZelClient(std::move(binding)), job.verb, words));
    }
  }
}

class Bench {
 public:
  void Run() {
    for (int i = 0; i < kThreads; ++i) threads_.emplace_back([this] { Work(jobs_); });
    for (std::string line; std::getline(std::cin, line);) {
      Words words(line);
      const std::string tag = words.Next();
      const std::string verb = words.Next();
      const std::string rest = words.Rest();
      if (!Obey(tag, verb, rest)) jobs_.Add({tag, verb, rest});
    }
    std::cout.flush();
    ::ExitProcess(0);  // calls may be under way
  }

 private:
  // False when it may last.
  bool Obey(const std::string& tag, const std::string& verb, const std::string& rest) {
    Words words(rest);
    if (verb == "driver") {
      Answer(tag, TellDriver(rest));
    } else if (verb == "hold") {
      const std::string path = words.Next();
      const auto share = static_cast<DWORD>(words.Number());
      UniqueFile& file = held_[path];
      file.reset(::CreateFileW(Wide(path).c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0,
                               nullptr));
      Answer(tag, std::to_string(file ? ERROR_SUCCESS : ::GetLastError()));
    } else if (verb == "let") {
      held_.erase(rest);
      Answer(tag, "0");
    } else if (verb == "wipe") {
      Answer(tag, std::to_string(::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kListKey)));
    } else if (verb == "state") {
      SERVICE_STATUS status = {};
      ::QueryServiceStatus(service, &status);
      Answer(tag, std::to_string(status.dwCurrentState));
    } else {
      return false;
    }
    return true;
  }

  std::string TellDriver(const std::string& order) {
    if (!driver_ || !driver_->connected()) driver_ = std::make_unique<sim::ControlClient>();
    std::string answer = driver_->Tell(order).value_or("gone");
    if (answer == "gone") driver_.reset();
    return answer;
  }

  Jobs jobs_;
  std::vector<std::thread> threads_;
  std::map<std::string, UniqueFile> held_;
  std::unique_ptr<sim::ControlClient> driver_;
};

}  // namespace
}  // namespace zel::crash

int wmain() {
  static zel::crash::Bench& bench = *new zel::crash::Bench;
  bench.Run();
  return 0;
}
