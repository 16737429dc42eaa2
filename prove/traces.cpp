#include "prove/traces.h"

#include <functional>
#include <system_error>

#include "prove/services.h"
#include "prove/steps.h"
#include "service/service_names.h"
#include "simulator/control_client.h"

namespace zel::prove {

namespace {

constexpr wchar_t kAgentKey[] = LR"(Software\Velmora Inc\DruAgent)";
constexpr wchar_t kVendorKey[] = LR"(Software\Velmora Inc)";
constexpr wchar_t kInstallDirectory[] = L"InstallDirectory";
constexpr wchar_t kServicesKey[] = LR"(SYSTEM\CurrentControlSet\Services\)";
constexpr const wchar_t* kServices[] = {kServiceName, kDriverServiceName};
constexpr DWORD kFolderLimitMs = 20'000;

// Empty when there is none.
std::wstring InstallDirectory() {
  wchar_t value[1024] = {};
  DWORD bytes = sizeof value;
  const LSTATUS result = ::RegGetValueW(HKEY_LOCAL_MACHINE, kAgentKey, kInstallDirectory,
                                        RRF_RT_REG_SZ, nullptr, value, &bytes);
  return result == ERROR_SUCCESS ? value : L"";
}

// A key that holds neither values nor keys.
void DeleteEmptyKey(const wchar_t* name) {
  UniqueRegistryKey key;
  DWORD keys = 0;
  DWORD values = 0;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, name, 0, KEY_READ, key.put()) != ERROR_SUCCESS ||
      ::RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values,
                         nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS ||
      keys != 0 || values != 0) {
    return;
  }
  ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, name);
}

void RemoveInstallDirectory(const std::wstring& folder) {
  if (!LiesIn(InstallDirectory(), folder)) return;
  const LSTATUS result = ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kAgentKey, kInstallDirectory);
  Require(result == ERROR_SUCCESS,
          "the registry value InstallDirectory stays: error " + std::to_string(result));
  DeleteEmptyKey(kAgentKey);
  DeleteEmptyKey(kVendorKey);
}

void RemoveServiceOf(const Kit& kit, const std::wstring& name, const std::wstring& folder) {
  if (ServiceExists(name.c_str())) {
    if (!RunsFrom(SetupOf(name.c_str()).command_line, folder)) return;
    RemoveService(kit, name.c_str());
  }
  // What the service's own key holds besides goes with the service on Windows.
  ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, (kServicesKey + name).c_str());
}

// Programs that have only just ended may still be held by the system.
void RemoveFolder(const Kit& kit, const std::filesystem::path& folder) {
  std::error_code error;
  try {
    kit.Await(
        "the folder can be removed",
        [&] {
          std::filesystem::remove_all(folder, error);
          return !std::filesystem::exists(folder);
        },
        kFolderLimitMs);
  } catch (const StepFailure&) {
    throw StepFailure("the folder " + ToUtf8(folder.wstring()) + " stays: " + error.message());
  }
}

// Runs one removal; what it throws becomes a line.
void Try(std::string& left, const std::function<void()>& removal) {
  try {
    removal();
  } catch (const std::exception& failure) {
    left += std::string(failure.what()) + "\n";
  }
}

std::string Remove(const Kit& kit, const State& state) {
  const std::wstring folder = ToWide(state.folder);
  std::string left;
  for (const std::string& service : state.services) {
    Try(left, [&] { RemoveServiceOf(kit, ToWide(service), folder); });
  }
  if (state.install_directory) Try(left, [&] { RemoveInstallDirectory(folder); });
  Try(left, [&] { RemoveFolder(kit, std::filesystem::path(folder) / "work"); });
  return left;
}

State AllOf(const Kit& kit) {
  State state = {ToUtf8(kit.folder().wstring()), {}, true};
  for (const wchar_t* service : kServices) state.services.push_back(ToUtf8(service));
  return state;
}

void WriteThrough(const std::filesystem::path& path, const std::string& text) {
  const UniqueFile file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_FLAG_WRITE_THROUGH, nullptr));
  DWORD written = 0;
  const bool done = file && ::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()),
                                        &written, nullptr);
  const DWORD error = ::GetLastError();
  Require(done && written == text.size(),
          "cannot write " + ToUtf8(path.wstring()) + ": error " + std::to_string(error));
}

}  // namespace

std::filesystem::path Traces::StateFile() const {
  return kit_.folder() / "prove-state.txt";
}

std::string Traces::CleanUpAfterEarlierRun() {
  if (!std::filesystem::exists(StateFile())) return {};
  // A state that was cut off by a power cut was written before anything was made: what can be of
  // this folder is looked for all the same.
  const std::string left =
      Remove(kit_, ParseState(ReadFileText(StateFile())).value_or(AllOf(kit_)));
  std::error_code error;
  if (left.empty()) std::filesystem::remove(StateFile(), error);
  return left;
}

std::string Traces::Foreign() {
  for (const wchar_t* service : kServices) {
    if (ServiceExists(service)) {
      return "the service " + ToUtf8(service) + " is installed here (" +
             ToUtf8(SetupOf(service).command_line) + ")";
    }
    UniqueRegistryKey key;
    const std::wstring name = kServicesKey + std::wstring(service);
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, name.c_str(), 0, KEY_READ, key.put()) ==
        ERROR_SUCCESS) {
      return "the registry key of the service " + ToUtf8(service) +
             " is here, with what it tracked: it was installed once";
    }
  }
  const std::wstring directory = InstallDirectory();
  if (!directory.empty()) {
    return "an agent is installed here (InstallDirectory is " + ToUtf8(directory) + ")";
  }
  if (sim::ControlClient().connected()) return "a simulated driver runs here already";
  return {};
}

void Traces::Announce() const {
  WriteThrough(StateFile(), FormatState(AllOf(kit_)));
  std::error_code error;
  std::filesystem::create_directories(kit_.work(), error);
  Require(!error, "cannot make " + ToUtf8(kit_.work().wstring()) + ": " + error.message());
}

std::string Traces::CleanUp() {
  kit_.HoldOffInterrupts();
  const std::string left = Remove(kit_, AllOf(kit_));
  std::error_code error;
  if (left.empty()) std::filesystem::remove(StateFile(), error);
  return left;
}

void WriteInstallDirectory(const std::filesystem::path& directory) {
  const std::wstring text = directory.wstring();
  UniqueRegistryKey key;
  LSTATUS result = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kAgentKey, 0, nullptr, 0, KEY_WRITE,
                                     nullptr, key.put(), nullptr);
  if (result == ERROR_SUCCESS) {
    result = ::RegSetValueExW(key.get(), kInstallDirectory, 0, REG_SZ,
                              reinterpret_cast<const BYTE*>(text.c_str()),
                              static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
  }
  Require(result == ERROR_SUCCESS,
          "cannot write the registry value InstallDirectory: error " + std::to_string(result));
}

}  // namespace zel::prove
