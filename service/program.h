// The program from its first act to its last.
#pragma once

#include "service/command_line.h"

namespace zel {

// Runs the mode that the command line selects and returns when it has ended. Called once, by main.
// What failed is in the log, when there is one: only the service mode sets it up.
void RunProgram(Arguments arguments);

}  // namespace zel
