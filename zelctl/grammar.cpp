#include "zelctl/grammar.h"

#include <limits>
#include <optional>
#include <vector>

#include "zelctl/completion_words.h"
#include "zelctl/id_text.h"
#include "zelctl/manual.h"
#include "zelctl/size_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

namespace {

constexpr char kOldExport[] = "copy";

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

}  // namespace

std::string_view NameNow(std::string_view name) {
  return name == kOldExport ? "export" : name;
}

Grammar::Grammar(Request& request) : request_(request), app_("", kProgram) {
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

CLI::App* Grammar::Add(Command command, std::string_view name) {
  CLI::App* const sub =
      app_.add_subcommand(std::string(name), std::string(CommandPage(NameNow(name)).summary));
  AddCommonOptions(*sub);
  sub->parse_complete_callback([this, command] { request_.command = command; });
  return sub;
}

// They may stand before and behind the command.
void Grammar::AddCommonOptions(CLI::App& app) {
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
  app.add_option("--endpoint", request_.endpoint, "port or pipe; the machine is asked unless told")
      ->type_name("WORD");
  app.add_option_function<std::string>(
         "--auth",
         [this](const std::string& text) {
           request_.authentication = text == "ntlm" ? Authentication::kNtlm : Authentication::kNone;
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

void Grammar::AddQuestions() {
  Add(Command::kPing, "ping");
  Add(Command::kStatus, "status")
      ->add_flag("--check", request_.check, "end with 4 when a bitmap cannot be trusted");
  Add(Command::kFiles, "files");
  CLI::App* const bitmaps = Add(Command::kBitmaps, "bitmaps");
  AddPath(bitmaps, "of one tracked file; all of them unless told");
  bitmaps->add_flag("--state", request_.state, "tell how each is, too, with headings");
}

void Grammar::AddTracking() {
  CLI::App* const track = Add(Command::kTrack, "track");
  AddPath(track, "of the file")->required();
  AddBlockSize(track);
  CLI::App* const untrack = Add(Command::kUntrack, "untrack");
  AddPath(untrack, "of the file")->required();
  untrack->add_flag("-y,--yes", request_.yes, "ask nothing");
  AddTime(Add(Command::kSync, "sync"), "--to", request_.time, "the point in time; now unless told");
}

// An empty variable of a script must mean neither every file nor the folder it runs in.
CLI::Option* Grammar::AddPath(CLI::App* command, const std::string& description) {
  return command->add_option_function<std::string>(
      "PATH",
      [this](const std::string& text) {
        if (text.empty()) RefuseValue("PATH", "the path is empty");
        request_.path = text;
      },
      description);
}

void Grammar::AddBlockSize(CLI::App* command) {
  command
      ->add_option_function<std::string>(
          "--block-size",
          [this](const std::string& text) { request_.block_size = ReadBlockSize(text); },
          "bytes of the file for one bit; 64K unless told")
      ->type_name("SIZE");
}

void Grammar::AddTime(CLI::App* command, const std::string& name, std::string& time,
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
void Grammar::AddExport(std::string_view name) {
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

void Grammar::AddBitmapCommands() {
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

void Grammar::AddNoSync(CLI::App* command) {
  command->add_flag("--no-sync", request_.no_sync, "do not synchronize the bitmap first");
}

void Grammar::AddReplace(CLI::App* command) {
  command->add_flag("--replace", request_.replace, "overwrite what is there, whatever it is");
}

void Grammar::AddServiceCopy(CLI::App* command) {
  command->add_flag("--service-copy", request_.service_copy,
                    "the service sent the bitmap file to somebody");
}

void Grammar::AddShow() {
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

void Grammar::AddBitmapChoice(CLI::App* command, const std::string& description) {
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

void Grammar::AddFiles(CLI::App* command) {
  command->add_option("--from", request_.from, "the tracked file")->required()->type_name("SOURCE");
  command->add_option("--to", request_.to, "its copy")->required()->type_name("COPY");
}

void Grammar::AddProgress(CLI::App* command) {
  command->add_flag("--progress", request_.progress,
                    "tell the progress where there is no terminal, too");
}

void Grammar::AddBackup() {
  CLI::App* const backup = Add(Command::kBackup, "backup");
  AddFiles(backup);
  backup->add_flag("--verify", request_.verify, "compare both files whole afterwards");
  backup->add_flag("--full-if-needed", request_.full_if_needed,
                   "copy everything where nothing less will do");
  AddReplace(backup);
  AddBlockSize(backup);
  AddProgress(backup);
}

void Grammar::AddVerify() {
  CLI::App* const verify = Add(Command::kVerify, "verify");
  AddFiles(verify);
  AddBitmapChoice(verify, "leave out what was written since it was begun");
  AddProgress(verify);
}

void Grammar::AddApply() {
  CLI::App* const apply = Add(Command::kApply, "apply");
  AddBitmapChoice(apply, "an id with its 0x, or a bitmap file");
  AddFiles(apply);
  apply->add_flag("--verify", request_.verify, "compare both files whole afterwards");
  apply->add_flag("--full", request_.full, "copy everything, whatever the bitmap says");
  apply->add_flag("--force-identity", request_.force_identity,
                  "SOURCE is a snapshot of the bitmap's file");
  AddTime(apply, "--snapshot-time", request_.snapshot_time, "when it was made, or a moment before");
  AddTime(apply, "--as-of", request_.as_of, "COPY, of which nothing is known, has all until then");
  AddNoSync(apply);
  AddServiceCopy(apply);
  AddReplace(apply);
  apply->add_flag("--dry-run", request_.dry_run, "check everything and copy nothing");
  AddProgress(apply);
}

void Grammar::AddTexts() {
  Add(Command::kCompletion, "completion")
      ->add_option("SHELL", request_.text, "powershell or bash")
      ->required()
      ->check(OneOf(Shells()));
  Add(Command::kHelp, "help")->add_option("TOPIC", request_.text, "a command or a topic");
}

}  // namespace zel::ctl
