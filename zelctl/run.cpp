#include "zelctl/run.h"

#include "zelctl/command_line.h"
#include "zelctl/commands.h"
#include "zelctl/json_shapes.h"

namespace zel::ctl {

namespace {

MaybeFailure RunTexts(const Request& request, Output& output) {
  output.text = request.command == Command::kVersion ? "zelctl " ZELCTL_VERSION "\n" : request.text;
  if (request.command == Command::kVersion) {
    output.json["version"] = ZELCTL_VERSION;
  } else {
    output.json["text"] = output.text;
  }
  return std::nullopt;
}

MaybeFailure RunCommand(Surroundings with, const Request& request, Output& output) {
  switch (request.command) {
    case Command::kPing:
      return RunPing(with, request, output);
    case Command::kStatus:
      return RunStatus(with, request, output);
    case Command::kFiles:
      return RunFiles(with, request, output);
    case Command::kBitmaps:
      return RunBitmaps(with, request, output);
    case Command::kTrack:
      return RunTrack(with, request, output);
    case Command::kUntrack:
      return RunUntrack(with, request, output);
    case Command::kSync:
      return RunSync(with, request, output);
    case Command::kExport:
      return RunExport(with, request, output);
    case Command::kDelete:
      return RunDelete(with, request, output);
    case Command::kShow:
      return RunShow(with, request, output);
    case Command::kApply:
      return RunApply(with, request, output);
    case Command::kBackup:
      return RunBackup(with, request, output);
    case Command::kVerify:
      return RunVerify(with, request, output);
    case Command::kCompletion:
    case Command::kHelp:
    case Command::kVersion:
      break;
  }
  return RunTexts(request, output);
}

std::string JsonText(const MaybeFailure& failure, const Output& output) {
  Json answer = {{"ok", !failure}};
  if (failure) answer["error"] = ErrorJson(*failure);
  answer.update(output.json);
  if (!output.notes.empty()) answer["notes"] = output.notes;
  // What is no UTF-8 must not end the program.
  return answer.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

bool PrintAnswer(const Request& request, const MaybeFailure& failure, const Output& output,
                 Terminal& terminal) {
  if (request.json) return terminal.Print(JsonText(failure, output));
  bool printed = terminal.Print(output.text);
  if (!failure && terminal.prints_to_person()) printed &= terminal.Print(output.confirmation);
  for (const std::string& note : output.notes) terminal.Note("zelctl: note: " + note);
  if (failure) terminal.Note("zelctl: " + FailureText(*failure));
  return printed;
}

// The service resolves a path in its own directory, not in the caller's.
void MakePathsAbsolute(Machine& machine, Request& request) {
  if (!request.server.empty()) return;
  if (!request.path.empty()) request.path = machine.AbsolutePath(request.path);
  if (request.command == Command::kBackup) request.from = machine.AbsolutePath(request.from);
}

}  // namespace

ExitCode RunTool(const std::vector<std::string>& arguments, const ConnectServer& connect,
                 Machine& machine, Terminal& terminal) {
  Request request;
  Output output;
  MaybeFailure failure = ParseCommandLine(arguments, request);
  if (!failure) {
    MakePathsAbsolute(machine, request);
    const std::unique_ptr<ZelServer> server = connect(request);
    failure = RunCommand({*server, machine, terminal}, request, output);
    if (std::string remark = server->Remark(); !remark.empty()) {
      output.notes.push_back(std::move(remark));
    }
  }
  if (!PrintAnswer(request, failure, output, terminal) && !failure) {
    terminal.Note("zelctl: it was done, but the answer could not be written to standard output");
    return ExitCode::kRefused;
  }
  return failure ? failure->exit_code : ExitCode::kDone;
}

}  // namespace zel::ctl
