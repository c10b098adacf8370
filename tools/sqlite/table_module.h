// Virtual tables over what veldar.h answers.
#pragma once

#include <sqlite3ext.h>

#include "row_source.h"

namespace veldar::sql {

// The module of one kind of table: NAME(STORE, ...) in a FROM clause, and CREATE VIRTUAL TABLE x USING NAME('STORE').
int table_module_create(sqlite3* db, const table_kind& kind);

}  // namespace veldar::sql
