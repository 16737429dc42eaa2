// The bitmaps that a round of backup works with: the ones that were begun for its copy, the next
// one, and what an earlier round has left. What is known of the copy names them before and after
// each step, so that a round that was broken off anywhere is taken up by the next. Pure.
#pragma once

#include <vector>

#include "zelctl/bitmap_source.h"
#include "zelctl/commands.h"
#include "zelctl/copies/kept_copy.h"
#include "zelctl/copies/own_bitmaps.h"

namespace zel::ctl {

// Threads: one thread.
// Lifetime: borrows everything that it is given.
class RoundBitmaps {
 public:
  // `record`: of the copy, with its file; its bitmaps are kept up to date.
  RoundBitmaps(Surroundings& with, const Request& request, Output& output, KeptCopy& copy,
               CopyRecord& record)
      : with_(with), request_(request), output_(output), copy_(copy), record_(record) {}

  // Forgets what the service does not have any more, and tells what an earlier round may have left.
  // Called once, first, and when the record is as it was found.
  [[nodiscard]] MaybeFailure Find();

  // Has the next bitmap begun, unless an earlier round has.
  [[nodiscard]] MaybeFailure EnsureNext();
  // Another one, when that of an earlier round cannot be trusted any more.
  [[nodiscard]] MaybeFailure EnsureTrustedNext();
  // After EnsureNext.
  [[nodiscard]] const OwnBitmap& next() const { return next_; }
  // As of when the copy will be.
  [[nodiscard]] FileTime moment() const { return moment_; }

  // One that was begun for the copy, with all writes up to moment().
  [[nodiscard]] MaybeFailure Take(const OwnBitmap& own, TakenBitmap& bitmap);

  // Those that the copy, as its record is now, does not need any more.
  [[nodiscard]] MaybeFailure DeleteUsedUp();

 private:
  [[nodiscard]] MaybeFailure List(std::vector<BitmapEntry>& listed);
  void TellWhatWasLeft();
  [[nodiscard]] MaybeFailure BeginNext();
  [[nodiscard]] FileTime MomentAfter(const OwnBitmap& begun);

  Surroundings& with_;
  const Request& request_;
  Output& output_;
  KeptCopy& copy_;
  CopyRecord& record_;
  std::vector<BitmapEntry> listed_;  // the file's bitmaps when this round began
  OwnBitmap next_;
  bool next_is_new_ = false;
  FileTime moment_ = 0;
};

}  // namespace zel::ctl
