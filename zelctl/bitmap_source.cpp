#include "zelctl/bitmap_source.h"

#include "zelctl/error_words.h"
#include "zelctl/id_text.h"

namespace zel::ctl {

namespace {

MaybeFailure Read(std::vector<std::byte> bytes, BitmapOrigin origin, const std::string& name,
                  BitmapFile& bitmap) {
  const auto fault = ReadBitmap(std::move(bytes), origin, bitmap);
  if (fault) return Refuse(name + " cannot be used: " + *fault);
  return std::nullopt;
}

}  // namespace

MaybeFailure FetchBitmap(Surroundings& with, const Request& request, BitmapId id,
                         BitmapFile& bitmap) {
  const std::string name = "bitmap " + FormatId(id);
  std::vector<std::byte> bytes;
  const Answer answer = with.server.CopyBitmap(id, bytes);
  if (auto failure = CheckAnswer(with.machine, request, answer, "cannot copy " + name,
                                 {{kNotFound, "there is no " + name}})) {
    return failure;
  }
  return Read(std::move(bytes), BitmapOrigin::kService, name, bitmap);
}

MaybeFailure LoadBitmap(Surroundings& with, const Request& request, BitmapFile& bitmap) {
  const std::string& file = request.bitmap.file;
  if (file.empty()) return FetchBitmap(with, request, request.bitmap.id, bitmap);
  std::vector<std::byte> bytes;
  const std::uint32_t code = ReadWholeFile(with.machine, file, bytes);
  if (auto failure = CheckSystem(with.machine, code, "cannot read " + file)) return failure;
  return Read(std::move(bytes), request.service_copy ? BitmapOrigin::kService : BitmapOrigin::kFile,
              file, bitmap);
}

MaybeFailure Synchronize(Surroundings& with, const Request& request, FileTime time) {
  return CheckAnswer(
      with.machine, request, with.server.SynchronizeBitmaps(time), "cannot synchronize",
      {{kTimeout,
        "the driver's reports up to that time did not come; is it in the future, or the driver "
        "behind? The service's log tells more"},
       {kShutdownInProgress, "the service is stopping"}});
}

}  // namespace zel::ctl
