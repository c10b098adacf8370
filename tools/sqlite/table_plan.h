// What of a statement's conditions goes to the library, as SQLite's planner and cursor hand it on: a text such as
// "veldar: time>= query order limit", which EXPLAIN QUERY PLAN shows. Each word but `order` and `count` has a value.
#pragma once

#include <sqlite3ext.h>

#include <span>

#include "row_source.h"
#include "time_window.h"

namespace veldar::sql {

// Of a table that is declared with its store, or with the store as its first argument. SQLITE_OK, or SQLITE_CONSTRAINT
// when an argument is not known yet.
int plan_make(const table_kind& kind, bool has_store, sqlite3_index_info* info);

struct planned {
    table_question question;
    time_window window;
    bool only_counts = false;  // no column is read
};
// Throws table_fault for a value that makes no sense.
planned plan_read(const table_kind& kind, const char* plan, std::span<sqlite3_value* const> values);

}  // namespace veldar::sql
