#include "zelctl/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <limits>
#include <utility>

#include "zelctl/completion.h"
#include "zelctl/completion_words.h"
#include "zelctl/id_text.h"
#include "zelctl/manual.h"
#include "zelctl/nearest_word.h"
#include "zelctl/size_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

namespace {

constexpr char kProgram[] = "zelctl";
constexpr char kOldExport[] = "copy";
constexpr std::uint32_t kProbeTimeoutS = 30;
constexpr char kCommonGroup[] = "Common";  // the options of every command

[[noreturn]] void RefuseValue(const std::string& name, const std::string& reason) {
  throw CLI::ValidationError(name, reason);
}

BitmapId ReadId(const std::string& text) {
  const std::optional<BitmapId> id = ParseId(text);
  if (!id) RefuseValue("ID", "'" + text + "' is no id: up to 16 hexadecimal digits");
  return *id;
}

// An id is told from a file by its 0x.
BitmapChoice ReadBitmapChoice(const std::string& text) {
  if (text.starts_with("0x") || text.starts_with("0X")) return {.id = ReadId(text), .file = {}};
  return {.id = 0, .file = text};
}

// The service makes a bitmap of the largest size that the format has, and can never load it.
std::uint32_t ReadBlockSize(const std::string& text) {
  const std::optional<std::uint64_t> size = ParseSize(text);
  if (!size || *size == 0 || *size >= std::numeric_limits<std::uint32_t>::max()) {
    RefuseValue("--block-size",
                "'" + text + "' is no block size: 1 to 4294967294, 0x10000, or 64K, 1M");
  }
  return static_cast<std::uint32_t>(*size);
}

// Without the words in the option's help, which names them itself.
CLI::Validator OneOf(const std::vector<std::string>& words) {
  return CLI::IsMember(words).description("");
}

std::string_view NameNow(std::string_view name) {
  return name == kOldExport ? "export" : name;
}

// The grammar, writing what it reads into `request`.
class Grammar {
 public:
  explicit Grammar(Request& request) : request_(request), app_("", kProgram) {
    app_.allow_windows_style_options(false);
    app_.set_help_flag("-h,--help", "print help");
    // A word behind a command is never another command.
    app_.require_subcommand(0, 1);
    app_.add_flag_callback(
        "--version", [this] { request_.command = Command::kVersion; }, "print the version");
    AddCommonOptions(app_);
    AddQuestions();
    AddTracking();
    AddBitmapCommands();
    AddShow();
    AddBackup();
    AddApply();
    AddVerify();
    AddTexts();
  }

  CLI::App& app() { return app_; }

 private:
  CLI::App* Add(Command command, std::string_view name) {
    CLI::App* const sub =
        app_.add_subcommand(std::string(name), std::string(CommandPage(NameNow(name)).summary));
    AddCommonOptions(*sub);
    sub->parse_complete_callback([this, command] { request_.command = command; });
    return sub;
  }

  // They may stand before and behind the command.
  void AddCommonOptions(CLI::App& app) {
    app.option_defaults()->group(kCommonGroup);
    app.add_flag("--json", request_.json, "answer in JSON, failures included");
    app.add_option_function<std::string>(
           "--server",
           [this](const std::string& text) {
             // An empty variable of a script must not mean this machine.
             if (text.empty()) RefuseValue("--server", "the name of the machine is empty");
             request_.server = text;
           },
           "the machine to ask; this one unless told")
        ->type_name("NAME");
    app.add_option("--protseq", request_.protseq, "ncalrpc, ncacn_ip_tcp, ncacn_np or ncacn_http")
        ->type_name("WORD")
        ->check(OneOf(ProtocolSequences()));
    app.add_option("--endpoint", request_.endpoint,
                   "port or pipe; the machine is asked unless told")
        ->type_name("WORD");
    app.add_option_function<std::string>(
           "--auth",
           [this](const std::string& text) {
             request_.authentication =
                 text == "ntlm" ? Authentication::kNtlm : Authentication::kNone;
           },
           "ntlm or none; to another machine ntlm if it works")
        ->type_name("WORD")
        ->check(OneOf(Authentications()));
    app.add_option_function<std::uint32_t>(
           "--timeout", [this](std::uint32_t seconds) { request_.timeout_s = seconds; },
           "of a call; 30 for ping and status, 0 (none) else")
        ->type_name("SECONDS");
    app.option_defaults()->group("Options");
  }

  void AddQuestions() {
    Add(Command::kPing, "ping");
    Add(Command::kStatus, "status")
        ->add_flag("--check", request_.check, "end with 4 when a bitmap cannot be trusted");
    Add(Command::kFiles, "files");
    CLI::App* const bitmaps = Add(Command::kBitmaps, "bitmaps");
    AddPath(bitmaps, "of one tracked file; all of them unless told");
    bitmaps->add_flag("--state", request_.state, "tell how each is, too, with headings");
  }

  void AddTracking() {
    CLI::App* const track = Add(Command::kTrack, "track");
    AddPath(track, "of the file")->required();
    AddBlockSize(track);
    CLI::App* const untrack = Add(Command::kUntrack, "untrack");
    AddPath(untrack, "of the file")->required();
    untrack->add_flag("-y,--yes", request_.yes, "ask nothing");
    AddTime(Add(Command::kSync, "sync"), "--to", request_.time,
            "the point in time; now unless told");
  }

  // An empty variable of a script must mean neither every file nor the folder it runs in.
  CLI::Option* AddPath(CLI::App* command, const std::string& description) {
    return command->add_option_function<std::string>(
        "PATH",
        [this](const std::string& text) {
          if (text.empty()) RefuseValue("PATH", "the path is empty");
          request_.path = text;
        },
        description);
  }

  void AddBlockSize(CLI::App* command) {
    command
        ->add_option_function<std::string>(
            "--block-size",
            [this](const std::string& text) { request_.block_size = ReadBlockSize(text); },
            "bytes of the file for one bit; 64K unless told")
        ->type_name("SIZE");
  }

  void AddTime(CLI::App* command, const std::string& name, std::string& time,
               const std::string& description) {
    command
        ->add_option_function<std::string>(
            name,
            [name, &time](const std::string& text) {
              if (!ParseTime(text, 0)) {
                RefuseValue(name, "'" + text + "' is no time, as 2026-01-31T23:59:59Z is one");
              }
              time = text;
            },
            description)
        ->type_name("TIME");
  }

  // `copy` is what it was called; scripts have it.
  void AddExport(std::string_view name) {
    CLI::App* const command = Add(Command::kExport, name);
    if (name == kOldExport) command->group(kUnlisted);
    command
        ->add_option_function<std::string>(
            "ID",
            [this](const std::string& text) { request_.bitmap = {.id = ReadId(text), .file = {}}; },
            "of the bitmap")
        ->required();
    command->add_option("-o,--output", request_.output, "the file to write")
        ->required()
        ->type_name("FILE");
    AddNoSync(command);
    AddReplace(command);
  }

  void AddBitmapCommands() {
    AddExport("export");
    AddExport(kOldExport);
    Add(Command::kDelete, "delete")
        ->add_option_function<std::vector<std::string>>(
            "ID",
            [this](const std::vector<std::string>& texts) {
              for (const std::string& text : texts) request_.ids.push_back(ReadId(text));
            },
            "of each bitmap")
        ->required();
  }

  void AddNoSync(CLI::App* command) {
    command->add_flag("--no-sync", request_.no_sync, "do not synchronize the bitmap first");
  }

  void AddReplace(CLI::App* command) {
    command->add_flag("--replace", request_.replace, "overwrite what is there, whatever it is");
  }

  void AddServiceCopy(CLI::App* command) {
    command->add_flag("--service-copy", request_.service_copy,
                      "the service sent the bitmap file to somebody");
  }

  void AddShow() {
    CLI::App* const show = Add(Command::kShow, "show");
    show->add_option_function<std::string>(
            "BITMAP", [this](const std::string& text) { request_.bitmap = ReadBitmapChoice(text); },
            "an id with its 0x, or a bitmap file")
        ->required();
    show->add_flag("--ranges", request_.ranges, "list offset and length of what changed");
    show->add_flag("--map", request_.map, "draw the file");
    show->add_flag("--ascii", request_.ascii, "draw with plain characters");
    show->add_option("--png", request_.png, "write the drawing as a picture")->type_name("FILE");
    AddServiceCopy(show);
    AddNoSync(show);
    AddReplace(show);
  }

  void AddBitmapChoice(CLI::App* command, const std::string& description) {
    command
        ->add_option_function<std::string>(
            "--bitmap",
            [this](const std::string& text) {
              request_.bitmap = ReadBitmapChoice(text);
              request_.has_bitmap = true;
            },
            description)
        ->type_name("BITMAP");
  }

  void AddFiles(CLI::App* command) {
    command->add_option("--from", request_.from, "the tracked file")
        ->required()
        ->type_name("SOURCE");
    command->add_option("--to", request_.to, "its copy")->required()->type_name("COPY");
  }

  void AddProgress(CLI::App* command) {
    command->add_flag("--progress", request_.progress,
                      "tell the progress where there is no terminal, too");
  }

  void AddBackup() {
    CLI::App* const backup = Add(Command::kBackup, "backup");
    AddFiles(backup);
    backup->add_flag("--verify", request_.verify, "compare both files whole afterwards");
    backup->add_flag("--full-if-needed", request_.full_if_needed,
                     "copy everything where nothing less will do");
    AddReplace(backup);
    AddBlockSize(backup);
    AddProgress(backup);
  }

  void AddVerify() {
    CLI::App* const verify = Add(Command::kVerify, "verify");
    AddFiles(verify);
    AddBitmapChoice(verify, "leave out what was written since it was begun");
    AddProgress(verify);
  }

  void AddApply() {
    CLI::App* const apply = Add(Command::kApply, "apply");
    AddBitmapChoice(apply, "an id with its 0x, or a bitmap file");
    AddFiles(apply);
    apply->add_flag("--verify", request_.verify, "compare both files whole afterwards");
    apply->add_flag("--full", request_.full, "copy everything, whatever the bitmap says");
    apply->add_flag("--force-identity", request_.force_identity,
                    "SOURCE is a snapshot of the bitmap's file");
    AddTime(apply, "--snapshot-time", request_.snapshot_time,
            "when it was made, or a moment before");
    AddTime(apply, "--as-of", request_.as_of,
            "COPY, of which nothing is known, has all until then");
    AddNoSync(apply);
    AddServiceCopy(apply);
    AddReplace(apply);
    apply->add_flag("--dry-run", request_.dry_run, "check everything and copy nothing");
    AddProgress(apply);
  }

  void AddTexts() {
    Add(Command::kCompletion, "completion")
        ->add_option("SHELL", request_.text, "powershell or bash")
        ->required()
        ->check(OneOf(Shells()));
    Add(Command::kHelp, "help")->add_option("TOPIC", request_.text, "a command or a topic");
  }

  Request& request_;
  CLI::App app_;
};

// A command's help names those of every command in one line.
bool IsListed(const CLI::App& app, const CLI::Option& option) {
  return app.get_parent() == nullptr || option.get_group() != kCommonGroup;
}

std::string OptionLines(const CLI::App& app) {
  constexpr std::size_t kColumn = 24;
  std::string lines;
  for (const CLI::Option* option : app.get_options()) {
    if (!IsListed(app, *option)) continue;
    std::string left = "  " + option->get_name(true, true);
    if (!option->get_positional() && option->get_expected_max() > 0 &&
        !option->get_type_name().empty()) {
      left += " " + option->get_type_name();
    }
    if (left.size() + 2 > kColumn)
      left += "\n" + std::string(kColumn, ' ');
    else
      left.resize(kColumn, ' ');
    lines += left + option->get_description() + "\n";
  }
  return lines;
}

std::string UsageLine(const CLI::App& app, std::string_view name) {
  std::string usage = std::string(kProgram) + " " + std::string(name);
  std::string positionals;
  bool has_options = false;
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_positional()) {
      const std::string word =
          option->get_name(true) + (option->get_items_expected_max() > 1 ? "..." : "");
      positionals += option->get_required() ? " " + word : " [" + word + "]";
    } else if (option->get_required()) {
      usage += " " + option->get_name(false) + " " + option->get_type_name();
    } else {
      has_options = true;  // those of every command at least
    }
  }
  return usage + (has_options ? " [OPTION]..." : "") + positionals;
}

std::string CommandHelp(CLI::App& app, const ManualPage& page) {
  const CLI::App& command = *app.get_subcommand(std::string(page.name));
  return std::string(kProgram) + " " + std::string(page.name) + " - " + std::string(page.summary) +
         "\n\nUsage: " + UsageLine(command, page.name) + "\n\n" + OptionLines(command) +
         "  and the options of every command (zelctl help)\n\n" + std::string(page.text);
}

std::string PageList(std::span<const ManualPage> pages) {
  std::string lines;
  for (const ManualPage& page : pages) {
    std::string left = "  " + std::string(page.name);
    left.resize(14, ' ');
    lines.append(left).append(page.summary).append("\n");
  }
  return lines;
}

std::string ProgramHelp(const CLI::App& app) {
  return std::string(kProgram) +
         " - asks and steers the service that tracks changed blocks of files\n\n"
         "Usage: zelctl [OPTION]... COMMAND ...\n\nOptions of every command:\n" +
         OptionLines(app) + "\nCommands:\n" + PageList(CommandPages()) + "\nOther topics:\n" +
         PageList(TopicPages()) + "\nzelctl help TOPIC tells more of each.\n";
}

std::vector<std::string> CommandNames() {
  std::vector<std::string> names;
  for (const ManualPage& page : CommandPages()) names.emplace_back(page.name);
  return names;
}

std::vector<std::string> OptionNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

Failure UsageFailure(std::string message) {
  while (!message.empty() && (message.back() == '\n' || message.back() == '.')) message.pop_back();
  return {.exit_code = ExitCode::kUsage, .code = 0, .name = {}, .message = std::move(message)};
}

std::string MaybeMeant(const std::string& word, const std::vector<std::string>& known) {
  const std::string nearest = NearestWord(word, known);
  return nearest.empty() ? "" : " (did you mean " + nearest + "?)";
}

bool IsOption(const std::string& word) {
  return word.starts_with("-");
}

// The command that was read, under the name that it has now; null before one was.
const CLI::App* ReadCommand(const CLI::App& app) {
  const auto commands = app.get_subcommands();
  return commands.empty() ? nullptr : commands.front();
}

// What is there and means nothing, with what may have been meant.
Failure UnexpectedWord(const CLI::App& app, const CLI::ExtrasError& error) {
  const CLI::App* const command = ReadCommand(app);
  const CLI::App& read = command != nullptr ? *command : app;
  const std::vector<std::string> words = read.remaining();
  const auto word = std::ranges::find_if_not(words, IsOption);
  if (command == nullptr && word != words.end()) {
    return UsageFailure("There is no command '" + *word + "'" + MaybeMeant(*word, CommandNames()));
  }
  const auto option = std::ranges::find_if(words, IsOption);
  if (option == words.end()) return UsageFailure(error.what());
  return UsageFailure("There is no option '" + *option + "'" +
                      MaybeMeant(*option, OptionNames(read)));
}

// Names the page that helps.
MaybeFailure PointToHelp(const CLI::App& app, MaybeFailure failure) {
  if (!failure) return failure;
  const CLI::App* const command = ReadCommand(app);
  const std::string name = command == nullptr ? "" : std::string(NameNow(command->get_name()));
  failure->message += "; see zelctl help" + (name.empty() || name == "help" ? "" : " " + name);
  return failure;
}

MaybeFailure CompleteApply(const Request& request) {
  if (request.command != Command::kApply) return std::nullopt;
  if (!request.has_bitmap && !request.full) {
    return UsageFailure("--bitmap is required, or --full for a copy of everything");
  }
  if (request.force_identity == request.snapshot_time.empty()) {
    return UsageFailure("--force-identity and --snapshot-time need each other");
  }
  if (request.force_identity && !request.has_bitmap) {
    return UsageFailure("--bitmap is required: it tells whose snapshot it is");
  }
  if (request.full && !request.as_of.empty()) {
    return UsageFailure("--as-of is of no use for a copy of everything");
  }
  return std::nullopt;
}

// What the parts of a request mean together.
MaybeFailure Complete(CLI::App& app, Request& request) {
  if (request.protseq.empty())
    request.protseq = request.server.empty() ? "ncalrpc" : "ncacn_ip_tcp";
  if (!request.authentication) {
    request.authentication =
        request.server.empty() ? Authentication::kNone : Authentication::kNtlmOrNone;
  }
  if (request.command == Command::kVersion) return std::nullopt;
  if (app.get_subcommands().empty()) return UsageFailure("A command is missing");
  const bool is_probe = request.command == Command::kPing || request.command == Command::kStatus;
  if (!request.timeout_s) request.timeout_s = is_probe ? kProbeTimeoutS : 0;
  const bool has_files = request.command == Command::kApply ||
                         request.command == Command::kBackup || request.command == Command::kVerify;
  if (has_files && (request.to.empty() || request.from.empty())) {
    return UsageFailure("--from and --to each need the path of a file");
  }
  if (auto failure = CompleteApply(request)) return failure;
  if (request.command == Command::kCompletion) {
    const auto script = request.text == "bash" ? BashCompletion : PowerShellCompletion;
    request.text = script(WordsOf(app));
  } else if (request.command == Command::kHelp) {
    const std::optional<std::string> text = HelpText(request.text);
    if (!text) {
      return UsageFailure("There is no help on '" + request.text + "'" +
                          MaybeMeant(request.text, HelpTopics()));
    }
    request.text = *text;
  }
  return std::nullopt;
}

void AskForHelp(const CLI::App& app, Request& request) {
  const CLI::App* const command = ReadCommand(app);
  request.command = Command::kHelp;
  request.text =
      HelpText(command == nullptr ? "" : std::string(NameNow(command->get_name()))).value_or("");
}

// From the back, as the library takes them. "/?" is how Windows' own programs are asked for help,
// and no path: it stays what it is where paths are told from options.
std::vector<std::string> ForLibrary(const std::vector<std::string>& arguments) {
  std::vector<std::string> words = arguments;
  const auto paths = std::ranges::find(words, "--");
  std::replace(words.begin(), paths, std::string("/?"), std::string("--help"));
  std::ranges::reverse(words);
  return words;
}

}  // namespace

MaybeFailure ParseCommandLine(const std::vector<std::string>& arguments, Request& request) {
  request = {};
  Grammar grammar(request);
  try {
    grammar.app().parse(ForLibrary(arguments));
    return PointToHelp(grammar.app(), Complete(grammar.app(), request));
  } catch (const CLI::CallForHelp&) {
    AskForHelp(grammar.app(), request);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    request.json = std::ranges::find(arguments, "--json") != arguments.end();
    const auto* const extras = dynamic_cast<const CLI::ExtrasError*>(&error);
    return PointToHelp(grammar.app(), extras != nullptr ? UnexpectedWord(grammar.app(), *extras)
                                                        : UsageFailure(error.what()));
  }
}

std::optional<std::string> HelpText(const std::string& topic) {
  Request request;
  Grammar grammar(request);
  if (topic.empty()) return ProgramHelp(grammar.app());
  const auto named = [&](const ManualPage& page) { return page.name == topic; };
  if (const auto page = std::ranges::find_if(CommandPages(), named); page != CommandPages().end()) {
    return CommandHelp(grammar.app(), *page);
  }
  if (const auto page = std::ranges::find_if(TopicPages(), named); page != TopicPages().end()) {
    return std::string(kProgram) + " " + topic + " - " + std::string(page->summary) + "\n\n" +
           std::string(page->text);
  }
  return std::nullopt;
}

std::vector<std::string> HelpTopics() {
  std::vector<std::string> topics;
  for (const auto pages : {CommandPages(), TopicPages()}) {
    for (const ManualPage& page : pages) topics.emplace_back(page.name);
  }
  return topics;
}

}  // namespace zel::ctl
