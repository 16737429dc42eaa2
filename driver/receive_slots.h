// The readers' slots in a file, so that a message in hand survives the process.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>

#include "driver/receive_slot.h"
#include "win32/handles.h"

namespace zel {

// One slot for each reader.
// Threads: made and closed by one; the slots are their readers'.
class ReceiveSlots {
 public:
  // In memory.
  ReceiveSlots() : memory_(std::make_unique<ReceiveSlot[]>(kMessageThreads)) {}

  // In a mapped file of kReceiveSlotsBytes.
  ReceiveSlots(UniqueFile file, UniqueMapping mapping, UniqueView<ReceiveSlot> view)
      : file_(std::move(file)), mapping_(std::move(mapping)), view_(std::move(view)) {}

  [[nodiscard]] ReceiveSlot& at(std::size_t reader) const {
    return (view_ ? view_.get() : memory_.get())[reader];
  }

  // When there is no reader any more.
  void Close() { *this = ReceiveSlots(UniqueFile(), UniqueMapping(), UniqueView<ReceiveSlot>()); }

 private:
  std::unique_ptr<ReceiveSlot[]> memory_;  // null when the slots are in the file
  UniqueFile file_;                        // members are torn down from the last to the first
  UniqueMapping mapping_;
  UniqueView<ReceiveSlot> view_;
};

// Handles what the file's last user had in hand when it died, empties the file (made where it is
// missing) and maps it. After the bitmaps are known, and before anybody reads from the port. When
// the file cannot be made, opened for writing or mapped that is logged once, and the slots are in
// memory: what is in hand then dies with the process. What it holds is handled all the same if it
// can be read; if it is there and cannot, every bitmap becomes unreliable, which is logged too.
[[nodiscard]] ReceiveSlots OpenReceiveSlots();

}  // namespace zel
