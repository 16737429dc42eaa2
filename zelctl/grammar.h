// The command line's grammar: which commands and options there are, and where what they are told
// goes. Not here: what a request means as a whole (command_line.h), the help (help_text.h). Pure.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>

#include "zelctl/request.h"

namespace zel::ctl {

inline constexpr char kProgram[] = "zelctl";
inline constexpr char kCommonGroup[] = "Common";  // the options of every command

// The name that a command has now, whatever it was called before.
[[nodiscard]] std::string_view NameNow(std::string_view name);

// Writes what is read into a request.
// Lifetime: borrows the request.
// Errors: parsing throws what the library does.
class Grammar {
 public:
  explicit Grammar(Request& request);
  Grammar(const Grammar&) = delete;
  Grammar& operator=(const Grammar&) = delete;

  [[nodiscard]] CLI::App& app() { return app_; }

 private:
  CLI::App* Add(Command command, std::string_view name);
  void AddCommonOptions(CLI::App& app);
  void AddQuestions();
  void AddTracking();
  CLI::Option* AddPath(CLI::App* command, const std::string& description);
  void AddBlockSize(CLI::App* command);
  void AddTime(CLI::App* command, const std::string& name, std::string& time,
               const std::string& description);
  void AddExport(std::string_view name);
  void AddBitmapCommands();
  void AddNoSync(CLI::App* command);
  void AddReplace(CLI::App* command);
  void AddServiceCopy(CLI::App* command);
  void AddShow();
  void AddBitmapChoice(CLI::App* command, const std::string& description);
  void AddFiles(CLI::App* command);
  void AddProgress(CLI::App* command);
  void AddBackup();
  void AddVerify();
  void AddApply();
  void AddTexts();

  Request& request_;
  CLI::App app_;
};

}  // namespace zel::ctl
