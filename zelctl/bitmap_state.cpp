#include "zelctl/bitmap_state.h"

#include "zelctl/bitmap_file.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/json_shapes.h"

namespace zel::ctl {

MaybeFailure ReadState(Surroundings& with, const Request& request, BitmapId id,
                       BitmapState& state) {
  std::vector<std::byte> bytes;
  const Answer answer = CopyBitmapTo(with.server, id, bytes);
  state = {.trust = "damaged"};
  // One that cannot be loaded is answered so, too.
  if (answer.rpc_status == 0 && answer.code == kNotFound) return std::nullopt;
  if (auto failure =
          CheckAnswer(with.machine, request, answer, "cannot copy bitmap " + FormatId(id))) {
    return failure;
  }
  BitmapFile bitmap;
  if (ReadBitmap(std::move(bytes), BitmapOrigin::kService, bitmap)) return std::nullopt;
  state = {.trust = TrustWord(TrustOf(bitmap)),
           .changed = CountChanges(bitmap, bitmap.header.FileSize)};
  return std::nullopt;
}

std::string FormatAge(FileTime begun, FileTime now) {
  const std::uint64_t seconds = now > begun ? (now - begun) / kFileTimeUnitsPerSecond : 0;
  if (seconds < 60) return std::to_string(seconds) + " s";
  if (seconds < 60 * 60) return std::to_string(seconds / 60) + " min";
  if (seconds < 48 * 60 * 60) return std::to_string(seconds / 60 / 60) + " h";
  return std::to_string(seconds / 24 / 60 / 60) + " d";
}

}  // namespace zel::ctl
