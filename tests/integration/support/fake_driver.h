// Takes driver/'s place under the procedures: notes what they ask of the driver, and answers as
// the test says. Linked into a test instead of the real one.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "files/types.h"

namespace zel::test {

class FakeDriver {
 public:
  // What each question is answered with.
  static inline std::atomic<std::uint32_t> notify_code;
  static inline std::atomic<std::uint32_t> verify_code;
  static inline std::atomic<std::uint32_t> stop_code;
  static inline std::atomic<std::uint32_t> synchronize_code;
  static inline std::atomic<std::uint32_t> status_code;

  // Called by a notification and by a verification before it is answered.
  static inline std::function<void()> on_notify = [] {};
  static inline std::function<void()> on_verify = [] {};

  // What has been asked, in order, as "notify", "verify PATH ID", "stop PATH ID", "synchronize
  // TIME" and "status"; empties the list. Ids and times are decimal.
  static std::vector<std::string> Take();
};

}  // namespace zel::test
