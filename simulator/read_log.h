// Which bytes of which files programs have asked for. Test bench only. Pure.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "files/types.h"

namespace zel::sim {

class ReadLog {
 public:
  // What would lie behind the last of 2^64 bytes counts and has no place.
  void Add(const FileKey& file, std::uint64_t offset, std::uint64_t length);

  // "BYTES OFFSET+LENGTH ...": all bytes that were read of the file since the last call, those read
  // twice counted twice, and where they lie, in order and merged.
  [[nodiscard]] std::string Take(const FileKey& file);

 private:
  struct Reads {
    std::uint64_t bytes = 0;
    std::map<std::uint64_t, std::uint64_t> ends;  // of each range by its begin; a gap between two
  };
  std::map<FileKey, Reads> files_;
};

}  // namespace zel::sim
