#include "logging/config_file.h"

#include <share.h>
#include <stdio.h>

#include <memory>
#include <optional>
#include <string>

#include "logging/config_parser.h"
#include "logging/log_message.h"
#include "logging/settings.h"

namespace zel {

namespace {

struct StreamCloser {
  void operator()(FILE* stream) const noexcept { std::fclose(stream); }
};

// The whole text, line ends as "\n". An editor may go on writing while it is read: the change
// notification that follows reads it again.
std::optional<std::string> ReadTextFile(const wchar_t* path) {
  const std::unique_ptr<FILE, StreamCloser> stream(::_wfsopen(path, L"r", _SH_DENYNO));
  if (!stream) return std::nullopt;
  std::string text;
  char chunk[4096];
  while (const std::size_t got = std::fread(chunk, 1, sizeof chunk, stream.get())) {
    text.append(chunk, got);
  }
  if (std::ferror(stream.get()) != 0) return std::nullopt;
  return text;
}

}  // namespace

void ReadConfigFile(const wchar_t* path) {
  const std::optional<std::string> text = ReadTextFile(path);
  if (!text) return;
  const Configuration configuration = ParseConfiguration(*text);
  LogEnableMask = ComputeLogEnableMask(configuration.levels);

  const std::int64_t old_idle = BitmapIdleTimeout;
  if (configuration.bitmap_idle_timeout != old_idle) {
    LogMessage(kGeneralInfo, L"Changing bitmap idle timeout from %I64d to %I64d seconds\n",
               old_idle, configuration.bitmap_idle_timeout);
    BitmapIdleTimeout = configuration.bitmap_idle_timeout;
  }
  const std::int64_t old_sync = SyncTimeout;
  if (configuration.sync_timeout != old_sync) {
    LogMessage(kGeneralInfo, L"Changing sync timeout from %I64d to %I64d seconds\n", old_sync,
               configuration.sync_timeout);
    SyncTimeout = configuration.sync_timeout;
  }
}

}  // namespace zel
