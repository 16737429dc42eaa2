// How many enumerations a client may have open: each keeps memory until it ends or its client goes
// away.
//
// Threads: any.
#pragma once

#include <string>

namespace zel {

// An agent has one for each of its threads, and those that it has given up and kept connected.
inline constexpr int kMaxListsOfAClient = 1000;

// One client's place for one enumeration, from its first call to its last or its rundown.
class ListSlot {
 public:
  explicit ListSlot(std::wstring client);
  ~ListSlot();
  ListSlot(const ListSlot&) = delete;
  ListSlot& operator=(const ListSlot&) = delete;

  // False when the client has kMaxListsOfAClient already.
  [[nodiscard]] bool taken() const { return taken_; }

 private:
  const std::wstring client_;
  const bool taken_;
};

}  // namespace zel
