#include "zelctl/copies/record_file.h"

#include "zelctl/error_words.h"

namespace zel::ctl {

MaybeFailure ReadRecordFile(Machine& machine, const std::string& path, StoredRecord& stored) {
  std::vector<std::byte> contents;
  const std::uint32_t code = ReadWholeFile(machine, path, contents);
  stored = {};
  if (code == kFileNotFound) return std::nullopt;
  if (auto failure = CheckSystem(machine, code, "cannot read " + path)) return failure;
  stored.exists = true;
  stored.record = ParseRecord({reinterpret_cast<const char*>(contents.data()), contents.size()});
  return std::nullopt;
}

MaybeFailure WriteRecordFile(Machine& machine, const std::string& path, const CopyRecord& record) {
  const std::string text = FormatRecord(record);
  const std::uint32_t code =
      WriteWholeFile(machine, path, path + ".new", std::as_bytes(std::span(text)));
  return CheckSystem(machine, code, "cannot write " + path);
}

}  // namespace zel::ctl
