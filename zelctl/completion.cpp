#include "zelctl/completion.h"

namespace zel::ctl {

namespace {

std::string Join(const std::vector<std::string>& words, const std::string& separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

std::string CommandNames(const std::vector<CommandWords>& commands, const std::string& separator) {
  std::vector<std::string> names;
  for (const CommandWords& words : commands) names.push_back(words.command);
  return Join(names, separator);
}

}  // namespace

// The command is the first word that is one. Without a match the shell offers files (-o default).
std::string BashCompletion(const std::vector<CommandWords>& commands) {
  std::string script =
      "# zelctl for bash: source <(zelctl completion bash)\n"
      "_zelctl() {\n"
      "  local current=${COMP_WORDS[COMP_CWORD]} word command= words\n"
      "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
      "    case $word in " +
      CommandNames(commands, "|") +
      ") command=$word; break ;; esac\n"
      "  done\n"
      "  case $command in\n";
  for (const CommandWords& words : commands) {
    script += "    " + words.command + ") words=\"" + Join(words.values, " ") +
              (words.values.empty() ? "" : " ") + Join(words.options, " ") + "\" ;;\n";
  }
  return script + "    *) words=\"" + CommandNames(commands, " ") +
         "\" ;;\n"
         "  esac\n"
         "  COMPREPLY=($(compgen -W \"$words\" -- \"$current\"))\n"
         "}\n"
         "complete -o default -F _zelctl zelctl zelctl.exe\n";
}

std::string PowerShellCompletion(const std::vector<CommandWords>& commands) {
  std::string script =
      "# zelctl for PowerShell: zelctl completion powershell | Out-String | Invoke-Expression\n"
      "Register-ArgumentCompleter -Native -CommandName zelctl, zelctl.exe -ScriptBlock {\n"
      "  param($wordToComplete, $commandAst, $cursorPosition)\n"
      "  $words = [ordered]@{\n";
  for (const CommandWords& words : commands) {
    std::vector<std::string> quoted;
    for (const auto& list : {words.values, words.options}) {
      for (const std::string& word : list) quoted.push_back("'" + word + "'");
    }
    script += "    '" + words.command + "' = @(" + Join(quoted, ", ") + ")\n";
  }
  return script +
         "  }\n"
         "  $typed = $commandAst.CommandElements | Select-Object -Skip 1 | ForEach-Object { \"$_\" "
         "}\n"
         "  $command = $typed | Where-Object { $words.Contains($_) -and $_ -ne $wordToComplete } "
         "|\n"
         "    Select-Object -First 1\n"
         "  $offers = if ($command) { $words[$command] } else { $words.Keys }\n"
         "  $offers | Where-Object { $_ -like \"$wordToComplete*\" } | ForEach-Object {\n"
         "    [System.Management.Automation.CompletionResult]::new($_, $_, 'ParameterValue', $_)\n"
         "  }\n"
         "}\n";
}

}  // namespace zel::ctl
