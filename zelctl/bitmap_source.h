// Getting the bitmap that a command names. Pure.
#pragma once

#include "zelctl/bitmap_file.h"
#include "zelctl/commands.h"

namespace zel::ctl {

// From the service for an id, from the file otherwise.
[[nodiscard]] MaybeFailure LoadBitmap(Surroundings& with, const Request& request,
                                      BitmapFile& bitmap);

// From the service, whatever `request` names.
[[nodiscard]] MaybeFailure FetchBitmap(Surroundings& with, const Request& request, BitmapId id,
                                       BitmapFile& bitmap);

// Has the service set the bits of all writes up to `time`.
[[nodiscard]] MaybeFailure Synchronize(Surroundings& with, const Request& request, FileTime time);

}  // namespace zel::ctl
