// What an enumeration keeps between its calls: the snapshot that its first call took.
//
// Threads: one call at a time uses a context; the RPC runtime sees to it.
// Lifetime: made by an enumeration's first call; freed by its last, or by the rundown routine of
// rpc/procedures.h when the client goes away before.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "rpc/zel_interface.h"
#include "tracking/tracked_file_table.h"

namespace zel {

// A client may hand any context of its own to either enumeration: the runtime checks whose it is
// and not its kind. So both kinds have a common base, and the procedures check.
class ListContext {
 public:
  ListContext() = default;
  ListContext(const ListContext&) = delete;
  ListContext& operator=(const ListContext&) = delete;
  virtual ~ListContext() = default;
};

template <class Entry>
class ListContextOf : public ListContext {
 public:
  std::vector<Entry> list;

  // The entry at the cursor; null behind the last.
  [[nodiscard]] const Entry* Current() const {
    return cursor_ < list.size() ? &list[cursor_] : nullptr;
  }
  void Advance() { ++cursor_; }

 private:
  std::size_t cursor_ = 0;
};

struct ListedBitmap {
  wire::BitmapInfo info;
  std::wstring name;
};

using FileListContext = ListContextOf<TrackedFileEntry>;
using BitmapListContext = ListContextOf<ListedBitmap>;

}  // namespace zel
