// What machine this is.
#pragma once

#include <string>
#include <vector>

#include "prove/kit.h"
#include "prove/report.h"

namespace zel::prove {

// Whether this process has an administrator's rights, and not only an administrator's account.
[[nodiscard]] bool IsAdministrator();

// Why the kit's folder does not do; empty when it does. The service's account must reach it, and
// every path below must be short enough.
[[nodiscard]] std::string FolderFault(const std::filesystem::path& folder);

// Machine, system, file system and the versions of the programs.
[[nodiscard]] std::vector<Fact> MachineFacts(const Kit& kit);

}  // namespace zel::prove
