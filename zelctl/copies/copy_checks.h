// What speaks against touching a copy: refusals in words. Pure.
#pragma once

#include <string>

#include "zelctl/bitmap_source.h"
#include "zelctl/commands.h"
#include "zelctl/copies/copy_rule.h"
#include "zelctl/copies/kept_copy.h"

namespace zel::ctl {

inline constexpr char kNeedsFull[] = "a full copy is needed (--full)";

// The source must be the bitmap's file, unless it is said to be a snapshot of it.
[[nodiscard]] MaybeFailure CheckSourceIdentity(const Request& request, const FileIdentity& source,
                                               const FileIdentity& of);

// The copy must be neither the source nor the live file that it is a copy of, whatever is said, and
// no other file that the service tracks unless --replace says so. A service that does not answer
// leaves only what is known as a copy of that file: it has been written by this program before.
// `unknown` is what else refuses the copy, if anything does: it is answered after that, and where
// the service does not answer in its place.
[[nodiscard]] MaybeFailure CheckPlace(Surroundings& with, const Request& request,
                                      const KeptCopy& copy, const FileIdentity& source,
                                      const FileIdentity& of, const MaybeFailure& unknown);

// A copy of which nothing is known, or another file's, is replaced only when --replace says so.
[[nodiscard]] MaybeFailure CheckMayReplace(const Request& request, const KeptCopy& copy,
                                           const FileIdentity& of);

// The record to go on with: what is known, or what --as-of says.
[[nodiscard]] MaybeFailure KnownRecord(Machine& machine, const Request& request,
                                       const KeptCopy& copy, const FileIdentity& of,
                                       CopyRecord& record);

// The rule, in words. `snapshot` as CheckRule takes it. Of a copy that was left half way the
// service is asked whether it still has the bitmap.
[[nodiscard]] MaybeFailure CheckRuleInWords(Surroundings& with, const std::string& path,
                                            const CopyRecord& record, const OfferedBitmap& bitmap,
                                            std::optional<FileTime> snapshot);

// When the source was taken, if it is said to be a snapshot. The grammar has refused what is no
// time.
[[nodiscard]] std::optional<FileTime> SnapshotTime(Machine& machine, const Request& request);

// Whether a full copy helps where this failure came up.
[[nodiscard]] bool FullHelps(const Failure& failure);

// "file 0x... on volume ...".
[[nodiscard]] std::string IdentityText(const FileIdentity& identity);

}  // namespace zel::ctl
