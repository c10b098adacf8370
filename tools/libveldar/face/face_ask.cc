// veldar.h: counts, terms, fields, slices and statistics.
#include "tools/libveldar/face/face.h"
#include "tools/libveldar/face/face_stats.h"
#include "tools/libveldar/load/stats_ask.h"
#include "tools/libveldar/query/event_count.h"
#include "tools/libveldar/query/slice_rows.h"
#include "tools/libveldar/query/stats_answer.h"
#include "tools/libveldar/query/term_input.h"
#include "tools/libveldar/store/slices.h"

using namespace veldar::tool;

namespace {

// Runs `fill(table, trouble)` and hands the table over with what came of it.
template <typename F>
veldar_status answer(veldar_store* store, veldar_table** out, F fill) noexcept {
    *out = nullptr;
    return face_run(&store->hearing, [&](const face_call& call) {
        auto table = std::make_unique<veldar_table>();
        troubles trouble;
        fill(table.get(), &trouble);
        table->rows = table->columns.empty() ? 0 : table->columns[0].valid.size();
        const bool found = table->rows > 0;
        *out = table.release();
        if (trouble.incomplete) return call.end(OUTCOME_INCOMPLETE);
        return found ? VELDAR_OK : VELDAR_END;
    });
}

void add_time_columns(veldar_table* table) {
    table_column(table, "first", VELDAR_TIME);
    table_column(table, "last", VELDAR_TIME);
}

// Into the two columns from `at` on.
void put_times(veldar_table* table, size_t at, bool has_times, int64_t first_s, int64_t last_s) {
    if (has_times) {
        column_put(&table->columns[at], time_ns_of(first_s));
        column_put(&table->columns[at + 1], time_ns_of(last_s));
    } else {
        column_put_nothing(&table->columns[at]);
        column_put_nothing(&table->columns[at + 1]);
    }
}

void put_term(veldar_table* table, std::string_view term, const veldar::term_totals_t& totals) {
    column_put(&table->columns[0], std::string_view(term_query_text(term)));
    column_put(&table->columns[1], totals.count);
    put_times(table, 2, true, totals.earliest, totals.latest);
}

void put_slice(veldar_table* table, const slice_set& set, const slice_row& row) {
    const std::string directory = row.path.substr(0, row.path.rfind('/'));
    column_put(&table->columns[0], std::string_view(row.path.empty() ? set.path : row.path));
    column_put(&table->columns[1], std::string_view(directory.substr(directory.rfind('/') + 1)));
    put_times(table, 2, row.has_times, row.earliest, row.latest);
    size_t i = 4;
    for (const uint64_t number : {row.events, row.deleted, row.terms}) {
        row.readable ? column_put(&table->columns[i], number) : column_put_nothing(&table->columns[i]);
        i++;
    }
    column_put(&table->columns[i], row.bytes);
}

}  // namespace

extern "C" {

veldar_status veldar_count(veldar_store* store, const veldar_query* query, uint64_t* count) {
    *count = 0;
    return face_run(&store->hearing, [&](const face_call& call) {
        troubles trouble;
        *count = count_events(store->path, query_prepare(query_from(query)), &trouble);
        if (trouble.incomplete) return call.end(OUTCOME_INCOMPLETE);
        return *count > 0 ? VELDAR_OK : VELDAR_END;
    });
}

veldar_status veldar_terms(veldar_store* store, const char* pattern, uint64_t limit, int by_term,
                           veldar_table** table) {
    return answer(store, table, [&](veldar_table* to, troubles* trouble) {
        table_column(to, "term", VELDAR_TEXT);
        table_column(to, "count", VELDAR_UINT64);
        add_time_columns(to);
        const std::string text = text_from(pattern);
        if (by_term == 0) {
            for (const counted_term& one :
                 terms_by_count(terms_at(store->path, terms_of_pattern(text), trouble), limit)) {
                put_term(to, one.term, one.totals);
            }
            return;
        }
        const auto visit = [&](std::string_view term, const veldar::term_totals_t& totals) {
            put_term(to, term, totals);
            return to->columns[0].valid.size() != limit;
        };
        walk_terms(store->path, terms_of_pattern(text), visit, trouble);
    });
}

veldar_status veldar_fields(veldar_store* store, veldar_table** table) {
    return answer(store, table, [&](veldar_table* to, troubles* trouble) {
        table_column(to, "field", VELDAR_TEXT);
        table_column(to, "events", VELDAR_UINT64);
        table_column(to, "values", VELDAR_UINT64);
        for (const field_totals& field : fields_list(terms_at(store->path, terms_of_fields(), trouble))) {
            column_put(&to->columns[0], std::string_view(field.name));
            column_put(&to->columns[1], field.events);
            column_put(&to->columns[2], field.values);
        }
    });
}

veldar_status veldar_seen(veldar_store* store, const char* term, veldar_table** table) {
    return answer(store, table, [&](veldar_table* to, troubles* trouble) {
        table_column(to, "count", VELDAR_UINT64);
        add_time_columns(to);
        const veldar::term_totals_t all = term_seen(terms_at(store->path, terms_of_one(text_from(term)), trouble));
        if (all.count == 0) return;
        column_put(&to->columns[0], all.count);
        put_times(to, 1, true, all.earliest, all.latest);
    });
}

veldar_status veldar_slices(veldar_store* store, veldar_table** table) {
    return answer(store, table, [&](veldar_table* to, troubles* trouble) {
        table_column(to, "path", VELDAR_TEXT);
        table_column(to, "directory", VELDAR_TEXT);
        add_time_columns(to);
        for (const char* const name : {"events", "deleted", "terms", "bytes"}) table_column(to, name, VELDAR_UINT64);
        const slice_set set = slices_list_all(store->path);
        slices_tell_errors(set, trouble);
        for (const slice_row& row : slice_rows_read(set, false, trouble)) put_slice(to, set, row);
    });
}

veldar_status veldar_stats(veldar_store* store, const veldar_query* query, const veldar_stats_options* options,
                           veldar_table** table) {
    return answer(store, table, [&](veldar_table* to, troubles* trouble) {
        const veldar_stats_options given = record_from(options);
        const query_options asked = query_from(query);
        const prepared_query prepared = query_prepare(asked);
        stats_result result;
        stats_ask(slices_list(store->path, false), prepared,
                  {text_from(given.by),
                   text_from(given.aggregates),
                   given.keeps_missing != 0,
                   {text_from(given.every), asked.zone}},
                  &result, trouble);
        const bool one_group = result.request.group_names.empty();
        face_put_stats(result.request, &result.table, result.grid,
                       {.top = given.top, .fill = one_group ? stats_fill::empty : stats_fill::none}, to);
    });
}

}  // extern "C"
