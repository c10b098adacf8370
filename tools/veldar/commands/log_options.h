// The options that tell how logs are read, of the commands that load them.
#pragma once

#include "tools/libveldar/load/loader.h"
#include "tools/veldar/commands/command.h"

namespace veldar::tool {

void add_log_options(const command& to, load_options* options);

}  // namespace veldar::tool
