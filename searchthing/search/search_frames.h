// Bracket evaluation: folds the groups of a parsed query over one warm slice.
#pragma once

#include "searchthing/search/parsed_query.h"
#include "searchthing/search/search_literals.h"

namespace veldar {

struct string_builder;

// Evaluates the query over the context's slice, time bounds and range; the result is the root's. 0 or the failure of a
// read, and then the result is empty. Over an empty range nothing is looked up.
[[nodiscard]] int evaluate_query(conjunction_context* context, const parsed_query_t& query, bool exact,
                                 query_result_t* result);

// What is being evaluated, for the crash log: the frames and the range. Nothing when there is no evaluation under way.
void search_annotator_write(string_builder* out, const conjunction_context* context) noexcept;

// Turns the root's result into one bitmap over the context's range, the excluded values taken out. 0 or a status.
[[nodiscard]] int _frame2bitmap(conjunction_context* context, query_result_t* result);

}  // namespace veldar
