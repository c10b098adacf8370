// veldar.h: counts, terms, fields, slices and statistics.
#include "tools/libveldar/face/face.h"
#include "tools/libveldar/face/face_stats.h"
#include "tools/libveldar/face/face_tables.h"
#include "tools/libveldar/load/stats_ask.h"
#include "tools/libveldar/query/event_count.h"
#include "tools/libveldar/query/slice_rows.h"
#include "tools/libveldar/query/stats_answer.h"
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
        return face_give(std::move(table), trouble, call, out);
    });
}

void put_slice(veldar_table* table, const slice_set& set, const slice_row& row) {
    const std::string directory = row.path.substr(0, row.path.rfind('/'));
    column_put(&table->columns[0], std::string_view(row.path.empty() ? set.path : row.path));
    column_put(&table->columns[1], std::string_view(directory.substr(directory.rfind('/') + 1)));
    face_put_times(table, 2, row.has_times, row.earliest, row.latest);
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
        const veldar::term_choice_t choice = terms_of_pattern(text_from(pattern));
        face_put_terms(terms_at(store->path, choice, trouble), limit, by_term != 0, to);
    });
}

veldar_status veldar_fields(veldar_store* store, veldar_table** table) {
    return answer(store, table, [&](veldar_table* to, troubles* trouble) {
        face_put_fields(terms_at(store->path, terms_of_fields(), trouble), to);
    });
}

veldar_status veldar_seen(veldar_store* store, const char* term, veldar_table** table) {
    return answer(store, table, [&](veldar_table* to, troubles* trouble) {
        face_put_seen(terms_at(store->path, terms_of_one(text_from(term)), trouble), to);
    });
}

veldar_status veldar_slices(veldar_store* store, veldar_table** table) {
    return answer(store, table, [&](veldar_table* to, troubles* trouble) {
        table_column(to, "path", VELDAR_TEXT);
        table_column(to, "directory", VELDAR_TEXT);
        face_add_time_columns(to);
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
