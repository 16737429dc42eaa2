// What a log call names: category times 5 plus level, 0 to 14.
#pragma once

#include <cstdint>

namespace zel {

enum LogLevel : int { kTrace = 0, kDebug = 1, kInfo = 2, kWarn = 3, kError = 4 };
inline constexpr int kLogLevels = 5;

enum LogCategory : int { kGeneral = 0, kBitmap = 1, kDriverComm = 2 };
inline constexpr int kLogCategories = 3;

constexpr int LogSelector(LogCategory category, LogLevel level) {
  return category * kLogLevels + level;
}

inline constexpr int kGeneralTrace = LogSelector(kGeneral, kTrace);
inline constexpr int kGeneralDebug = LogSelector(kGeneral, kDebug);
inline constexpr int kGeneralInfo = LogSelector(kGeneral, kInfo);
inline constexpr int kGeneralWarn = LogSelector(kGeneral, kWarn);
inline constexpr int kGeneralError = LogSelector(kGeneral, kError);
inline constexpr int kBitmapTrace = LogSelector(kBitmap, kTrace);
inline constexpr int kBitmapDebug = LogSelector(kBitmap, kDebug);
inline constexpr int kBitmapInfo = LogSelector(kBitmap, kInfo);
inline constexpr int kBitmapWarn = LogSelector(kBitmap, kWarn);
inline constexpr int kBitmapError = LogSelector(kBitmap, kError);
inline constexpr int kDriverCommTrace = LogSelector(kDriverComm, kTrace);
inline constexpr int kDriverCommDebug = LogSelector(kDriverComm, kDebug);
inline constexpr int kDriverCommInfo = LogSelector(kDriverComm, kInfo);
inline constexpr int kDriverCommWarn = LogSelector(kDriverComm, kWarn);
inline constexpr int kDriverCommError = LogSelector(kDriverComm, kError);

}  // namespace zel
