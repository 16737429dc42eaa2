// What the kit shows with the product as it ships, under this machine's own service manager.
#pragma once

#include <vector>

#include "prove/agent.h"
#include "prove/steps.h"

namespace zel::prove {

// A backup's road: install, track, write, synchronize, export, stop, crash, a chain of backups,
// removal. The steps use `agent` while they run.
[[nodiscard]] std::vector<Step> EndToEnd(Agent& agent);

// SQLite works on a database of nearly 64 MiB, and zelctl backup keeps a copy of it.
[[nodiscard]] std::vector<Step> Demonstration(Agent& agent);

}  // namespace zel::prove
