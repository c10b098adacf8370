// Prints what is told of terms: their counts, the fields, and when they were seen.
#pragma once

#include <span>
#include <string>

#include "tools/libveldar/query/term_input.h"
#include "tools/veldar/output/table_output.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

// "count" (the greatest first) or "term"; `limit` of them, 0 for all. How many were printed.
uint64_t terms_print(const term_walk& walk, const std::string& sort, uint64_t limit, text_output* out);
void seen_print(const term_totals_t& all, text_output* out);
void fields_print(std::span<const field_totals> fields, text_output* out);
void new_terms_print(std::span<const counted_term> terms, const std::string& format, text_output* out);

}  // namespace veldar::tool
