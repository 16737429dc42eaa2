#include <windows.h>
// After <windows.h>:
#include <aclapi.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <random>

#include "prove/scenarios.h"
#include "prove/services.h"
#include "service/service_names.h"

namespace zel::prove {

namespace {

constexpr std::uint32_t kBlock = 4096;
constexpr std::uint64_t kFileSize = 512 * kBlock + 1000;  // the last block is not whole
constexpr int kWrites = 100;
constexpr DWORD kUnloadMs = 40'000;  // the idle scan comes every 10 s

// What the steps hand on to one another.
class Road {
 public:
  explicit Road(Agent& agent) : agent_(agent) {}

  void Install();
  void CheckSetup();
  void CheckDependencies();
  void Start();
  void CheckRights();
  void CheckVolumeName();
  void Track();
  void ExpectNothing();
  void WriteAndCompare();
  void WriteSeen();
  void CompareTransports();
  void CompareTcp();
  void UnloadIdle();
  void Stop();
  void WriteWhileStopped();
  void KillAndDistrust();
  void FirstBackup();
  void IncrementalBackup();
  void BackupAfterKill();
  void Delete();
  void Untrack();
  void Remove();

 private:
  void MakeFile() const;
  void WriteSome();
  void CompareExactly() const;
  [[nodiscard]] FileBytes ExportOver(const wchar_t* transport) const;
  [[nodiscard]] std::filesystem::path BitmapFile() const;
  Json Backup(const Words& more = {}, int exit_code = 0) const;
  void RequireEqualCopy() const;

  [[nodiscard]] std::filesystem::path file() const { return agent_.data() / "tracked file.bin"; }
  [[nodiscard]] std::filesystem::path copy() const { return agent_.data() / "copy.bin"; }

  Agent& agent_;
  std::wstring bitmap_;
  Blocks written_;
  std::mt19937 random_{11};
};

void Road::Install() {
  agent_.Install();
  MakeFile();
}

void Road::MakeFile() const {
  std::mt19937 random(1);
  std::string bytes(kFileSize, '\0');
  std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
  std::ofstream stream(file(), std::ios::binary);
  stream << bytes;
  stream.close();
  Require(!stream.fail(), "cannot write the file that is to be tracked");
}

void Road::CheckSetup() {
  const ServiceSetup setup = SetupOf(kServiceName);
  Require(setup.start_type == SERVICE_AUTO_START, "the service does not start by itself");
  Require(setup.display_name == kServiceDisplayName, "another display name");
  Require(setup.account == L"LocalSystem", "another account: " + ToUtf8(setup.account));
  Require(setup.command_line.find((agent_.directory() / "zelservice.exe").wstring()) !=
              std::wstring::npos,
          "another program: " + ToUtf8(setup.command_line));
}

void Road::CheckDependencies() {
  const std::vector<std::wstring> dependencies = SetupOf(kServiceName).dependencies;
  for (const wchar_t* wanted : {L"RPCSS", kDriverServiceName}) {
    Require(std::ranges::any_of(
                dependencies,
                [&](const std::wstring& each) { return ::_wcsicmp(each.c_str(), wanted) == 0; }),
            "the service does not depend on " + ToUtf8(wanted));
  }
}

void Road::Start() {
  agent_.Start();
  agent_.Zelctl({L"status"});
  const std::string counters = agent_.TellDriver("counters");
  Require(counters.find("connected=1") != std::string::npos,
          "the service is not connected to the simulated driver: " + counters);
}

// Whether an entry of an access control list is for SYSTEM or the Administrators.
bool IsForAdministration(const ACCESS_ALLOWED_ACE& entry) {
  PSID who = const_cast<DWORD*>(&entry.SidStart);
  return ::IsWellKnownSid(who, WinLocalSystemSid) ||
         ::IsWellKnownSid(who, WinBuiltinAdministratorsSid);
}

void Road::CheckRights() {
  ACL* list = nullptr;
  UniqueResource<NullTraits<PSECURITY_DESCRIPTOR, ::LocalFree>> descriptor;
  const DWORD error = ::GetNamedSecurityInfoW((agent_.directory() / "cbt").c_str(), SE_FILE_OBJECT,
                                              DACL_SECURITY_INFORMATION, nullptr, nullptr, &list,
                                              nullptr, descriptor.put());
  Require(error == ERROR_SUCCESS, "cannot read the rights: error " + std::to_string(error));
  Require(list != nullptr && list->AceCount > 0, "everybody has every right");
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* entry = nullptr;
    Require(::GetAce(list, i, &entry) &&
                static_cast<ACE_HEADER*>(entry)->AceType == ACCESS_ALLOWED_ACE_TYPE &&
                IsForAdministration(*static_cast<ACCESS_ALLOWED_ACE*>(entry)),
            "entry " + std::to_string(i) + " is for somebody else");
  }
}

void Road::CheckVolumeName() {
  wchar_t mount_point[MAX_PATH] = {};
  wchar_t name[64] = {};
  wchar_t again[64] = {};
  const bool told = ::GetVolumePathNameW(file().c_str(), mount_point, MAX_PATH) &&
                    ::GetVolumeNameForVolumeMountPointW(mount_point, name, 64) &&
                    ::GetVolumeNameForVolumeMountPointW(name, again, 64);
  const DWORD error = ::GetLastError();
  Require(told, "error " + std::to_string(error));
  Require(std::wstring(name) == again, "another name");
}

void Road::Track() {
  bitmap_ = agent_.Track(file(), L"4K");
  Require(bitmap_.starts_with(L"0x"), "no id of a bitmap");
  const Json files = agent_.Zelctl({L"files"}).value("files", Json::array());
  Require(files.size() == 1 && files[0].value("path", "") == ToUtf8(file().wstring()),
          "zelctl files lists " + files.dump());
}

void Road::ExpectNothing() {
  const BitmapCopy bitmap = agent_.Export(bitmap_);
  Require(bitmap.file_size == kFileSize && bitmap.block_size == kBlock, "it is of another file");
  Require(bitmap.set.empty() && !bitmap.size_changed && !bitmap.unreliable,
          "a new bitmap should be empty");
}

void Road::WriteSome() {
  for (int i = 0; i < kWrites; ++i) {
    const std::uint64_t offset = random_() % kFileSize;
    const auto length = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(1 + random_() % (3 * kBlock), kFileSize - offset));
    agent_.Write(file(), offset, length);
    AddWrite(written_, offset, length, kBlock);
  }
}

void Road::CompareExactly() const {
  const BitmapCopy bitmap = agent_.Export(bitmap_);
  Require(!bitmap.unreliable, "the bitmap is unreliable");
  const std::string difference = Difference(written_, bitmap.set);
  Require(difference.empty(), difference);
}

void Road::WriteAndCompare() {
  WriteSome();
  CompareExactly();
}

void Road::WriteSeen() {
  const std::filesystem::path other = agent_.data() / "other.bin";
  std::filesystem::copy_file(file(), other, std::filesystem::copy_options::overwrite_existing);
  const std::wstring bitmap = agent_.Track(other, L"4K");
  const FileBytes before = ReadBytes(other);
  agent_.RunSeen(Quoted(agent_.kit().bin() / "simulator" / "file_worker.exe") + L" random 21 " +
                 Quoted(other));
  const BitmapCopy found = agent_.Export(bitmap);
  const FileBytes after = ReadBytes(other);
  Require(before != after, "the program should have written");
  const std::string missing = Missing(DifferingBlocks(before, after, kBlock), found.set);
  Require(!found.unreliable && missing.empty(), "changes are not in the bitmap: " + missing);
  Require(found.size_changed || before.size() == after.size(), "the size has changed unseen");
  agent_.Zelctl({L"untrack", L"--yes", other.wstring()});
}

FileBytes Road::ExportOver(const wchar_t* transport) const {
  const std::filesystem::path exported = agent_.kit().work() / "transport.bitmap";
  agent_.Zelctl({L"export", bitmap_, L"--output", exported.wstring(), L"--replace", L"--no-sync",
                 L"--protseq", transport});
  return ReadBytes(exported);
}

void Road::CompareTransports() {
  Require(ExportOver(L"ncalrpc") == ExportOver(L"ncacn_np"), "ncalrpc and ncacn_np differ");
}

void Road::CompareTcp() {
  Require(ExportOver(L"ncalrpc") == ExportOver(L"ncacn_ip_tcp"), "ncalrpc and ncacn_ip_tcp differ");
}

std::filesystem::path Road::BitmapFile() const {
  const Json bitmaps = agent_.Zelctl({L"bitmaps"}).value("bitmaps", Json::array());
  for (const Json& each : bitmaps) {
    if (ToWide(each.value("bitmap_id", "")) == bitmap_) {
      return ToWide(each.value("bitmap_file", ""));
    }
  }
  throw StepFailure("zelctl bitmaps does not list the bitmap");
}

void Road::UnloadIdle() {
  agent_.Configure("zelservicelog = info\nzelservice:BitmapIdleTimeout = 1\n");
  const std::filesystem::path bitmap_file = BitmapFile();
  agent_.kit().Await(
      "the idle bitmap is closed cleanly",
      [&] { return ReadBitmapFile(bitmap_file).closed_cleanly; }, kUnloadMs);
  agent_.Configure("zelservicelog = info\n");
  CompareExactly();
}

void Road::Stop() {
  const std::filesystem::path bitmap_file = BitmapFile();
  WriteSome();
  agent_.Zelctl({L"sync"});
  agent_.Stop();
  const BitmapCopy bitmap = ReadBitmapFile(bitmap_file);
  Require(bitmap.closed_cleanly && !bitmap.unreliable, "the stop left the bitmap in use");
  Require(Difference(written_, bitmap.set).empty(), Difference(written_, bitmap.set));
}

void Road::WriteWhileStopped() {
  WriteSome();
  agent_.Start();
  CompareExactly();
}

void Road::KillAndDistrust() {
  agent_.Write(file(), 0, 1);
  AddWrite(written_, 0, 1, kBlock);
  agent_.Zelctl({L"sync"});
  agent_.Kill();
  agent_.Start();
  const BitmapCopy bitmap = agent_.Export(bitmap_);
  Require(bitmap.unreliable, "a bitmap that was in use should be unreliable");
  const std::string missing = Missing(written_, bitmap.set);
  Require(missing.empty(), "what was in it is lost: " + missing);
}

Json Road::Backup(const Words& more, int exit_code) const {
  Words words = {L"backup",        L"--from",   file().wstring(), L"--to",
                 copy().wstring(), L"--verify", L"--block-size",  L"4K"};
  words.insert(words.end(), more.begin(), more.end());
  return agent_.Zelctl(words, exit_code);
}

void Road::RequireEqualCopy() const {
  Require(ReadBytes(file()) == ReadBytes(copy()), "the copy differs from the file");
}

void Road::FirstBackup() {
  Require(Backup().value("mode", "") == "full", "the first backup should be a full one");
  RequireEqualCopy();
}

void Road::IncrementalBackup() {
  for (int round = 0; round < 3; ++round) {
    agent_.Write(file(), random_() % (kFileSize - kBlock), kBlock);
    const Json answer = Backup();
    Require(answer.value("mode", "") == "incremental", "it should be incremental");
    Require(answer.value("copied_bytes", kFileSize) <= 2 * kBlock,
            "one write of a block's size should cost two blocks at most: " + answer.dump());
    RequireEqualCopy();
  }
}

void Road::BackupAfterKill() {
  agent_.Write(file(), 5 * kBlock, kBlock);
  agent_.Zelctl({L"sync"});
  agent_.Kill();
  agent_.Start();
  const FileBytes before = ReadBytes(copy());
  const Json refusal = Backup({}, 4);
  Require(refusal.at("error").value("reason", "") == "unreliable", refusal.dump());
  Require(ReadBytes(copy()) == before, "a refused backup should leave the copy as it was");
  Require(Backup({L"--full-if-needed"}).value("mode", "") == "full", "it should be a full one");
  RequireEqualCopy();
}

void Road::Delete() {
  agent_.Zelctl({L"delete", bitmap_});
  const Json bitmaps = agent_.Zelctl({L"bitmaps"}).value("bitmaps", Json::array());
  for (const Json& each : bitmaps) {
    Require(ToWide(each.value("bitmap_id", "")) != bitmap_, "the deleted bitmap is listed");
  }
}

void Road::Untrack() {
  agent_.Zelctl({L"untrack", L"--yes", file().wstring()});
  Require(agent_.Zelctl({L"files"}).value("files", Json::array()).empty(), "it is still tracked");
  agent_.kit().Await("the bitmaps' folders are empty", [&] {
    return std::ranges::none_of(
        std::filesystem::directory_iterator(agent_.directory() / "cbt"),
        [](const std::filesystem::directory_entry& each) { return each.is_directory(); });
  });
}

void Road::Remove() {
  agent_.Remove();
}

}  // namespace

std::vector<Step> EndToEnd(Agent& agent) {
  const auto road = std::make_shared<Road>(agent);
  const auto step = [&](const char* name, void (Road::*run)(), const char* not_on_wine = "") {
    return Step{name, [road, run] { (road.get()->*run)(); }, not_on_wine};
  };
  return {
      step("zelservice -install under the service manager", &Road::Install),
      step("the service is set up as it should be", &Road::CheckSetup),
      step("the service manager knows what the service depends on", &Road::CheckDependencies,
           "Wine's service manager tells no dependencies"),
      step("a volume's name names the volume", &Road::CheckVolumeName,
           "Wine finds no volume by its name; the simulated user library fills that in"),
      step("start, with the simulated driver connected", &Road::Start),
      step("track", &Road::Track),
      step("only SYSTEM and Administrators may use the bitmaps' folder", &Road::CheckRights,
           "Wine maps a folder's rights to those of the file system below it"),
      step("nothing is written, no bit is set", &Road::ExpectNothing),
      step("the bits are exactly the blocks that were written", &Road::WriteAndCompare),
      step("every change of a program is in the bitmap", &Road::WriteSeen),
      step("ncalrpc and ncacn_np give the same bitmap", &Road::CompareTransports),
      step("ncacn_ip_tcp gives it too", &Road::CompareTcp,
           "Wine's endpoint mapper is not reached over TCP, so the port is not found"),
      step("an idle bitmap is unloaded and keeps its bits", &Road::UnloadIdle),
      step("stop: the bitmap is closed cleanly with every bit", &Road::Stop),
      step("what is written while the service is stopped is in the bitmap",
           &Road::WriteWhileStopped),
      step("killed in use: the bitmap says that it cannot be trusted", &Road::KillAndDistrust),
      step("backup: a full copy, equal", &Road::FirstBackup),
      step("backup: three incremental rounds, each equal", &Road::IncrementalBackup),
      step("backup refuses after a kill, and goes on with a full copy", &Road::BackupAfterKill),
      step("delete", &Road::Delete),
      step("untrack, and the folders go", &Road::Untrack),
      step("zelservice -remove", &Road::Remove),
  };
}

}  // namespace zel::prove
