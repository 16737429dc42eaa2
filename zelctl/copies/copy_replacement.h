// Another file that takes a copy's place when it is whole. Pure.
//
// It has a record of its own, which is on the device before the file is in its place.
//
// Threads: one thread.
// Lifetime: borrows the machine and the copy; what was begun and not put in place goes with this
// object.
#pragma once

#include <memory>

#include "zelctl/copies/kept_copy.h"

namespace zel::ctl {

class CopyReplacement {
 public:
  CopyReplacement(Machine& machine, KeptCopy& copy) : machine_(machine), copy_(copy) {}

  // An empty file, where it must have room for `size` bytes.
  [[nodiscard]] MaybeFailure Begin(std::uint64_t size);
  // Once it was begun.
  [[nodiscard]] ReplacementFile& file() { return *file_; }

  // The copy, which is closed for it, is this file then. Nothing is written to it after that.
  [[nodiscard]] MaybeFailure TakePlace(CopyRecord record);

 private:
  Machine& machine_;
  KeptCopy& copy_;
  std::unique_ptr<ReplacementFile> file_;
};

}  // namespace zel::ctl
