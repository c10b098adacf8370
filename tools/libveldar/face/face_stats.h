// An answer of statistics as a table: time, groups, aggregates.
#pragma once

#include "tools/libveldar/face/face.h"
#include "tools/libveldar/query/stats_answer.h"

namespace veldar::tool {

// Of everything together there is a row even when nothing was found. Several values of one cell have line ends between
// them. Throws as stats_answer_make.
void face_put_stats(const stats_request& request, select_table_t* table, const stats_grid& grid,
                    const stats_shape& shape, veldar_table* to);

}  // namespace veldar::tool
