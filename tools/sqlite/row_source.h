// What stands behind the tables: rows that come one by one out of an answer of veldar.h.
#pragma once

#include <sqlite3ext.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "veldar.h"

namespace veldar::sql {

// What a table itself refuses.
struct table_fault {
    std::string message;
};

struct store_closer {
    void operator()(veldar_store* store) const { veldar_close(store); }
};
using store_ptr = std::unique_ptr<veldar_store, store_closer>;

// What a statement asks of a table.
struct table_question {
    std::vector<std::optional<std::string>> arguments;  // by hidden column, the store first
    std::string since, until;                           // of comparisons of the time; the arguments are empty then
    std::string conditions;                             // of comparisons of other columns, as part of a query
    std::string metric;                                 // that alone
    uint64_t limit = 0;
    bool operator==(const table_question&) const = default;
    const char* argument(size_t number) const {  // null: not given
        return number < arguments.size() && arguments[number] ? arguments[number]->c_str() : nullptr;
    }
};

class row_source {
  public:
    row_source() = default;
    row_source(const row_source&) = delete;
    row_source& operator=(const row_source&) = delete;
    virtual ~row_source() = default;
    // VELDAR_OK when there is a next row; anything but VELDAR_END otherwise has its message in veldar_last_error().
    virtual veldar_status next() = 0;
    virtual int64_t time_ns() const { return 0; }  // of the row, for tables with times
    // The same for a row however it was asked for: SQLite unites the scans of an OR by it. `row` counts from 1.
    virtual int64_t rowid(int64_t row) const { return row; }
    virtual bool rewind() { return false; }  // to before the first row; false where that means asking anew
    virtual veldar_status put(sqlite3_context* to, int column) = 0;
};

// How a table is declared and asked.
struct table_kind {
    const char* name;
    const char* columns;                  // as in CREATE TABLE
    size_t visible;                       // how many these are
    std::span<const char* const> hidden;  // the arguments behind the store's, in their order
    bool has_time;                        // columns 0 and 1 are time and time_ns, and rows come newest first
    std::span<const char* const> equals;  // columns whose equality narrows the question
    int first_equal;                      // the first of them, behind which the others stand
    // Begins; *rows is there with VELDAR_OK, VELDAR_END and VELDAR_INCOMPLETE.
    veldar_status (*ask)(veldar_store* store, const table_question& question, std::unique_ptr<row_source>* rows);
    // Only counts; null when there is no shorter way.
    veldar_status (*count)(veldar_store* store, const table_question& question, uint64_t* count);
};

extern const table_kind EVENTS_TABLE;
std::span<const table_kind> answer_tables();  // the others

// How many events and raw lines the process has read for SQL.
struct read_counts {
    uint64_t events, lines;
};
read_counts events_read();

}  // namespace veldar::sql
