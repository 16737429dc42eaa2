// Files in memory that count what is read of them and can fail.
#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "zelctl/machine.h"

namespace zel::test {

using Bytes = std::vector<std::byte>;

// What is behind the files of one machine.
struct MemoryFile {
  Bytes bytes;
  FileId id = 0;
  FileTime written = 0;           // moves with every write
  bool is_being_written = false;  // somebody has it open for that
  bool has_holes = false;
  bool can_have_holes = true;
  std::uint64_t bytes_written = 0;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> reads = {};  // offset and length
  std::function<void(MemoryFile& file)> after_read = {};            // what another program does
};

// Counts every change to a file, and lets the one with the number `fail_at` and all later ones
// fail as if the process had died: nothing is cleaned up either.
struct Death {
  int changes = 0;
  int fail_at = -1;

  [[nodiscard]] bool Strikes() { return fail_at >= 0 && changes++ >= fail_at; }
  [[nodiscard]] bool has_struck() const { return fail_at >= 0 && changes > fail_at; }
};
inline constexpr std::uint32_t kDied = 31;     // ERROR_GEN_FAILURE
inline constexpr std::uint32_t kSharing = 32;  // ERROR_SHARING_VIOLATION

class OpenMemoryFile : public ctl::ReplacementFile {
 public:
  // `commit` puts the file in the place that it is for; null for a file in its own place.
  OpenMemoryFile(std::shared_ptr<MemoryFile> file, Death& death,
                 std::function<std::uint32_t()> commit = {}, std::function<void()> abandon = {})
      : file_(std::move(file)),
        death_(death),
        commit_(std::move(commit)),
        abandon_(std::move(abandon)) {}
  // `file` is nobody else's to write until this object goes.
  static std::unique_ptr<OpenMemoryFile> ForWriting(std::shared_ptr<MemoryFile> file, Death& death,
                                                    std::function<std::uint32_t()> commit = {},
                                                    std::function<void()> abandon = {}) {
    auto open = std::make_unique<OpenMemoryFile>(std::move(file), death, std::move(commit),
                                                 std::move(abandon));
    open->file_->is_being_written = open->writes_ = true;
    return open;
  }
  ~OpenMemoryFile() override {
    if (writes_) file_->is_being_written = false;
    if (abandon_ && !death_.has_struck()) abandon_();
  }

  std::uint32_t Identify(ctl::FileIdentity& identity) override {
    identity = {.volume = volume, .file_id = file_->id};
    return 0;
  }
  std::uint32_t GetSize(std::uint64_t& size) override {
    size = file_->bytes.size();
    return 0;
  }
  bool HasHoles() override { return file_->has_holes; }
  bool KeepHoles() override { return file_->has_holes = file_->can_have_holes; }
  std::uint32_t Read(std::uint64_t offset, std::span<std::byte> buffer) override {
    file_->reads.emplace_back(offset, buffer.size());
    if (offset + buffer.size() > file_->bytes.size()) return ctl::kEndOfFile;
    std::ranges::copy(std::span(file_->bytes).subspan(offset, buffer.size()), buffer.begin());
    // It may take itself away.
    if (const auto act = file_->after_read) act(*file_);
    return 0;
  }
  std::uint32_t SetSize(std::uint64_t size) override {
    if (death_.Strikes()) return kDied;
    file_->bytes.resize(size);
    ++file_->written;
    return 0;
  }
  // Half of it is written when the process dies meanwhile.
  std::uint32_t Write(std::uint64_t offset, std::span<const std::byte> bytes) override {
    const bool dies = death_.Strikes();
    if (dies) bytes = bytes.first(death_.changes == death_.fail_at + 1 ? bytes.size() / 2 : 0);
    if (offset + bytes.size() > file_->bytes.size()) file_->bytes.resize(offset + bytes.size());
    std::memcpy(file_->bytes.data() + offset, bytes.data(), bytes.size());
    ++file_->written;
    file_->bytes_written += bytes.size();
    return dies ? kDied : 0;
  }
  std::uint32_t Flush() override { return death_.Strikes() ? kDied : 0; }
  std::uint32_t Commit() override {
    if (death_.Strikes()) return kDied;
    abandon_ = {};
    file_->is_being_written = writes_ = false;
    return commit_();
  }
  std::uint32_t GetWriteTime(FileTime& written) override {
    written = file_->written;
    return 0;
  }
  std::uint32_t Stamp(FileTime now, FileTime& written) override {
    if (death_.Strikes()) return kDied;
    written = file_->written = now;
    return 0;
  }

  std::optional<VolumeGuid> volume;

 private:
  std::shared_ptr<MemoryFile> file_;
  Death& death_;
  std::function<std::uint32_t()> commit_;
  std::function<void()> abandon_;
  bool writes_ = false;
};

// A machine of such files. Its clock stands still unless it is moved.
class MemoryMachine : public ctl::Machine {
 public:
  // The file of that path, made when it is not there.
  MemoryFile& At(const std::string& path) {
    std::shared_ptr<MemoryFile>& file = files[path];
    if (!file) {
      file = std::make_shared<MemoryFile>();
      file->id = next_id_++;
    }
    return *file;
  }

  std::uint32_t OpenSource(const std::string& path,
                           std::unique_ptr<ctl::SourceFile>& file) override {
    const auto found = files.find(path);
    if (found == files.end()) return 2;
    file = Opened(std::make_unique<OpenMemoryFile>(found->second, death));
    return 0;
  }
  std::uint32_t OpenTarget(const std::string& path,
                           std::unique_ptr<ctl::TargetFile>& file) override {
    const auto found = files.find(path);
    if (found == files.end()) return 2;
    if (unwritable == path) return 5;
    if (found->second->is_being_written) return kSharing;
    file = Opened(OpenMemoryFile::ForWriting(found->second, death));
    return 0;
  }
  std::uint32_t CreateReplacement(const std::string& path, const std::string& beside,
                                  std::unique_ptr<ctl::ReplacementFile>& file) override {
    if (death.Strikes()) return kDied;
    if (unwritable == path) return 5;
    const std::string name = beside.empty() ? NobodysName(path) : beside;
    if (files.contains(name) && files[name]->is_being_written) return kSharing;
    At(name).bytes.clear();
    const auto commit = [this, path, name] {
      if (files.contains(path) && files[path]->is_being_written) return kSharing;
      files[path] = files[name];
      files.erase(name);
      return std::uint32_t{0};
    };
    file = Opened(OpenMemoryFile::ForWriting(files[name], death, commit,
                                             [this, name] { files.erase(name); }));
    return 0;
  }
  std::uint32_t Remove(const std::string& path) override {
    if (death.Strikes()) return kDied;
    return files.erase(path) == 1 ? 0 : 2;
  }
  std::uint32_t Identify(const std::string& path, ctl::FileIdentity& identity) override {
    const auto found = files.find(path);
    if (found == files.end()) return 2;
    identity = {.volume = volume, .file_id = found->second->id};
    return 0;
  }
  std::uint32_t Lock(const std::string& path, std::unique_ptr<ctl::HeldLock>& lock) override {
    if (!locks.insert(path).second) return kSharing;
    lock = std::make_unique<MemoryLock>(locks, path);
    return 0;
  }
  std::uint32_t MakeFolder(const std::string& path) override {
    if (folders.contains(path)) return 0;
    if (death.Strikes()) return kDied;
    folders.insert(path);
    return 0;
  }
  std::uint32_t GetFreeBytes(const std::string&, std::uint64_t& bytes) override {
    bytes = free_bytes;
    return 0;
  }
  std::string Resolve(const std::string& path) override {
    const auto link = links.find(path);
    return link == links.end() ? AbsolutePath(path) : link->second;
  }
  std::string AbsolutePath(const std::string& path) override {
    return path.find(':') == std::string::npos ? "C:\\here\\" + path : path;
  }
  FileTime Now() override { return now; }
  FileTime PastMoment() override { return now++; }
  std::uint64_t Milliseconds() override { return milliseconds += 60; }
  ctl::ErrorWords Describe(std::uint32_t code) override {
    const auto found = error_words.find(code);
    if (found != error_words.end()) return found->second;
    return {std::to_string(code), "Unknown error code"};
  }

  std::map<std::string, std::shared_ptr<MemoryFile>> files;
  std::map<std::string, std::string> links;  // other spellings of paths
  std::set<std::string> folders;
  std::set<std::string> locks;
  Death death;
  std::string unwritable;  // a path that cannot be written, and beside which no file can be made
  std::uint64_t free_bytes = std::uint64_t{1} << 40;
  std::optional<VolumeGuid> volume;
  FileTime now = 0;
  std::uint64_t milliseconds = 0;
  std::map<std::uint32_t, ctl::ErrorWords> error_words = {
      {2, {"ERROR_FILE_NOT_FOUND", "File not found"}},
      {5, {"ERROR_ACCESS_DENIED", "Access denied"}},
      {32, {"ERROR_SHARING_VIOLATION", "Sharing violation"}},
      {38, {"ERROR_HANDLE_EOF", "Reached the end of the file"}},
      {112, {"ERROR_DISK_FULL", "Disk full"}},
      {122, {"ERROR_INSUFFICIENT_BUFFER", "Insufficient buffer"}},
      {1110, {"ERROR_MEDIA_CHANGED", "Media changed"}},
      {1168, {"ERROR_NOT_FOUND", "Not found"}},
      {1460, {"ERROR_TIMEOUT", "Timeout"}},
      {1722, {"RPC_S_SERVER_UNAVAILABLE", "RPC server unavailable"}},
  };

 private:
  class MemoryLock : public ctl::HeldLock {
   public:
    MemoryLock(std::set<std::string>& locks, std::string path)
        : locks_(locks), path_(std::move(path)) {}
    ~MemoryLock() override { locks_.erase(path_); }

   private:
    std::set<std::string>& locks_;
    const std::string path_;
  };

  std::unique_ptr<OpenMemoryFile> Opened(std::unique_ptr<OpenMemoryFile> file) {
    file->volume = volume;
    return file;
  }
  std::string NobodysName(const std::string& path) {
    std::string name = path + ".zelctl-new";
    while (files.contains(name)) name += "-2";
    return name;
  }

  FileId next_id_ = 0x100;
};

}  // namespace zel::test
