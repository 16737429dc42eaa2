// Files in memory that count what is read of them and can fail.
#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
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
  std::vector<std::pair<std::uint64_t, std::uint64_t>> reads;  // offset and length
  std::function<void(MemoryFile& file)> after_read = {};       // what another program does
};

// Counts every change to a file, and lets the one with the number `fail_at` and all later ones
// fail as if the process had died: nothing is cleaned up either.
struct Death {
  int changes = 0;
  int fail_at = -1;

  [[nodiscard]] bool Strikes() { return fail_at >= 0 && changes++ >= fail_at; }
  [[nodiscard]] bool has_struck() const { return fail_at >= 0 && changes > fail_at; }
};
inline constexpr std::uint32_t kDied = 31;  // ERROR_GEN_FAILURE

class OpenMemoryFile : public ctl::ReplacementFile {
 public:
  // `replaces` commits the file in the place that it is for; null for a file in its own place.
  OpenMemoryFile(std::shared_ptr<MemoryFile> file, Death& death,
                 std::function<std::uint32_t()> commit = {}, std::function<void()> abandon = {})
      : file_(std::move(file)),
        death_(death),
        commit_(std::move(commit)),
        abandon_(std::move(abandon)) {}
  ~OpenMemoryFile() override {
    if (abandon_ && !death_.has_struck()) abandon_();
  }

  std::uint32_t GetSize(std::uint64_t& size) override {
    size = file_->bytes.size();
    return 0;
  }
  std::uint32_t Read(std::uint64_t offset, std::span<std::byte> buffer) override {
    file_->reads.emplace_back(offset, buffer.size());
    if (offset + buffer.size() > file_->bytes.size()) return ctl::kEndOfFile;
    std::memcpy(buffer.data(), file_->bytes.data() + offset, buffer.size());
    if (file_->after_read) file_->after_read(*file_);
    return 0;
  }
  std::uint32_t SetSize(std::uint64_t size) override {
    if (death_.Strikes()) return kDied;
    file_->bytes.resize(size);
    return 0;
  }
  // Half of it is written when the process dies meanwhile.
  std::uint32_t Write(std::uint64_t offset, std::span<const std::byte> bytes) override {
    const bool dies = death_.Strikes();
    if (dies) bytes = bytes.first(death_.changes == death_.fail_at + 1 ? bytes.size() / 2 : 0);
    if (offset + bytes.size() > file_->bytes.size()) file_->bytes.resize(offset + bytes.size());
    std::memcpy(file_->bytes.data() + offset, bytes.data(), bytes.size());
    return dies ? kDied : 0;
  }
  std::uint32_t Flush() override { return death_.Strikes() ? kDied : 0; }
  std::uint32_t Commit() override {
    if (death_.Strikes()) return kDied;
    abandon_ = {};
    return commit_();
  }

 private:
  std::shared_ptr<MemoryFile> file_;
  Death& death_;
  std::function<std::uint32_t()> commit_;
  std::function<void()> abandon_;
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
    return Open(path, file);
  }
  std::uint32_t OpenTarget(const std::string& path,
                           std::unique_ptr<ctl::TargetFile>& file) override {
    return Open(path, file);
  }
  std::uint32_t CreateReplacement(const std::string& path,
                                  std::unique_ptr<ctl::ReplacementFile>& file) override {
    if (death.Strikes()) return kDied;
    if (unwritable == path) return 5;
    const std::string beside = path + ".zelctl-new";
    files.erase(beside);
    At(beside);
    const auto commit = [this, path, beside] {
      files[path] = files[beside];
      files.erase(beside);
      return std::uint32_t{0};
    };
    file = std::make_unique<OpenMemoryFile>(files[beside], death, commit,
                                            [this, beside] { files.erase(beside); });
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
  std::string AbsolutePath(const std::string& path) override {
    return path.find(':') == std::string::npos ? "C:\\here\\" + path : path;
  }
  FileTime Now() override { return now; }
  std::uint64_t Milliseconds() override { return milliseconds += 60; }
  ctl::ErrorWords Describe(std::uint32_t code) override {
    const auto found = error_words.find(code);
    if (found != error_words.end()) return found->second;
    return {std::to_string(code), "Unknown error code"};
  }

  std::map<std::string, std::shared_ptr<MemoryFile>> files;
  Death death;
  std::string unwritable;  // a path beside which no file can be made
  std::optional<VolumeGuid> volume;
  FileTime now = 0;
  std::uint64_t milliseconds = 0;
  std::map<std::uint32_t, ctl::ErrorWords> error_words = {
      {2, {"ERROR_FILE_NOT_FOUND", "File not found"}},
      {5, {"ERROR_ACCESS_DENIED", "Access denied"}},
      {38, {"ERROR_HANDLE_EOF", "Reached the end of the file"}},
      {122, {"ERROR_INSUFFICIENT_BUFFER", "Insufficient buffer"}},
      {1110, {"ERROR_MEDIA_CHANGED", "Media changed"}},
      {1168, {"ERROR_NOT_FOUND", "Not found"}},
      {1460, {"ERROR_TIMEOUT", "Timeout"}},
      {1722, {"RPC_S_SERVER_UNAVAILABLE", "RPC server unavailable"}},
  };

 private:
  template <class File>
  std::uint32_t Open(const std::string& path, std::unique_ptr<File>& file) {
    const auto found = files.find(path);
    if (found == files.end()) return 2;
    file = std::make_unique<OpenMemoryFile>(found->second, death);
    return 0;
  }

  FileId next_id_ = 0x100;
};

}  // namespace zel::test
