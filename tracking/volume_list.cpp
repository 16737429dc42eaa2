#include "tracking/volume_list.h"

#include <algorithm>
#include <cstring>

#include "tracking/volume_list_format.h"

namespace zel {

namespace {

constexpr std::size_t kUnitBytes = sizeof(char16_t);
constexpr std::size_t kHeaderUnits = sizeof(TrackedFileListHeader) / kUnitBytes;
constexpr std::size_t kRecordHeaderUnits = sizeof(TrackedFileHeader) / kUnitBytes;
static_assert(sizeof(TrackedFileListHeader) % kUnitBytes == 0 &&
              sizeof(TrackedFileHeader) % kUnitBytes == 0);

}  // namespace

VolumeFileList::VolumeFileList(const VolumeGuid& volume_guid)
    : volume_guid_(volume_guid), value_(kHeaderUnits, u'\0') {
  WriteHeader();
}

std::u16string_view VolumeFileList::PathAt(std::size_t index) const {
  const std::size_t begin = offsets_[index] + kRecordHeaderUnits;
  return std::u16string_view(value_).substr(begin, EndOf(index) - begin);
}

FileId VolumeFileList::FileIdAt(std::size_t index) const {
  TrackedFileHeader header;
  std::memcpy(&header, &value_[offsets_[index]], sizeof header);
  return header.file_id;
}

FileId VolumeFileList::Find(std::wstring_view path) const {
  const std::size_t index = LowerBound(path);
  return IsAt(index, path) ? FileIdAt(index) : 0;
}

bool VolumeFileList::Set(std::wstring_view path, FileId file_id) {
  const std::size_t index = LowerBound(path);
  if (!IsAt(index, path)) {
    Insert(index, path, file_id);
  } else {
    const FileId old_id = FileIdAt(index);
    if (old_id == file_id) return false;
    ids_.erase(ids_.find(old_id));
    WriteRecordHeader(index, file_id);
  }
  ids_.insert(file_id);
  return true;
}

bool VolumeFileList::Erase(std::wstring_view path) {
  const std::size_t index = LowerBound(path);
  if (!IsAt(index, path)) return false;
  ids_.erase(ids_.find(FileIdAt(index)));
  const std::size_t units = EndOf(index) - offsets_[index];
  value_.erase(offsets_[index], units);
  offsets_.erase(offsets_.begin() + static_cast<std::ptrdiff_t>(index));
  for (std::size_t& later : std::span(offsets_).subspan(index)) later -= units;
  WriteHeader();
  // The file may have been the last.
  if (!empty()) WriteRecordHeader(size() - 1, FileIdAt(size() - 1));
  return true;
}

// The first file whose path does not come before `path`; size() when there is none.
std::size_t VolumeFileList::LowerBound(std::wstring_view path) const {
  std::size_t begin = 0;
  for (std::size_t end = size(); begin < end;) {
    const std::size_t middle = begin + (end - begin) / 2;
    if (PathLess(PathAt(middle), path)) {
      begin = middle + 1;
    } else {
      end = middle;
    }
  }
  return begin;
}

// Whether the file that LowerBound found is the one.
bool VolumeFileList::IsAt(std::size_t index, std::wstring_view path) const {
  return index < size() && !PathLess(path, PathAt(index));
}

std::size_t VolumeFileList::EndOf(std::size_t index) const {
  return index + 1 < size() ? offsets_[index + 1] : value_.size();
}

void VolumeFileList::Insert(std::size_t index, std::wstring_view path, FileId file_id) {
  const std::size_t offset = index < size() ? offsets_[index] : value_.size();
  const std::size_t units = kRecordHeaderUnits + path.size();
  value_.insert(offset, units, u'\0');
  std::ranges::copy(path, &value_[offset] + kRecordHeaderUnits);
  offsets_.insert(offsets_.begin() + static_cast<std::ptrdiff_t>(index), offset);
  for (std::size_t& later : std::span(offsets_).subspan(index + 1)) later += units;
  WriteHeader();
  WriteRecordHeader(index, file_id);
  // The file before it may have been the last.
  if (index > 0) WriteRecordHeader(index - 1, FileIdAt(index - 1));
}

void VolumeFileList::WriteHeader() {
  const TrackedFileListHeader header = {kTrackedFileListMagic, volume_guid_,
                                        static_cast<std::uint32_t>(size())};
  std::memcpy(value_.data(), &header, sizeof header);
}

void VolumeFileList::WriteRecordHeader(std::size_t index, FileId file_id) {
  const bool is_last = index + 1 == size();
  const std::size_t bytes = (EndOf(index) - offsets_[index]) * kUnitBytes;
  const TrackedFileHeader header = {is_last ? 0 : static_cast<std::uint32_t>(bytes), file_id,
                                    static_cast<std::uint16_t>(bytes - sizeof header)};
  std::memcpy(&value_[offsets_[index]], &header, sizeof header);
}

}  // namespace zel
