// Any bytes as a registry value: the walk ends and stays inside them; the list that it gives is
// written as a value that reads back equal.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tracking/volume_list.h"
#include "tracking/volume_list_format.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

struct Free {
  void operator()(void* bytes) const { std::free(bytes); }
};

zel::VolumeFileList ReadList(zel::TrackedFileListReader& reader) {
  zel::VolumeFileList list(*reader.volume_guid());
  while (const auto record = reader.Next()) {
    Require(record->Path.size() <= zel::kMaxTrackedPath);
    list.Set(record->Path, record->FileId);
    Require(list.Find(record->Path) == record->FileId && list.HasFileId(record->FileId));
  }
  return list;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  // A block that ends where the value does, for AddressSanitizer.
  const std::unique_ptr<std::byte, Free> value(static_cast<std::byte*>(std::malloc(size)));
  if (size != 0) std::memcpy(value.get(), data, size);
  zel::TrackedFileListReader reader({value.get(), size});
  Require(reader.volume_guid().has_value() == (size >= 22));
  if (!reader.volume_guid()) {
    Require(!reader.Next() && reader.IsDamaged());
    return 0;
  }
  const zel::VolumeFileList list = ReadList(reader);

  zel::TrackedFileListReader again(list.value());
  const zel::VolumeFileList read_back = ReadList(again);
  Require(!again.IsDamaged() && std::ranges::equal(read_back.value(), list.value()));
  return 0;
}
