#include "zelctl/file_list.h"

#include <algorithm>

#include "zelctl/error_words.h"
#include "zelctl/path_text.h"

namespace zel::ctl {

MaybeFailure ListFiles(Surroundings& with, const Request& request, std::vector<FileEntry>& files) {
  return CheckAnswer(with.machine, request, with.server.GetTrackedFiles(files),
                     "cannot list the tracked files");
}

const FileEntry* FindFile(const std::vector<FileEntry>& files, const std::string& path) {
  const auto found = std::ranges::find(files, FoldCase(path),
                                       [](const FileEntry& file) { return FoldCase(file.path); });
  return found == files.end() ? nullptr : &*found;
}

std::size_t CountBitmaps(const std::vector<FileEntry>& files) {
  std::size_t bitmaps = 0;
  for (const FileEntry& file : files) bitmaps += file.bitmaps.size();
  return bitmaps;
}

bool HasBitmap(const std::vector<FileEntry>& files, BitmapId id) {
  return std::ranges::any_of(files, [id](const FileEntry& file) {
    return std::ranges::find(file.bitmaps, id) != file.bitmaps.end();
  });
}

}  // namespace zel::ctl
