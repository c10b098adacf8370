// The options that tell how logs are read, of the commands that load them.
#pragma once

#include "tools/libveldar/load/loader.h"
#include "tools/veldar/commands/command.h"

namespace veldar::tool {

void add_log_options(const command& to, load_options* options);
// Checks what was given, and reads the formats of the user's own. Throws failure_t with OUTCOME_USAGE.
void take_log_options(const load_options& options);

}  // namespace veldar::tool
