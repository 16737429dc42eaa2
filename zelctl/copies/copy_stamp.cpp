#include "zelctl/copies/copy_stamp.h"

namespace zel::ctl {

namespace {

constexpr FileTime kCoarsestTime = 20'000'000;  // 2 s: some file systems keep no finer times

}  // namespace

bool IsAsLeft(const CopyRecord& record, const CopyStamp& stamp) {
  const bool is_untouched = stamp.size == record.size && stamp.written == record.written;
  if (!record.half_way || is_untouched) return is_untouched;
  const HalfWay& half = *record.half_way;
  return (stamp.size == record.size || stamp.size == half.size) &&
         stamp.written + kCoarsestTime >= half.from && stamp.written <= half.until + kCoarsestTime;
}

}  // namespace zel::ctl
