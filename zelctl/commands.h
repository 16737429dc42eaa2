// What each command does, apart from reading its arguments and printing its answer. Pure.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "zelctl/failure.h"
#include "zelctl/machine.h"
#include "zelctl/request.h"
#include "zelctl/terminal.h"
#include "zelctl/zel_server.h"

namespace zel::ctl {

using Json = nlohmann::ordered_json;

struct Surroundings {
  ZelServer& server;
  Machine& machine;
  Terminal& terminal;
};

// An answer in both its forms. Counts after a failure too, as far as it was filled.
struct Output {
  std::string text;                // data, for people and scripts
  std::string confirmation;        // for people alone
  std::vector<std::string> notes;  // worth knowing, and no failure
  Json json = Json::object();      // the members besides "ok"
};

[[nodiscard]] MaybeFailure RunPing(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunStatus(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunFiles(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunBitmaps(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunSync(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunTrack(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunUntrack(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunExport(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunDelete(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunShow(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunBackup(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunVerify(Surroundings& with, const Request& request, Output& output);
[[nodiscard]] MaybeFailure RunApply(Surroundings& with, const Request& request, Output& output);

}  // namespace zel::ctl
