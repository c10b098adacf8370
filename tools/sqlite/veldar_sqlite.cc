// The entry of the extension, and its functions:
//
//   veldar_count([store [, query [, since [, until]]]])   how many events the query finds
//   veldar_field(fields, name)                            a field of the column `fields`; of several values the first
//   veldar_decoded(), veldar_decoded('lines')             how many events, or raw lines, this process has read so far
//   veldar_version()
#include <sqlite3ext.h>

#include <exception>

#include "interrupt_probe.h"
#include "row_source.h"
#include "table_module.h"

SQLITE_EXTENSION_INIT1

namespace {

using namespace veldar::sql;

const char* text_of(sqlite3_value* value) {
    return reinterpret_cast<const char*>(sqlite3_value_text(value));
}

void fail(sqlite3_context* to, veldar_status status) {
    if (status == VELDAR_NO_MEMORY) return sqlite3_result_error_nomem(to);
    sqlite3_result_error(to, veldar_last_error()->message, -1);
    if (status == VELDAR_INTERRUPTED) sqlite3_result_error_code(to, SQLITE_INTERRUPT);
}

void count(sqlite3_context* to, int given, sqlite3_value** values) {
    if (given > 4) return sqlite3_result_error(to, "veldar_count(store, query, since, until)", -1);
    const auto argument = [&](int number) { return number < given ? text_of(values[number]) : nullptr; };
    interrupt_probe probe(sqlite3_context_db_handle(to));
    const veldar_observer observer = probe.observer();
    veldar_store* opened = nullptr;
    veldar_status status = veldar_open(argument(0), 0, &observer, &opened);
    const store_ptr store(opened);
    if (status > VELDAR_END) return fail(to, status);
    const veldar_query query = {.size = sizeof query,
                                .text = argument(1),
                                .since = argument(2),
                                .until = argument(3),
                                .zone = nullptr,
                                .is_native = 0};
    uint64_t total = 0;
    status = veldar_count(store.get(), &query, &total);
    if (status > VELDAR_END) return fail(to, status);
    sqlite3_result_int64(to, static_cast<sqlite3_int64>(total));
}

// SQLite reads the JSON. The statement stays with the function's second argument, which mostly is the same for all rows.
void field(sqlite3_context* to, int, sqlite3_value** values) {
    constexpr char FIELD[] =
        "SELECT CASE type WHEN 'array' THEN value ->> 0 ELSE value END FROM json_each(?1) WHERE key = lower(?2)";
    auto* statement = static_cast<sqlite3_stmt*>(sqlite3_get_auxdata(to, 1));
    const bool is_new = statement == nullptr;
    if (is_new && sqlite3_prepare_v2(sqlite3_context_db_handle(to), FIELD, -1, &statement, nullptr) != SQLITE_OK) {
        return sqlite3_result_error(to, sqlite3_errmsg(sqlite3_context_db_handle(to)), -1);
    }
    sqlite3_bind_value(statement, 1, values[0]);
    sqlite3_bind_value(statement, 2, values[1]);
    const int status = sqlite3_step(statement);
    if (status == SQLITE_ROW) {
        sqlite3_result_value(to, sqlite3_column_value(statement, 0));
    } else if (status != SQLITE_DONE) {
        sqlite3_result_error(to, sqlite3_errmsg(sqlite3_context_db_handle(to)), -1);
    }
    sqlite3_reset(statement);
    const auto finalize = [](void* one) { sqlite3_finalize(static_cast<sqlite3_stmt*>(one)); };
    if (is_new) sqlite3_set_auxdata(to, 1, statement, finalize);
}

void decoded(sqlite3_context* to, int given, sqlite3_value**) {
    const read_counts counts = events_read();
    sqlite3_result_int64(to, static_cast<sqlite3_int64>(given == 0 ? counts.events : counts.lines));
}

void version(sqlite3_context* to, int, sqlite3_value**) {
    sqlite3_result_text(to, veldar_version(), -1, SQLITE_STATIC);
}

struct function {
    const char* name;
    int arguments;
    int flags;
    void (*call)(sqlite3_context*, int, sqlite3_value**);
};
// What reads files is not for views and triggers of a database of strangers.
constexpr function FUNCTIONS[] = {
    {"veldar_count", -1, SQLITE_UTF8 | SQLITE_DIRECTONLY, count},
    {"veldar_field", 2, SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS, field},
    {"veldar_decoded", 0, SQLITE_UTF8, decoded},
    {"veldar_decoded", 1, SQLITE_UTF8, decoded},
    {"veldar_version", 0, SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS, version},
};

}  // namespace

// SQLite finds it by the name of the file, veldar_sqlite.so, of which it takes the letters. The extension stays loaded
// when the connection ends.
extern "C" __attribute__((visibility("default"))) int sqlite3_veldarsqlite_init(sqlite3* db, char** message,
                                                                                const sqlite3_api_routines* api) {
    SQLITE_EXTENSION_INIT2(api);
    if (sqlite3_libversion_number() < 3038000) {
        *message = sqlite3_mprintf("veldar needs SQLite 3.38 or later, and this is %s", sqlite3_libversion());
        return SQLITE_ERROR;
    }
    int status = table_module_create(db, EVENTS_TABLE);
    for (const table_kind& kind : answer_tables()) {
        if (status == SQLITE_OK) status = table_module_create(db, kind);
    }
    for (const function& one : FUNCTIONS) {
        if (status != SQLITE_OK) break;
        status = sqlite3_create_function(db, one.name, one.arguments, one.flags, nullptr, one.call, nullptr, nullptr);
    }
    return status == SQLITE_OK ? SQLITE_OK_LOAD_PERMANENTLY : status;
}
