// Any text as a size, a time, an id, a GUID and a record of a copy: refused, or what is read is
// written the same way.
#include <cstdlib>
#include <string_view>

#include "zelctl/copies/copy_record.h"
#include "zelctl/id_text.h"
#include "zelctl/size_text.h"
#include "zelctl/time_text.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (const auto bytes = zel::ctl::ParseSize(text)) {
    Require(zel::ctl::ParseSize(std::to_string(*bytes)) == bytes);
    Require(!zel::ctl::FormatSize(*bytes).empty());
  }
  if (const auto time = zel::ctl::ParseTime(text, 7)) {
    Require(zel::ctl::ParseTime(zel::ctl::FormatTime(*time), 7) == time);
  }
  if (const auto id = zel::ctl::ParseId(text)) {
    Require(zel::ctl::ParseId(zel::ctl::FormatId(*id)) == id);
  }
  if (const auto guid = zel::ctl::ParseGuid(text)) Require(zel::ctl::FormatGuid(*guid) == text);
  if (const auto record = zel::ctl::ParseRecord(text)) {
    Require(zel::ctl::FormatRecord(*record) == text);
  }
  return 0;
}
