// The two procedures that answer with a pipe.
#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

#include "bitmap/bitmap_manager.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "rpc/pipe_writer.h"
#include "rpc/procedures.h"
#include "rpc/tracked_files_stream.h"
#include "tracking/tracked_file_table.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

struct PipeOutcome {
  error_status_t code;
  std::uint32_t exception;  // of a push; then there is nobody left to tell the code
};

// Called where nothing is owned any more.
error_status_t AnswerOrRaise(PipeOutcome outcome) {
  if (outcome.exception != 0) ::RpcRaiseException(static_cast<RPC_STATUS>(outcome.exception));
  return outcome.code;
}

// Ends the pipe, owed for an error too: a client whose pipe stays open does not get the code.
PipeOutcome EndPipe(PipeWriter& writer, error_status_t code) {
  writer.End();
  return {code, writer.exception()};
}

// Pushes the first `length` bytes of the bitmap's file, through memory that does not fail as a view
// can: a fault inside the runtime would leave its locks behind. 0, the code of a fault, or
// ERROR_SHUTDOWN_IN_PROGRESS: a client that reads slowly does not hold the stop.
std::uint32_t PushBitmap(const PinnedBitmap& bitmap, std::uint32_t length, PipeWriter& writer) {
  std::vector<std::byte> chunk(std::min<std::size_t>(length, PipeWriter::kMaxChunk));
  for (std::size_t offset = 0; offset < length && writer.exception() == 0; offset += chunk.size()) {
    if (StopRequested) return ERROR_SHUTDOWN_IN_PROGRESS;
    chunk.resize(std::min(length - offset, chunk.size()));
    if (const std::uint32_t fault = ReadBitmap(bitmap, offset, chunk)) return fault;
    writer.Push(chunk);
  }
  return ERROR_SUCCESS;
}

PipeOutcome CopyBitmapInto(BitmapId bitmap_id, wire::BytePipe& pipe) noexcept {
  LogMessage(kBitmapDebug, L"CopyBitmap invoked: BitmapId 0x%016I64x\n", bitmap_id);
  PipeWriter writer(pipe);
  const PinnedBitmap bitmap = GetBitmapById(bitmap_id);
  if (!bitmap) {
    if (StopRequested) return EndPipe(writer, ERROR_SHUTDOWN_IN_PROGRESS);
    LogMessage(kBitmapError, L"Failed to find BitmapId 0x%016I64x to copy\n", bitmap_id);
    return EndPipe(writer, ERROR_NOT_FOUND);
  }
  BitmapFileHeader header = {};
  const std::uint32_t length = kBitmapHeaderSize + bitmap->BitmapSize;
  std::uint32_t error = ReadBitmapHeader(bitmap, header);
  if (error == ERROR_SUCCESS) error = PushBitmap(bitmap, length, writer);
  const PipeOutcome outcome = EndPipe(writer, error);
  if (outcome.exception == 0 && error == ERROR_SUCCESS) {
    LogMessage(kBitmapInfo, L"Copied BitmapId 0x%016I64x, %u bytes, Volume %s, FileId 0x%016I64x\n",
               bitmap_id, length, GuidToString(header.Volume).c_str(), header.FileId);
  }
  return outcome;
}

// Writes one file with the bitmaps that the snapshot has of it, and returns how many they are.
std::uint32_t PutFile(TrackedFilesWriter& stream, const TrackedFileEntry& file,
                      const std::vector<BitmapInfo>& bitmaps) {
  const auto count = static_cast<std::uint32_t>(bitmaps.size());
  stream.PutFile(file.VolumeGuid, file.FileId, file.Path, count);
  for (const BitmapInfo& bitmap : bitmaps) {
    stream.PutBitmap(bitmap.FileSize, bitmap.CreationTime, bitmap.BitmapId);
  }
  return count;
}

PipeOutcome WriteTrackedFiles(wire::BytePipe& pipe) noexcept {
  std::vector<TrackedFileEntry> files;
  CollectTrackedFiles(files);
  const std::map<FileKey, std::vector<BitmapInfo>> bitmaps = ListAllBitmaps();
  PipeWriter writer(pipe);
  if (StopRequested) return EndPipe(writer, ERROR_SHUTDOWN_IN_PROGRESS);  // the list may be closed
  TrackedFilesWriter stream([&](std::span<const std::byte> piece) { writer.Push(piece); });
  stream.PutFileCount(static_cast<std::uint32_t>(files.size()));
  std::uint32_t total = 0;
  for (const TrackedFileEntry& file : files) {
    if (StopRequested) return EndPipe(writer, ERROR_SHUTDOWN_IN_PROGRESS);
    const auto found = bitmaps.find({file.VolumeGuid, file.FileId});
    total +=
        PutFile(stream, file, found != bitmaps.end() ? found->second : std::vector<BitmapInfo>{});
  }
  const PipeOutcome outcome = EndPipe(writer, ERROR_SUCCESS);
  if (outcome.exception == 0) {
    LogMessage(kGeneralInfo,
               L"ZEL_GetTrackedFiles: Sent results for %llu tracked file and %u bitmaps\n",
               files.size(), total);
  }
  return outcome;
}

}  // namespace

error_status_t CopyBitmap(handle_t, BitmapId bitmap_id, wire::BytePipe* contents) {
  return AnswerOrRaise(CopyBitmapInto(bitmap_id, *contents));
}

error_status_t ZEL_GetTrackedFiles(handle_t, wire::BytePipe* stream) {
  return AnswerOrRaise(WriteTrackedFiles(*stream));
}

}  // namespace zel
