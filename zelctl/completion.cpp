#include "zelctl/completion.h"

#include <utility>

namespace zel::ctl {

namespace {

// A place and what is offered there: "apply --from" for what follows that option of that command,
// " --protseq" for one of every command, "track" for the command's own words.
using Place = std::pair<std::string, OfferedValue>;

void AddPlaces(const std::string& command, const std::vector<OptionWords>& options,
               std::vector<Place>& places) {
  for (const OptionWords& option : options) {
    if (option.takes_value) places.emplace_back(command + " " + option.name, option.value);
  }
}

// Those of options; a place of every command stands once, whatever the command.
std::vector<Place> OptionPlaces(const CommandLineWords& words) {
  std::vector<Place> places;
  AddPlaces("", words.options, places);
  const std::size_t of_every_command = places.size();
  for (const CommandWords& command : words.commands) {
    AddPlaces(command.command, command.options, places);
    std::erase_if(places, [&](const Place& place) {
      for (std::size_t i = 0; i < of_every_command; ++i) {
        if (place.first == command.command + places[i].first) return true;
      }
      return false;
    });
  }
  return places;
}

template <class List, class ToText>
std::string Join(const List& list, const std::string& separator, ToText to_text) {
  std::string text;
  for (const auto& item : list) text += (text.empty() ? "" : separator) + to_text(item);
  return text;
}

std::string Same(const std::string& text) {
  return text;
}

std::string Quoted(const std::string& text) {
  return "'" + text + "'";
}

std::string NameOf(const OptionWords& option) {
  return option.name;
}

std::string CommandOf(const CommandWords& command) {
  return command.command;
}

std::vector<std::string> OptionsWithValue(const CommandLineWords& words) {
  std::vector<std::string> names;
  for (const OptionWords& option : words.options) {
    if (option.takes_value) names.push_back(option.name);
  }
  return names;
}

std::string OfferName(Offer offer) {
  switch (offer) {
    case Offer::kFiles:
      return "files";
    case Offer::kIds:
      return "ids";
    case Offer::kBitmaps:
      return "bitmaps";
    case Offer::kNothing:
    case Offer::kWords:
      break;
  }
  return "none";
}

std::string BashOffer(const OfferedValue& value) {
  if (value.offer != Offer::kWords) return "offer=" + OfferName(value.offer);
  return "words=\"" + Join(value.words, " ", Same) + "\"";
}

std::string BashCases(const CommandLineWords& words) {
  std::string cases;
  for (const auto& [place, value] : OptionPlaces(words)) {
    const std::string pattern = (place.starts_with(' ') ? "*" : "") + Quoted(place);
    cases += "    " + pattern + ") " + BashOffer(value) + " ;;\n";
  }
  for (const CommandWords& command : words.commands) {
    const std::string options = "words=\"" + Join(command.options, " ", NameOf) + "\"";
    cases += "    '" + command.command + " '*) case $current in\n      -*) " + options +
             " ;;\n      *) " + (command.takes_words ? BashOffer(command.value) : options) +
             " ;; esac ;;\n";
  }
  return cases + "    *) case $current in\n      -*) words=\"" + Join(words.options, " ", NameOf) +
         "\" ;;\n      *) words=\"" + Join(words.commands, " ", CommandOf) + "\" ;; esac ;;\n";
}

std::string PowerShellWords(const std::vector<std::string>& words) {
  return "@(" + Join(words, ", ", Quoted) + ")";
}

std::string PowerShellOffer(const OfferedValue& value) {
  return value.offer == Offer::kWords ? PowerShellWords(value.words)
                                      : Quoted("<" + OfferName(value.offer) + ">");
}

template <class Options>
std::string PowerShellNames(const Options& options) {
  std::vector<std::string> names;
  for (const OptionWords& option : options) names.push_back(option.name);
  return PowerShellWords(names);
}

std::string PowerShellTables(const CommandLineWords& words) {
  std::string options = "  $options = [ordered]@{\n";
  std::string places = "  $places = @{\n";
  for (const CommandWords& command : words.commands) {
    options += "    '" + command.command + "' = " + PowerShellNames(command.options) + "\n";
    if (!command.takes_words) continue;
    places += "    '" + command.command + "' = " + PowerShellOffer(command.value) + "\n";
  }
  for (const auto& [place, value] : OptionPlaces(words)) {
    places += "    '" + place + "' = " + PowerShellOffer(value) + "\n";
  }
  return options + "  }\n" + places + "  }\n";
}

}  // namespace

// The command is the first word that is one and no option's value. Where the function answers
// nothing the shell offers files (-o default), unless it was told not to.
std::string BashCompletion(const CommandLineWords& words) {
  return "# zelctl for bash: source <(zelctl completion bash)\n"
         "_zelctl_ids() {  # those of this machine\n"
         "  [[ \" ${COMP_WORDS[*]} \" == *' --server'* ]] && return\n"
         "  \"${COMP_WORDS[0]}\" bitmaps --timeout 2 2>/dev/null | cut -d ' ' -f 1\n"
         "}\n"
         "_zelctl() {\n"
         "  local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]}\n"
         "  local word command= value= offer=words words=\n"
         "  if [ \"$current\" = = ]; then current=\n"
         "  elif [ \"$before\" = = ]; then before=${COMP_WORDS[COMP_CWORD-2]}; fi\n"
         "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
         "    if [ \"$word\" = = ]; then continue; fi\n"
         "    if [ \"$value\" ]; then value=; continue; fi\n"
         "    case $word in\n"
         "      " +
         Join(OptionsWithValue(words), "|", Same) +
         ") value=1 ;;\n"
         "      " +
         Join(words.commands, "|", CommandOf) +
         ") command=$word; break ;;\n"
         "    esac\n"
         "  done\n"
         "  case \"$command $before\" in\n" +
         BashCases(words) +
         "  esac\n"
         "  case $offer$current in\n"
         "    ids|ids0*|bitmaps|bitmaps0*) words=$(_zelctl_ids) ;;\n"
         "  esac\n"
         "  case $offer in\n"
         "    files|bitmaps) ;;\n"
         "    *) compopt +o default 2>/dev/null ;;\n"
         "  esac\n"
         "  COMPREPLY=($(compgen -W \"$words\" -- \"$current\"))\n"
         "}\n"
         "complete -o default -F _zelctl zelctl zelctl.exe\n";
}

// Where nothing is answered PowerShell offers files.
std::string PowerShellCompletion(const CommandLineWords& words) {
  return "# zelctl for PowerShell: zelctl completion powershell | Out-String | Invoke-Expression\n"
         "Register-ArgumentCompleter -Native -CommandName zelctl, zelctl.exe -ScriptBlock {\n"
         "  param($wordToComplete, $commandAst, $cursorPosition)\n" +
         PowerShellTables(words) + "  $everywhere = " + PowerShellNames(words.options) +
         "\n"
         "  $valued = " +
         PowerShellWords(OptionsWithValue(words)) +
         "\n"
         "  $typed = @($commandAst.CommandElements | Select-Object -Skip 1 |\n"
         "    Where-Object { $_.Extent.EndOffset -lt $cursorPosition } | ForEach-Object { \"$_\" "
         "})\n"
         "  $command = ''\n"
         "  for ($i = 0; $i -lt $typed.Count -and -not $command; $i++) {\n"
         "    if ($valued -contains $typed[$i]) { $i++ }\n"
         "    elseif ($options.Contains($typed[$i])) { $command = $typed[$i] }\n"
         "  }\n"
         "  $before = if ($typed.Count) { $typed[-1] } else { '' }\n"
         "  $offers = if ($places.ContainsKey(\"$command $before\")) { $places[\"$command "
         "$before\"] }\n"
         "    elseif ($places.ContainsKey(\" $before\")) { $places[\" $before\"] }\n"
         "    elseif ($wordToComplete -like '-*') {\n"
         "      if ($command) { $options[$command] } else { $everywhere }\n"
         "    }\n"
         "    elseif ($places.ContainsKey($command)) { $places[$command] }\n"
         "    elseif ($command) { $options[$command] }\n"
         "    else { $options.Keys }\n"
         "  if (\"$offers\" -like '<*>') {\n"
         "    $asksHere = -not ($typed -like '--server*')\n"
         "    $offers = if ($asksHere -and $offers -in '<ids>', '<bitmaps>') {\n"
         "      & \"$($commandAst.CommandElements[0])\" bitmaps --timeout 2 2>$null |\n"
         "        ForEach-Object { ($_ -split ' ')[0] }\n"
         "    }\n"
         "  }\n"
         "  $offers | Where-Object { $_ -like \"$wordToComplete*\" } | ForEach-Object {\n"
         "    [System.Management.Automation.CompletionResult]::new($_, $_, 'ParameterValue', $_)\n"
         "  }\n"
         "}\n";
}

}  // namespace zel::ctl
