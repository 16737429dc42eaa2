// The record of a copy on the device. Pure.
#pragma once

#include <optional>
#include <string>

#include "zelctl/copies/copy_record.h"
#include "zelctl/failure.h"
#include "zelctl/machine.h"

namespace zel::ctl {

struct StoredRecord {
  bool exists = false;
  std::optional<CopyRecord> record = {};  // none in a file that is damaged
};

// No failure where there is none.
[[nodiscard]] MaybeFailure ReadRecordFile(Machine& machine, const std::string& path,
                                          StoredRecord& stored);

// It is on the device afterwards; after a failure the one before still is.
[[nodiscard]] MaybeFailure WriteRecordFile(Machine& machine, const std::string& path,
                                           const CopyRecord& record);

}  // namespace zel::ctl
