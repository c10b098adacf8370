// Whether sqlite3_interrupt was called, asked while a statement runs. What the statement runs inside of the library sees
// nothing of it, and SQLite tells by a function only since 3.41: until then, and as well since, a statement that is run
// beside ends with SQLITE_INTERRUPT.
#pragma once

#include <sqlite3ext.h>

#include "veldar.h"

namespace veldar::sql {

class interrupt_probe {
  public:
    explicit interrupt_probe(sqlite3* db) : db_(db) {}
    interrupt_probe(const interrupt_probe&) = delete;
    interrupt_probe& operator=(const interrupt_probe&) = delete;
    ~interrupt_probe();
    // Ends the work when it is interrupted; refers to this object.
    veldar_observer observer();

  private:
    static int stops(void* context);
    sqlite3* db_;
    sqlite3_stmt* statement_ = nullptr;
};

}  // namespace veldar::sql
