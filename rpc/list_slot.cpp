#include "rpc/list_slot.h"

#include <map>
#include <utility>

#include "win32/critical_section.h"
#include "win32/lock_guard.h"

namespace zel {

namespace {

CriticalSection slotsLock;

// By client; none that has none open. Never destroyed: rundowns may come while the process ends.
std::map<std::wstring, int>& OpenLists() ZEL_REQUIRES(slotsLock) {
  static auto& open = *new std::map<std::wstring, int>;
  return open;
}

bool Take(const std::wstring& client) ZEL_EXCLUDES(slotsLock) {
  const LockGuard guard(slotsLock);
  int& open = OpenLists()[client];
  if (open == kMaxListsOfAClient) return false;
  ++open;
  return true;
}

}  // namespace

ListSlot::ListSlot(std::wstring client) : client_(std::move(client)), taken_(Take(client_)) {}

ListSlot::~ListSlot() {
  if (!taken_) return;
  const LockGuard guard(slotsLock);
  const auto open = OpenLists().find(client_);
  if (--open->second == 0) OpenLists().erase(open);
}

}  // namespace zel
