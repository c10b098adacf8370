// How the commands that give statistics show them.
#pragma once

#include <string>

#include "tools/libveldar/query/stats_answer.h"
#include "tools/veldar/commands/command.h"

namespace veldar::tool {

struct stats_view {
    std::string every;   // as given
    std::string format;  // empty: a drawing on a terminal, else a table
    std::string colour = "auto";
    stats_shape shape;
    bool plot = false;
    bool explain = false;
    bool by_records = false;  // for the explanation: the events were gone through one by one
    std::string no_number;    // an example of what was left out of aggregates
};

// --every, --top, --plot, --color and --explain.
void add_stats_view_options(const command& to, stats_view* view);
// The bins that are asked for.
stats_grid_request stats_view_grid(const stats_view& view, const std::string& zone);
// Prints a finished table, and on standard error what was left out. Whether there is anything in it.
bool stats_show(const stats_view& view, const stats_request& request, select_table_t* table, const stats_grid& grid,
                const select_report_t& report);

}  // namespace veldar::tool
