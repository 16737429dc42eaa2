// The product on this machine as the scenarios use it: installed in the kit's work folder, with the
// simulated driver in the driver's place, and asked through zelctl as an administrator does.
//
// Errors: whatever is not as it should be throws StepFailure. Threads: the main thread.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "prove/kit.h"
#include "prove/oracle.h"

namespace zel::prove {

using Json = nlohmann::json;
using FileBytes = std::vector<std::byte>;
using Words = std::vector<std::wstring>;

// Whole, read beside whoever has it open.
[[nodiscard]] FileBytes ReadBytes(const std::filesystem::path& path);
[[nodiscard]] BitmapCopy ReadBitmapFile(const std::filesystem::path& path);

class Agent {
 public:
  explicit Agent(const Kit& kit) : kit_(kit) {}

  [[nodiscard]] const Kit& kit() const { return kit_; }
  [[nodiscard]] std::filesystem::path directory() const { return kit_.work() / "agent"; }
  [[nodiscard]] std::filesystem::path data() const { return kit_.work() / "data"; }
  // The log as it is now, its last part.
  [[nodiscard]] std::string LogTail() const;

  // Lays the files out, names the install directory, makes the driver's service of the simulator
  // and runs `zelservice -install`.
  void Install() const;
  // The file config\plexor.conf, written in place, where a running service notices it.
  void Configure(const std::string& text) const;
  // Runs `zelservice -remove` and takes the simulated driver away.
  void Remove() const;

  // Each waits for the end of it.
  void Start();
  void Stop() const;
  void Kill() const;

  // Runs zelctl with --json: the object that it prints. The exit code must be `exit_code`.
  Json Zelctl(const Words& words, int exit_code = 0) const;
  // The id of a new bitmap of the file.
  std::wstring Track(const std::filesystem::path& file, const wchar_t* block_size) const;
  // Exports a bitmap, synchronized, and reads it.
  BitmapCopy Export(const std::wstring& bitmap_id) const;

  // An order to the simulated driver, which must answer "ok"; what stands behind that.
  std::string TellDriver(const std::string& order) const;
  // Writes random bytes, and tells the driver of it as a filter would.
  void Write(const std::filesystem::path& file, std::uint64_t offset, std::uint32_t length) const;
  // Runs a program whose file activity the driver sees; its exit code must be 0.
  void RunSeen(const std::wstring& command_line, const std::filesystem::path& input = {}) const;

 private:
  // The beginning of a command line.
  [[nodiscard]] std::wstring ZelctlProgram() const;

  const Kit& kit_;
  DWORD former_process_ = 0;
};

}  // namespace zel::prove
