// How many events a query finds.
#pragma once

#include <cstdint>
#include <string>

#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

// Whether the slices alone decide the query, each by itself.
bool query_needs_index_only(const prepared_query& query);
// The number of events of the store, directory or slice at `path`. What could not be searched is told to `trouble`.
// Throws failure_t.
uint64_t count_events(const std::string& path, const prepared_query& query, troubles* trouble);

}  // namespace veldar::tool
