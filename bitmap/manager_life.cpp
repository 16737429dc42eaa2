// The start and the end of the bitmap manager.
#include "bitmap/bitmap_manager.h"
#include "bitmap/bitmap_sweep.h"
#include "bitmap/flusher.h"
#include "bitmap/idle_scanner.h"
#include "bitmap/startup_scan.h"
#include "bitmap/unread_directories.h"
#include "files/install_directory.h"
#include "logging/log_message.h"

namespace zel {

namespace {

void Scan() {
  UnloadIdleBitmaps();
  ReadUnreadDirectories(AddBitmapFoundLate);
}

}  // namespace

void InitBitmapManager() {
  AllowLoads(true);
  StartFlusher();
  StartIdleScanner(Scan);
  LogMessage(kBitmapInfo, L"InitBitmapManager: initializing cache\n");
  SetUnreadDirectories(FindBitmapFiles({.path = GetCbtDirectory()}, AddBitmap));
}

void ShutdownBitmapManager() {
  HurryScans(true);
  StopIdleScanner();
  HurryScans(false);
  AllowLoads(false);
  UnloadAllBitmaps();
  LogUnreadDirectories();
  SetUnreadDirectories({});
  StopFlusher();
}

}  // namespace zel
