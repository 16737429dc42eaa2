// Where a copy lies, and under which names the files about it do. Pure.
//
// They lie in the folder ".zelctl" beside the copy, under the copy's file id: they are found
// however the copy is called there. A copy that does not exist yet has a checksum of its name
// instead.
//
// Threads: any thread.
#pragma once

#include <string>

#include "zelctl/machine.h"

namespace zel::ctl {

class CopyPlace {
 public:
  // `path` as it was told.
  CopyPlace(Machine& machine, std::string path);

  // For messages.
  [[nodiscard]] const std::string& told() const { return told_; }
  // As the system knows it.
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] const std::string& folder() const { return folder_; }

  // For the copy with that identity; one without a file id does not exist yet.
  [[nodiscard]] std::string record(const FileIdentity& copy) const;
  [[nodiscard]] std::string lock(const FileIdentity& copy) const;

  // Of the file that takes the copy's place.
  [[nodiscard]] std::string replacement() const;

 private:
  [[nodiscard]] std::string StemOf(const FileIdentity& copy) const;

  const std::string told_;
  const std::string path_;
  const std::string folder_;
  const std::string name_key_;  // what stands for the copy's name
};

}  // namespace zel::ctl
