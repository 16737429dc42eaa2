// The tracked files of one volume, kept as the bytes of their registry value. Pure.
//
// Every change rewrites the whole value in the registry: kept ready, it costs a change the moving
// of the bytes behind the record, not the putting together of all records.
// Format: docs/operations.md, "Tracked files".
// Threads: the lists of the tracked file table are used under TrackedFilesLock.
#pragma once

#include <algorithm>
#include <cstddef>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "files/types.h"

namespace zel {

// The order and the equality of paths: the letters A to Z count as a to z, nothing else is folded.
[[nodiscard]] constexpr char16_t FoldAsciiCase(char16_t unit) noexcept {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit - u'A' + u'a') : unit;
}

// Whether `a` comes before `b`, unit by unit; a path comes after its own beginning. Two paths of
// which neither comes before the other are the same.
template <class A, class B>
[[nodiscard]] constexpr bool PathLess(std::basic_string_view<A> a,
                                      std::basic_string_view<B> b) noexcept {
  return std::ranges::lexicographical_compare(a, b, {}, FoldAsciiCase, FoldAsciiCase);
}

class VolumeFileList {
 public:
  explicit VolumeFileList(const VolumeGuid& volume_guid);

  [[nodiscard]] const VolumeGuid& volume_guid() const { return volume_guid_; }

  // The registry value; valid until the next change.
  [[nodiscard]] std::span<const std::byte> value() const {
    return std::as_bytes(std::span(value_));
  }

  // The files, counted from 0 in the order of their paths.
  [[nodiscard]] std::size_t size() const { return offsets_.size(); }
  [[nodiscard]] bool empty() const { return offsets_.empty(); }
  [[nodiscard]] std::u16string_view PathAt(std::size_t index) const;
  [[nodiscard]] FileId FileIdAt(std::size_t index) const;

  // The id of `path`; 0 when it is not tracked, which a stored 0 means as well.
  [[nodiscard]] FileId Find(std::wstring_view path) const;

  // Whether some path has this id: one file can be tracked by several paths.
  [[nodiscard]] bool HasFileId(FileId file_id) const { return ids_.contains(file_id); }

  // Stores the id of `path`, of at most kMaxTrackedPath code units. False when it is stored
  // already. A path that is there in another case keeps the case it has.
  bool Set(std::wstring_view path, FileId file_id);

  // False when there is no such path.
  bool Erase(std::wstring_view path);

 private:
  [[nodiscard]] std::size_t LowerBound(std::wstring_view path) const;
  [[nodiscard]] bool IsAt(std::size_t index, std::wstring_view path) const;
  [[nodiscard]] std::size_t EndOf(std::size_t index) const;
  void Insert(std::size_t index, std::wstring_view path, FileId file_id);
  void WriteHeader();
  void WriteRecordHeader(std::size_t index, FileId file_id);

  VolumeGuid volume_guid_;
  std::u16string value_;              // all of its parts are of even length
  std::vector<std::size_t> offsets_;  // of the records in value_, in code units
  std::multiset<FileId> ids_;         // of the records: the cleanup asks for every directory
};

}  // namespace zel
