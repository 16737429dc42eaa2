// The machine that the tool runs on.
#pragma once

#include "zelctl/machine.h"

namespace zel::ctl {

class Win32Machine : public Machine {
 public:
  std::uint32_t OpenSource(const std::string& path, std::unique_ptr<SourceFile>& file) override;
  std::uint32_t OpenTarget(const std::string& path, std::unique_ptr<TargetFile>& file) override;
  std::uint32_t CreateReplacement(const std::string& path, const std::string& beside,
                                  std::unique_ptr<ReplacementFile>& file) override;
  std::uint32_t Remove(const std::string& path) override;
  std::uint32_t Identify(const std::string& path, FileIdentity& identity) override;
  std::uint32_t Lock(const std::string& path, std::unique_ptr<HeldLock>& lock) override;
  std::uint32_t MakeFolder(const std::string& path) override;
  std::uint32_t GetFreeBytes(const std::string& folder, std::uint64_t& bytes) override;
  std::string Resolve(const std::string& path) override;
  std::string AbsolutePath(const std::string& path) override;
  FileTime Now() override;
  FileTime PastMoment() override;
  std::uint64_t Milliseconds() override;
  ErrorWords Describe(std::uint32_t code) override;
};

}  // namespace zel::ctl
