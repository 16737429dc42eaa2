// Which texts were said lately, so that somebody who goes on causing one does not fill the log with
// it. Pure.
//
// Units: milliseconds of any clock that does not go back.
// Threads: none; its owner's lock.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zel {

class RecentTexts {
 public:
  static constexpr std::uint64_t kKeptMs = 60'000;
  static constexpr std::size_t kMaxTexts = 64;

  // Whether `text` is to be said at `now_ms`: not when it was within kKeptMs, nor when kMaxTexts
  // others were.
  [[nodiscard]] bool Admit(std::wstring_view text, std::uint64_t now_ms);

 private:
  struct Said {
    std::wstring text;
    std::uint64_t at_ms;
  };
  std::vector<Said> said_;
};

}  // namespace zel
