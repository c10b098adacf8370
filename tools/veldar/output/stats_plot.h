// Draws statistics over time: a column of eighth blocks for every bin, as many beside each other as the line is wide,
// and below that the next ones.
//
// Of an aggregate that adds up (counts, sums) the groups stand on one another, the greatest in colours of their own and
// the rest as "other"; without colour only their sum is drawn. Any other aggregate has a drawing for each group.
#pragma once

#include "tools/libveldar/query/stats_answer.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

// The answer has its totals. Tells on standard error of what is not drawn.
void stats_draw(const stats_answer& answer, text_output* out);
// How many bins stand beside each other.
size_t stats_draw_width();

}  // namespace veldar::tool
