#include "rpc/recent_texts.h"

#include <algorithm>

namespace zel {

bool RecentTexts::Admit(std::wstring_view text, std::uint64_t now_ms) {
  std::erase_if(said_, [now_ms](const Said& said) { return now_ms - said.at_ms >= kKeptMs; });
  if (said_.size() == kMaxTexts || std::ranges::find(said_, text, &Said::text) != said_.end()) {
    return false;
  }
  said_.push_back({std::wstring(text), now_ms});
  return true;
}

}  // namespace zel
