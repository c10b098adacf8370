// The subcommands of "veldar metrics".
#pragma once

#include <string>

#include "tools/veldar/commands/command.h"

namespace veldar::tool {

void add_metrics_load_command(const command& metrics, const std::string* directory);
void add_metrics_ls_command(const command& metrics, const std::string* directory);
void add_metrics_query_command(const command& metrics, const std::string* directory);
void add_metrics_cardinality_command(const command& metrics, const std::string* directory);
void add_metrics_dump_command(const command& metrics, const std::string* directory);

// `directory` when given, else that of the store that the command chooses.
std::string metrics_directory(const tool_context& context, const std::string& directory);

}  // namespace veldar::tool
