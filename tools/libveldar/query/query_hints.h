// What is said on standard error of a query's answer that is probably not what was meant. Neither the answer nor the
// exit status depends on it, and it is left out where finding it would take long.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/libveldar/query/query_input.h"

namespace veldar::tool {

// After a whole answer of `found` events: says that the same words inside of longer ones would find more, when it is
// nothing or a tenth of that; and of nothing, that there is no field of a name that was asked for, or what there is at
// other times.
void hint_more(const std::string& path, const prepared_query& query, uint64_t found);
// Says which of the names, folded, no field has; false when there is one.
bool hint_fields(const std::string& path, const std::vector<std::string>& fields);
// Says which fields that the query compares have values that are no numbers.
void hint_comparisons(const std::string& path, const prepared_query& query);
// A value of one of the fields that is no number, as "'abc' of 'level'"; empty when all that are looked at are numbers.
std::string no_number_example(const std::string& path, const std::vector<std::string>& fields);

}  // namespace veldar::tool
