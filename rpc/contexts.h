// What an enumeration keeps between its calls: the snapshot that its first call took.
//
// Threads: one call at a time uses a context; the RPC runtime sees to it.
// Lifetime: made by an enumeration's first call; freed by its last, or by the rundown routine of
// rpc/procedures.h when the client goes away before.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "rpc/list_slot.h"
#include "rpc/zel_interface.h"
#include "tracking/tracked_file_table.h"

namespace zel {

// A client may hand any context of its own to either enumeration: the runtime checks whose it is
// and not its kind. So both kinds have a common base, and the procedures check.
class ListContext {
 public:
  explicit ListContext(std::unique_ptr<ListSlot> slot) : slot_(std::move(slot)) {}
  ListContext(const ListContext&) = delete;
  ListContext& operator=(const ListContext&) = delete;
  virtual ~ListContext() = default;

 private:
  std::unique_ptr<ListSlot> slot_;
};

template <class Entry>
class ListContextOf : public ListContext {
 public:
  using List = std::shared_ptr<const std::vector<Entry>>;

  // `list` may be shared by enumerations that list the same.
  ListContextOf(std::unique_ptr<ListSlot> slot, List list)
      : ListContext(std::move(slot)), list_(std::move(list)) {}

  // The entry at the cursor; null behind the last.
  [[nodiscard]] const Entry* Current() const {
    return cursor_ < list_->size() ? &(*list_)[cursor_] : nullptr;
  }
  void Advance() { ++cursor_; }

 private:
  List list_;
  std::size_t cursor_ = 0;
};

struct ListedBitmap {
  wire::BitmapInfo info;
  std::wstring name;
};

using FileListContext = ListContextOf<TrackedFileEntry>;
using BitmapListContext = ListContextOf<ListedBitmap>;

}  // namespace zel
