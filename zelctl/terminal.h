// Where the answers go. Pure.
//
// Texts are UTF-8. Threads: one thread.
#pragma once

#include <optional>
#include <string_view>

#include "zelctl/map_text.h"

namespace zel::ctl {

class Terminal {
 public:
  virtual ~Terminal() = default;

  // Standard output. False when it cannot be written any more.
  [[nodiscard]] virtual bool Print(std::string_view text) = 0;

  // Standard error, in lines of its own.
  virtual void Note(std::string_view line) = 0;

  // A line of standard error that the next one takes the place of; an empty one clears it.
  virtual void DrawProgress(std::string_view line) = 0;

  // Asks the person at the keyboard a question of yes or no, and waits. None, and nothing asked,
  // where input or standard error is a pipe or a file.
  [[nodiscard]] virtual std::optional<bool> Ask(std::string_view question) = 0;

  [[nodiscard]] virtual bool prints_to_person() const = 0;  // standard output is no pipe or file
  [[nodiscard]] virtual bool notes_to_person() const = 0;   // the same for standard error
  [[nodiscard]] virtual TextMapLayout map_layout() const = 0;
};

}  // namespace zel::ctl
