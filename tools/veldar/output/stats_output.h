// Prints the rows of statistics: `time`, where bins begin, then the groups, then the aggregates by their names.
#pragma once

#include "tools/libveldar/query/stats_answer.h"
#include "tools/veldar/output/table_output.h"

namespace veldar::tool {

// With `bars` a table has a bar beside the first aggregate.
void stats_put_rows(const stats_answer& answer, table_format format, bool bars, text_output* out);

// The texts of a group with ", " between them, "-" for a missing one.
std::string stats_group_name(const stats_answer& answer, uint32_t group);

}  // namespace veldar::tool
