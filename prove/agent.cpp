#include "prove/agent.h"

#include <algorithm>
#include <fstream>
#include <random>
#include <system_error>

#include "prove/services.h"
#include "prove/steps.h"
#include "prove/test_programs.h"
#include "prove/traces.h"
#include "service/service_names.h"
#include "simulator/control_client.h"
#include "simulator/file_identity.h"
#include "simulator/on_wine.h"

namespace zel::prove {

namespace {

constexpr DWORD kStopMs = 30'000;
constexpr std::size_t kLogTailBytes = 3'000;
constexpr const char* kBenchFiles[] = {"driversim.exe", "fltlib.dll", "simhook.dll"};

void Copy(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::error_code error;
  std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing, error);
  Require(!error, "cannot copy " + ToUtf8(from.wstring()) + ": " + error.message());
}

UniqueFile OpenShared(const std::filesystem::path& path, DWORD access) {
  UniqueFile file(::CreateFileW(path.c_str(), access,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, 0, nullptr));
  Require(static_cast<bool>(file),
          "cannot open " + ToUtf8(path.wstring()) + ": error " + std::to_string(::GetLastError()));
  return file;
}

}  // namespace

FileBytes ReadBytes(const std::filesystem::path& path) {
  const UniqueFile file = OpenShared(path, GENERIC_READ);
  LARGE_INTEGER size = {};
  Require(::GetFileSizeEx(file.get(), &size), "cannot tell the size of " + ToUtf8(path.wstring()));
  FileBytes bytes(static_cast<std::size_t>(size.QuadPart));
  DWORD read = 0;
  for (std::size_t at = 0; at < bytes.size(); at += read) {
    const auto count = static_cast<DWORD>(std::min<std::size_t>(bytes.size() - at, 1 << 20));
    Require(::ReadFile(file.get(), bytes.data() + at, count, &read, nullptr) && read > 0,
            "cannot read " + ToUtf8(path.wstring()));
  }
  return bytes;
}

BitmapCopy ReadBitmapFile(const std::filesystem::path& path) {
  std::optional<BitmapCopy> bitmap = ReadBitmap(ReadBytes(path));
  Require(bitmap.has_value(), ToUtf8(path.wstring()) + " is no bitmap");
  return *std::move(bitmap);
}

std::string Agent::LogTail() const {
  return Tail(ReadFileText(directory() / "log" / "zelservice.log"), kLogTailBytes);
}

void Agent::Install() const {
  std::error_code error;
  for (const char* folder : {"log", "config"}) {
    std::filesystem::create_directories(directory() / folder, error);
    Require(!error, "cannot make the agent's folders: " + error.message());
  }
  std::filesystem::create_directories(data(), error);
  Configure("zelservicelog = info\n");
  Copy(kit_.bin() / "zelservice.exe", directory() / "zelservice.exe");
  for (const char* file : kBenchFiles) {
    Copy(kit_.bin() / "simulator" / file, directory() / file);
  }
  WriteInstallDirectory(directory());
  CreateDemandService(kDriverServiceName, directory() / "driversim.exe");
  const ProgramRun run = kit_.Run(Quoted(directory() / "zelservice.exe") + L" -install");
  Require(run.exit_code == 0 && run.output.empty(), "-install said: " + run.output);
  Require(ServiceExists(kServiceName), "-install made no service");
}

void Agent::Configure(const std::string& text) const {
  std::ofstream file(directory() / "config" / "plexor.conf", std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  Require(!file.fail(), "cannot write plexor.conf");
}

void Agent::Remove() const {
  const ProgramRun run = kit_.Run(Quoted(directory() / "zelservice.exe") + L" -remove");
  Require(run.exit_code == 0 && run.output.empty(), "-remove said: " + run.output);
  kit_.Await("the service is gone", [] { return !ServiceExists(kServiceName); });
  if (ServiceExists(kDriverServiceName)) RemoveService(kit_, kDriverServiceName);
}

void Agent::Start() {
  StartAndAwait(kit_, kServiceName, former_process_);
  former_process_ = ProcessOf(kServiceName);
  kit_.Await("zelctl ping is answered",
             [&] { return kit_.Run(Quoted(kit_.bin() / "zelctl.exe") + L" ping").exit_code == 0; });
}

void Agent::Stop() const {
  StopAndAwait(kit_, kServiceName, kStopMs);
}

void Agent::Kill() const {
  KillProcessOf(kit_, kServiceName);
}

// Where Wine's RPC runtime has no pipes for a client, a library of the bench that goes into it has.
std::wstring Agent::ZelctlProgram() const {
  const std::wstring zelctl = Quoted(kit_.bin() / "zelctl.exe");
  if (!sim::IsOnWine()) return zelctl;
  return Quoted(kit_.bin() / "simulator" / "driversim.exe") + L" client -- " + zelctl;
}

Json Agent::Zelctl(const Words& words, int exit_code) const {
  std::wstring command = ZelctlProgram();
  for (const std::wstring& word : words) command += L" \"" + word + L"\"";
  const ProgramRun run = kit_.Run(command + L" --json");
  const std::string told = ToUtf8(command) + " ended with " + std::to_string(run.exit_code) +
                           (run.timed_out ? " (by force) and said:\n" : " and said:\n") +
                           Tail(run.output, 2'000);
  Require(run.exit_code == static_cast<DWORD>(exit_code), told);
  Json answer = Json::parse(run.output, nullptr, false);
  Require(answer.is_object() && answer.value("ok", false) == (exit_code == 0), told);
  return answer;
}

std::wstring Agent::Track(const std::filesystem::path& file, const wchar_t* block_size) const {
  const Json answer = Zelctl({L"track", file.wstring(), L"--block-size", block_size});
  return ToWide(answer.value("bitmap_id", ""));
}

BitmapCopy Agent::Export(const std::wstring& bitmap_id) const {
  const std::filesystem::path file = kit_.work() / "exported.bitmap";
  Zelctl({L"export", bitmap_id, L"--output", file.wstring(), L"--replace"});
  return ReadBitmapFile(file);
}

std::string Agent::TellDriver(const std::string& order) const {
  const std::string answer =
      sim::ControlClient().Tell(order).value_or("nothing: no simulated driver runs");
  Require(answer.starts_with("ok"), "the simulated driver answers '" + order + "' with " + answer);
  return answer.substr(std::min<std::size_t>(answer.size(), 3));
}

void Agent::Write(const std::filesystem::path& path, std::uint64_t offset,
                  std::uint32_t length) const {
  static std::mt19937 random(20261122);
  std::vector<unsigned char> bytes(length);
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  const UniqueFile file = OpenShared(path, GENERIC_READ | GENERIC_WRITE);
  OVERLAPPED place = {};
  place.Offset = static_cast<DWORD>(offset);
  place.OffsetHigh = static_cast<DWORD>(offset >> 32);
  DWORD written = 0;
  Require(::WriteFile(file.get(), bytes.data(), length, &written, &place) && written == length,
          "cannot write " + ToUtf8(path.wstring()));
  const std::optional<FileKey> key = sim::IdentifyFile(file.get());
  Require(key.has_value(), "the file is on no volume with a GUID");
  TellDriver("write " + sim::OrderText(*key) + " " + std::to_string(offset) + " " +
             std::to_string(length));
}

void Agent::RunSeen(const std::wstring& command_line, const std::filesystem::path& input) const {
  const ProgramRun run =
      kit_.Run(Quoted(directory() / "driversim.exe") + L" run -- " + command_line,
               {.folder = {}, .input = input});
  Require(run.exit_code == 0, ToUtf8(command_line) + " under driversim run ended with " +
                                  std::to_string(run.exit_code) + " and said:\n" + run.output);
}

}  // namespace zel::prove
