// A copy while a run writes it: the record says that the run lives before each write that it does
// not cover yet. Pure.
#pragma once

#include "zelctl/copies/kept_copy.h"

namespace zel::ctl {

// Lifetime: borrows the copy, which exists and has been begun to be written.
// Errors: those of the record's file, too.
class LiveTarget : public TargetFile {
 public:
  explicit LiveTarget(KeptCopy& copy) : copy_(copy) {}

  std::uint32_t Identify(FileIdentity& identity) override { return file().Identify(identity); }
  std::uint32_t GetSize(std::uint64_t& size) override { return file().GetSize(size); }
  std::uint32_t Read(std::uint64_t offset, std::span<std::byte> buffer) override {
    return file().Read(offset, buffer);
  }
  bool HasHoles() override { return file().HasHoles(); }
  bool KeepHoles() override { return file().KeepHoles(); }
  std::uint32_t SetSize(std::uint64_t size) override {
    const std::uint32_t code = copy_.SayAlive();
    return code == 0 ? file().SetSize(size) : code;
  }
  std::uint32_t Write(std::uint64_t offset, std::span<const std::byte> bytes) override {
    const std::uint32_t code = copy_.SayAlive();
    return code == 0 ? file().Write(offset, bytes) : code;
  }
  std::uint32_t Flush() override { return file().Flush(); }
  std::uint32_t GetWriteTime(FileTime& written) override { return file().GetWriteTime(written); }
  std::uint32_t Stamp(FileTime now, FileTime& written) override {
    return file().Stamp(now, written);
  }

 private:
  [[nodiscard]] TargetFile& file() { return copy_.file(); }

  KeptCopy& copy_;
};

}  // namespace zel::ctl
