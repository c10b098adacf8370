#include "table_module.h"

#include <cstring>
#include <new>
#include <utility>

#include "interrupt_probe.h"
#include "sql_values.h"
#include "table_plan.h"

SQLITE_EXTENSION_INIT3

namespace veldar::sql {

namespace {

struct face_table : sqlite3_vtab {
    const table_kind* kind = nullptr;
    sqlite3* db = nullptr;
    std::optional<std::string> store;  // that it was created with
};

struct face_cursor : sqlite3_vtab_cursor {
    explicit face_cursor(sqlite3* db) : probe(db) {}
    interrupt_probe probe;
    planned plan;
    store_ptr store;
    std::unique_ptr<row_source> rows;  // goes before the store
    int64_t row = 0;                   // the present one, from 1
    bool at_end = true;
    bool has_read = false;  // a column
    bool counts = false;    // rows are only counted, up to `total`
    uint64_t total = 0;
};

face_table* table_of(sqlite3_vtab_cursor* cursor) {
    return static_cast<face_table*>(cursor->pVtab);
}

int failed(sqlite3_vtab* table, const char* message) {
    sqlite3_free(table->zErrMsg);
    table->zErrMsg = sqlite3_mprintf("%s", message);
    return SQLITE_ERROR;
}

int failed(sqlite3_vtab* table, veldar_status status) {
    if (status == VELDAR_INTERRUPTED) return SQLITE_INTERRUPT;
    if (status == VELDAR_NO_MEMORY) return SQLITE_NOMEM;
    return failed(table, veldar_last_error()->message);
}

// No exception goes into SQLite.
template <typename F>
int guarded(sqlite3_vtab* table, F work) noexcept {
    try {
        return work();
    } catch (const table_fault& fault) {
        return failed(table, fault.message.c_str());
    } catch (const std::bad_alloc&) {
        return SQLITE_NOMEM;
    } catch (...) {
        return failed(table, "failed without a reason");
    }
}

// 'it''s', as an argument of CREATE VIRTUAL TABLE comes.
std::string unquoted(std::string_view text) {
    if (text.size() < 2 || (text[0] != '\'' && text[0] != '"') || text.back() != text[0]) return std::string(text);
    std::string out;
    for (size_t i = 1; i + 1 < text.size(); i++) {
        out.push_back(text[i]);
        if (text[i] == text[0]) i++;
    }
    return out;
}

std::string declaration(const table_kind& kind, bool has_store) {
    std::string text = std::string("CREATE TABLE x(") + kind.columns;
    if (!has_store) text += ", store HIDDEN";
    for (const char* const name : kind.hidden) text += std::string(", \"") + name + "\" HIDDEN";
    return text + ")";
}

int connect(sqlite3* db, void* kind, int count, const char* const* texts, sqlite3_vtab** out, char** message) {
    try {
        auto table = std::make_unique<face_table>();
        std::memset(static_cast<sqlite3_vtab*>(table.get()), 0, sizeof(sqlite3_vtab));
        table->kind = static_cast<const table_kind*>(kind);
        table->db = db;
        if (count > 4) {
            *message = sqlite3_mprintf("%s takes one argument here: the store", table->kind->name);
            return SQLITE_ERROR;
        }
        if (count == 4) table->store = unquoted(texts[3]);
        const int status = sqlite3_declare_vtab(db, declaration(*table->kind, table->store.has_value()).c_str());
        if (status == SQLITE_OK) *out = table.release();
        return status;
    } catch (...) {
        return SQLITE_NOMEM;
    }
}

int disconnect(sqlite3_vtab* table) {
    delete static_cast<face_table*>(table);
    return SQLITE_OK;
}

int best_index(sqlite3_vtab* table, sqlite3_index_info* info) {
    const auto* const face = static_cast<face_table*>(table);
    return guarded(table, [&] { return plan_make(*face->kind, face->store.has_value(), info); });
}

int open(sqlite3_vtab* table, sqlite3_vtab_cursor** out) {
    return guarded(table, [&] {
        *out = new face_cursor(static_cast<face_table*>(table)->db);
        return SQLITE_OK;
    });
}

int close(sqlite3_vtab_cursor* cursor) {
    delete static_cast<face_cursor*>(cursor);
    return SQLITE_OK;
}

int count_rows(face_cursor* cursor) {
    const face_table* const table = table_of(cursor);
    const veldar_status status = table->kind->count(cursor->store.get(), cursor->plan.question, &cursor->total);
    if (status > VELDAR_END) return failed(cursor->pVtab, status);
    cursor->counts = true;
    return SQLITE_OK;
}

// To the next row whose time is within the window.
int advance(face_cursor* cursor) {
    for (;;) {
        const veldar_status status = cursor->rows->next();
        if (status == VELDAR_END) {
            cursor->at_end = true;
            return SQLITE_OK;
        }
        if (status != VELDAR_OK) return failed(cursor->pVtab, status);
        if (!table_of(cursor)->kind->has_time || cursor->plan.window.holds(cursor->rows->time_ns())) return SQLITE_OK;
    }
}

int begin_rows(face_cursor* cursor) {
    const veldar_status status = table_of(cursor)->kind->ask(cursor->store.get(), cursor->plan.question, &cursor->rows);
    return cursor->rows == nullptr ? failed(cursor->pVtab, status) : advance(cursor);
}

int open_store(face_cursor* cursor) {
    const face_table* const table = table_of(cursor);
    const veldar_observer observer = cursor->probe.observer();
    const char* const path = table->store ? table->store->c_str() : cursor->plan.question.argument(0);
    veldar_store* store = nullptr;
    const veldar_status status = veldar_open(path, 0, &observer, &store);
    cursor->store.reset(store);
    return status > VELDAR_END ? failed(cursor->pVtab, status) : SQLITE_OK;
}

// A join asks once for each row of the other table.
int begin(face_cursor* cursor, const char* plan, std::span<sqlite3_value* const> values) {
    planned asked = plan_read(*table_of(cursor)->kind, plan, values);
    const bool is_known = cursor->rows != nullptr && asked.question == cursor->plan.question && cursor->rows->rewind();
    cursor->plan = std::move(asked);
    cursor->counts = cursor->has_read = false;
    cursor->at_end = cursor->plan.window.is_empty();
    cursor->row = 1;
    if (is_known && !cursor->at_end) return advance(cursor);
    cursor->rows.reset();
    if (cursor->at_end) return SQLITE_OK;
    if (const int status = open_store(cursor); status != SQLITE_OK) return status;
    if (!cursor->plan.only_counts || cursor->plan.question.limit != 0) return begin_rows(cursor);
    const int status = count_rows(cursor);
    cursor->at_end = cursor->total == 0;
    return status;
}

int filter(sqlite3_vtab_cursor* cursor, int, const char* plan, int count, sqlite3_value** values) {
    return guarded(cursor->pVtab, [&] {
        return begin(static_cast<face_cursor*>(cursor), plan, {values, static_cast<size_t>(count)});
    });
}

// Once a row was passed whose columns nobody wanted to know, the rows are only counted.
bool can_count(const face_cursor& cursor, const table_kind& kind) {
    return kind.count != nullptr && !cursor.has_read && cursor.row == 1 && cursor.plan.question.limit == 0 &&
           cursor.plan.window.is_whole();
}

int pass_counted(face_cursor* cursor) {
    cursor->row++;
    cursor->at_end = static_cast<uint64_t>(cursor->row) > cursor->total;
    return SQLITE_OK;
}

int next(sqlite3_vtab_cursor* given) {
    auto* const cursor = static_cast<face_cursor*>(given);
    if (cursor->counts) return pass_counted(cursor);
    return guarded(given->pVtab, [&] {
        if (!can_count(*cursor, *table_of(given)->kind)) {
            cursor->row++;
            return advance(cursor);
        }
        const int status = count_rows(cursor);
        return status == SQLITE_OK ? pass_counted(cursor) : status;
    });
}

int eof(sqlite3_vtab_cursor* cursor) {
    return static_cast<face_cursor*>(cursor)->at_end ? 1 : 0;
}

// A column is read after all: to the row that the count has reached.
int begin_again(face_cursor* cursor) {
    cursor->counts = false;
    int status = begin_rows(cursor);
    for (int64_t i = 1; i < cursor->row && status == SQLITE_OK && !cursor->at_end; i++) status = advance(cursor);
    return status;
}

int column(sqlite3_vtab_cursor* given, sqlite3_context* to, int number) {
    auto* const cursor = static_cast<face_cursor*>(given);
    const face_table* const table = table_of(given);
    return guarded(given->pVtab, [&] {
        if (number >= static_cast<int>(table->kind->visible)) {
            const size_t argument = static_cast<size_t>(number) - table->kind->visible + (table->store ? 1 : 0);
            const char* const text = cursor->plan.question.argument(argument);
            if (text != nullptr) put_text(to, text);
            return SQLITE_OK;
        }
        if (cursor->counts) {
            if (const int status = begin_again(cursor); status != SQLITE_OK || cursor->at_end) return status;
        }
        cursor->has_read = true;
        const veldar_status status = cursor->rows->put(to, number);
        return status > VELDAR_END ? failed(given->pVtab, status) : SQLITE_OK;
    });
}

int rowid(sqlite3_vtab_cursor* given, sqlite3_int64* out) {
    auto* const cursor = static_cast<face_cursor*>(given);
    return guarded(given->pVtab, [&] {
        if (cursor->counts) {
            if (const int status = begin_again(cursor); status != SQLITE_OK || cursor->at_end) return status;
        }
        cursor->has_read = true;
        *out = cursor->rows->rowid(cursor->row);
        return SQLITE_OK;
    });
}

const sqlite3_module MODULE = [] {
    sqlite3_module module = {};
    module.xCreate = module.xConnect = connect;
    module.xBestIndex = best_index;
    module.xDisconnect = module.xDestroy = disconnect;
    module.xOpen = open;
    module.xClose = close;
    module.xFilter = filter;
    module.xNext = next;
    module.xEof = eof;
    module.xColumn = column;
    module.xRowid = rowid;
    return module;
}();

}  // namespace

int table_module_create(sqlite3* db, const table_kind& kind) {
    return sqlite3_create_module(db, kind.name, &MODULE, const_cast<table_kind*>(&kind));
}

}  // namespace veldar::sql
