// Getting the bitmap that a command names. Pure.
#pragma once

#include "zelctl/bitmap_file.h"
#include "zelctl/commands.h"
#include "zelctl/copies/copy_rule.h"

namespace zel::ctl {

// A bitmap and what is known of how it came here.
struct TakenBitmap {
  BitmapFile file;  // known_until holds, wherever it comes from
  FileTime taken = 0;
  bool is_current = false;  // the service has synchronized and sent it just now

  [[nodiscard]] OfferedBitmap offered() const;
};

// From the service for an id, which it synchronizes first unless `request` says otherwise; from the
// file otherwise.
[[nodiscard]] MaybeFailure TakeBitmap(Surroundings& with, const Request& request,
                                      TakenBitmap& bitmap);

// From the service, whatever `request` names, with all writes up to `moment`.
[[nodiscard]] MaybeFailure TakeCurrentBitmap(Surroundings& with, const Request& request,
                                             BitmapId id, FileTime moment, TakenBitmap& bitmap);

// None for an answer with which the service has sent the bitmap.
[[nodiscard]] MaybeFailure CheckSent(Surroundings& with, const Request& request, BitmapId id,
                                     const Answer& answer);

// Has the service begin another bitmap of that file, which is tracked from then on.
[[nodiscard]] MaybeFailure BeginBitmap(Surroundings& with, const Request& request,
                                       const std::string& path, BitmapEntry& bitmap);

// Has the service set the bits of all writes up to `time`.
[[nodiscard]] MaybeFailure Synchronize(Surroundings& with, const Request& request, FileTime time);

// None for a bitmap that can be trusted.
[[nodiscard]] MaybeFailure CheckTrust(const BitmapFile& bitmap);

}  // namespace zel::ctl
