// The words of the manual that the grammar of the command line does not hold. Pure.
#pragma once

#include <span>
#include <string_view>

namespace zel::ctl {

struct ManualPage {
  std::string_view name;     // of a command, or of a topic
  std::string_view summary;  // one line
  std::string_view text;     // what follows usage and options; lines of at most 80 characters
};

// In the order in which they are listed.
[[nodiscard]] std::span<const ManualPage> CommandPages();
[[nodiscard]] std::span<const ManualPage> TopicPages();

// The page of a command. `name` is one.
[[nodiscard]] const ManualPage& CommandPage(std::string_view name);

}  // namespace zel::ctl
