// Standard output and standard error.
#pragma once

#include <windows.h>

#include "zelctl/terminal.h"

namespace zel::ctl {

// A console gets its own UTF-16; pipes and files get UTF-8.
class Win32Terminal : public Terminal {
 public:
  Win32Terminal();

  bool Print(std::string_view text) override;
  void Note(std::string_view line) override;
  void DrawProgress(std::string_view line) override;
  std::optional<bool> Ask(std::string_view question) override;
  bool prints_to_person() const override { return output_.is_console; }
  bool notes_to_person() const override { return errors_.is_console; }
  TextMapLayout map_layout() const override;

 private:
  struct Stream {
    HANDLE handle;  // the process's; null without one
    bool is_console;
  };
  [[nodiscard]] static Stream OpenStream(DWORD which);
  [[nodiscard]] static bool Write(const Stream& stream, std::string_view text);

  Stream input_;
  Stream output_;
  Stream errors_;
  std::size_t drawn_ = 0;  // characters of the progress line that stands there
};

}  // namespace zel::ctl
