// Reading the install directory with retries. Pure: the caller reads and sleeps.
#pragma once

#include "files/layout.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zel {

// The buffer for the install directory: characters, and the bytes that they are in the registry.
inline constexpr std::size_t kInstallDirectoryChars = kMaxPathLength + 1;
inline constexpr std::uint32_t kInstallDirectoryBytes = 2 * kInstallDirectoryChars;

// The first read offers half of the buffer: a value of up to 129 characters. A longer one is read
// by a retry, with the size that the failed read asked for.
inline constexpr std::uint32_t kFirstReadBytes = kInstallDirectoryBytes / 2;

inline constexpr int kInstallDirectoryRetries = 3;
inline constexpr std::uint32_t kInstallDirectoryRetryDelayMs = 5000;

// One read, which leaves `size_bytes` as `read` does. Afterwards the buffer holds a terminated
// string, the empty one when the read failed.
template <class Read>
void ReadInstallDirectoryOnce(wchar_t (&buffer)[kInstallDirectoryChars], std::uint32_t& size_bytes,
                              Read& read) {
  std::ranges::fill(buffer, L'\0');
  // A string may stand in the registry without its terminator and then fill the buffer.
  if (!read(buffer, size_bytes) || buffer[kInstallDirectoryChars - 1] != L'\0') {
    std::ranges::fill(buffer, L'\0');
  }
}

// A path is put together with a backslash of its own: two in a row are an error in the "\\?\" form.
inline void CutTrailingBackslashes(wchar_t (&buffer)[kInstallDirectoryChars]) {
  for (std::size_t end = std::wstring_view(buffer).size(); end != 0 && buffer[end - 1] == L'\\';) {
    buffer[--end] = L'\0';
  }
}

// Fills `buffer` by bool read(wchar_t* buffer, std::uint32_t& size_bytes), which writes at most
// `size_bytes` and leaves there what it wrote or would have needed. While the buffer is empty, up
// to three more times: sleep(milliseconds), then another read with the size left by the last one.
// Backslashes at the end are cut.
template <class Read, class Sleep>
void ReadInstallDirectory(wchar_t (&buffer)[kInstallDirectoryChars], Read read, Sleep sleep) {
  std::uint32_t size_bytes = kFirstReadBytes;
  ReadInstallDirectoryOnce(buffer, size_bytes, read);
  for (int retry = 0; buffer[0] == L'\0' && retry < kInstallDirectoryRetries; ++retry) {
    sleep(kInstallDirectoryRetryDelayMs);
    size_bytes = std::min(size_bytes, kInstallDirectoryBytes);
    ReadInstallDirectoryOnce(buffer, size_bytes, read);
  }
  CutTrailingBackslashes(buffer);
}

}  // namespace zel
