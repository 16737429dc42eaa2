#include "zelctl/block_copy.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace zel::ctl {

namespace {

using Step = CopyFault::Step;
using MaybeFault = std::optional<CopyFault>;

constexpr std::size_t kPieceBytes = std::size_t{1} << 20;

MaybeFault Check(Step step, std::uint32_t code) {
  if (code == 0) return std::nullopt;
  return CopyFault{.step = step, .code = code};
}

// NTFS makes no smaller holes.
constexpr std::size_t kUnitBytes = std::size_t{64} << 10;

bool IsZero(std::span<const std::byte> unit) {
  return std::ranges::all_of(unit, [](std::byte value) { return value == std::byte{0}; });
}

std::span<const std::byte> FirstUnit(std::span<const std::byte> bytes) {
  return bytes.first(std::min(bytes.size(), kUnitBytes));
}

// The length of the whole units at the beginning that are zeros, or that are not.
std::size_t LengthOf(bool zeros, std::span<const std::byte> bytes) {
  std::size_t length = 0;
  while (length < bytes.size() && IsZero(FirstUnit(bytes.subspan(length))) == zeros) {
    length += FirstUnit(bytes.subspan(length)).size();
  }
  return length;
}

std::uint32_t WriteAllButZeros(TargetFile& copy, std::uint64_t offset,
                               std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const std::size_t zeros = LengthOf(true, bytes);
    const std::span data = bytes.subspan(zeros, LengthOf(false, bytes.subspan(zeros)));
    const std::uint32_t code = data.empty() ? 0 : copy.Write(offset + zeros, data);
    if (code != 0) return code;
    offset += zeros + data.size();
    bytes = bytes.subspan(zeros + data.size());
  }
  return 0;
}

// Copies ranges through one buffer and counts their bytes.
class RangeCopier {
 public:
  RangeCopier(SourceFile& source, TargetFile& copy, bool leaves_zeros, const ByteCounter& done)
      : source_(source),
        copy_(copy),
        leaves_zeros_(leaves_zeros),
        done_(done),
        buffer_(kPieceBytes) {}

  [[nodiscard]] MaybeFault Copy(ByteRange range) {
    while (range.length > 0) {
      const std::span piece =
          std::span(buffer_).first(std::min<std::uint64_t>(range.length, buffer_.size()));
      MaybeFault fault = Check(Step::kReadSource, source_.Read(range.offset, piece));
      if (!fault) fault = Check(Step::kWriteCopy, Write(range.offset, piece));
      if (fault) return fault;
      range.offset += piece.size();
      range.length -= piece.size();
      done_(bytes_ += piece.size());
    }
    return std::nullopt;
  }

 private:
  [[nodiscard]] std::uint32_t Write(std::uint64_t offset, std::span<const std::byte> piece) {
    return leaves_zeros_ ? WriteAllButZeros(copy_, offset, piece) : copy_.Write(offset, piece);
  }

  SourceFile& source_;
  TargetFile& copy_;
  const bool leaves_zeros_;
  const ByteCounter& done_;
  std::vector<std::byte> buffer_;
  std::uint64_t bytes_ = 0;
};

// next(range) says whether there is one more range.
template <class NextRange>
MaybeFault CopyRanges(NextRange next, std::uint64_t source_size, bool leaves_zeros,
                      SourceFile& source, TargetFile& copy, const ByteCounter& done) {
  // First, so that a device without room for the copy says so at once.
  if (MaybeFault fault = Check(Step::kResizeCopy, copy.SetSize(source_size))) return fault;
  RangeCopier copier(source, copy, leaves_zeros, done);
  for (ByteRange range; next(range);) {
    if (MaybeFault fault = copier.Copy(range)) return fault;
  }
  return Check(Step::kFlushCopy, copy.Flush());
}

}  // namespace

MaybeFault CopyChanges(const BitmapFile& bitmap, std::uint64_t source_size, SourceFile& source,
                       TargetFile& copy, const ByteCounter& done) {
  ChangedRanges ranges(bitmap, source_size);
  const auto next = [&](ByteRange& range) { return ranges.Next(range); };
  return CopyRanges(next, source_size, false, source, copy, done);
}

MaybeFault CopyWhole(std::uint64_t source_size, SourceFile& source, TargetFile& copy,
                     const ByteCounter& done) {
  bool is_next = source_size > 0;
  const auto whole = [&](ByteRange& range) {
    range = {.offset = 0, .length = source_size};
    return std::exchange(is_next, false);
  };
  const bool leaves_zeros = source.HasHoles() && copy.KeepHoles();
  return CopyRanges(whole, source_size, leaves_zeros, source, copy, done);
}

MaybeFault CompareFrom(std::uint64_t begin, SourceFile& source, SourceFile& copy,
                       std::optional<std::uint64_t>& difference, const ByteCounter& done) {
  std::uint64_t source_size = 0;
  std::uint64_t copy_size = 0;
  MaybeFault fault = Check(Step::kReadSource, source.GetSize(source_size));
  if (!fault) fault = Check(Step::kReadCopy, copy.GetSize(copy_size));
  if (fault) return fault;
  const std::uint64_t common = std::min(source_size, copy_size);
  std::vector<std::byte> theirs(kPieceBytes);
  std::vector<std::byte> ours(kPieceBytes);
  for (std::uint64_t at = begin; at < common;) {
    const std::size_t count = std::min<std::uint64_t>(common - at, kPieceBytes);
    fault = Check(Step::kReadSource, source.Read(at, std::span(theirs).first(count)));
    if (!fault) fault = Check(Step::kReadCopy, copy.Read(at, std::span(ours).first(count)));
    if (fault) return fault;
    const auto end = theirs.begin() + static_cast<std::ptrdiff_t>(count);
    const auto differing = std::mismatch(theirs.begin(), end, ours.begin()).first;
    if (differing != end) {
      difference = at + static_cast<std::uint64_t>(differing - theirs.begin());
      return std::nullopt;
    }
    done(at += count);
  }
  difference = std::nullopt;
  if (source_size != copy_size && begin < std::max(source_size, copy_size)) {
    difference = std::max(begin, common);
  }
  return std::nullopt;
}

bool HasAllUnchanged(const BitmapFile& bitmap, std::uint64_t source_size, std::uint64_t copy_size) {
  std::uint64_t at = 0;  // everything before it is changed, or the copy has it
  ChangedRanges ranges(bitmap, source_size);
  for (ByteRange range; at < source_size && ranges.Next(range); at = range.end()) {
    if (range.offset > at && range.offset > copy_size) return false;
  }
  return at >= source_size || copy_size >= source_size;
}

}  // namespace zel::ctl
