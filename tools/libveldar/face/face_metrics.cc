// veldar.h: metrics.
#include "tools/libveldar/face/face_stats.h"
#include "tools/libveldar/face/face_tables.h"
#include "tools/libveldar/query/metric_ask.h"
#include "tools/libveldar/query/metric_catalog.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/store.h"

using namespace veldar::tool;

namespace veldar::tool {

metric_question metric_question_from(const veldar_metric_query* query) {
    const veldar_metric_query given = record_from(query);
    metric_question question;
    question.names = comma_parts(text_from(given.names));
    for (size_t i = 0; i < given.where_count; i++) question.where.push_back(text_from(given.where[i]));
    question.since = text_from(given.since);
    question.until = text_from(given.until);
    question.zone = given.zone == nullptr ? "UTC" : given.zone;
    if (question.names.empty()) question.names = {"*"};
    return question;
}

metric_stats_question metric_stats_question_from(const veldar_metric_stats_options& given, const std::string& zone) {
    return {text_from(given.by),
            text_from(given.aggregates),
            given.keeps_missing != 0,
            given.rate != 0,
            {text_from(given.every), zone}};
}

}  // namespace veldar::tool

namespace {

// A store into which no metrics were loaded answers with nothing. What else is at the path is for the engine to judge.
bool has_metrics(const veldar_store* store) {
    return !store_is(store->path) || disk_exists(metric_directory_of(store->path));
}

}  // namespace

extern "C" {

veldar_status veldar_metrics(veldar_store* store, veldar_table** table) {
    *table = nullptr;
    return face_run(&store->hearing, [&](const face_call& call) {
        troubles trouble;
        metric_catalog catalog;
        if (has_metrics(store)) catalog = metric_catalog_read(metric_directory_of(store->path), &trouble);
        auto to = std::make_unique<veldar_table>();
        table_column(to.get(), "metric", VELDAR_TEXT);
        for (const char* const name : {"samples", "series"}) table_column(to.get(), name, VELDAR_UINT64);
        for (const char* const name : {"first", "last"}) table_column(to.get(), name, VELDAR_TIME);
        for (const auto& [name, totals] : catalog.names) {
            column_put(&to->columns[0], std::string_view(name));
            column_put(&to->columns[1], totals.points);
            column_put(&to->columns[2], uint64_t{totals.sets.size()});
            column_put(&to->columns[3], time_ns_of(totals.earliest));
            column_put(&to->columns[4], time_ns_of(totals.latest));
        }
        return face_give(std::move(to), trouble, call, table);
    });
}

veldar_status veldar_metric_samples(veldar_store* store, const veldar_metric_query* query, uint64_t limit,
                                    veldar_table** table) {
    *table = nullptr;
    return face_run(&store->hearing, [&](const face_call& call) {
        metric_points points;
        if (has_metrics(store)) {
            metric_samples_read(metric_directory_of(store->path), metric_question_from(query), limit, false, &points);
        }
        auto to = std::make_unique<veldar_table>();
        face_samples samples;
        face_samples_begin(&samples, to.get());
        for (const metric_point& point : points.points) {
            face_samples_put(&samples, *points.series.texts[point.series], point.time_ms, point.value);
        }
        return face_give(std::move(to), {}, call, table);
    });
}

veldar_status veldar_metric_stats(veldar_store* store, const veldar_metric_query* query,
                                  const veldar_metric_stats_options* options, veldar_table** table) {
    *table = nullptr;
    return face_run(&store->hearing, [&](const face_call& call) {
        const veldar_metric_stats_options given = record_from(options);
        const metric_question question = metric_question_from(query);
        metric_stats_result result;
        troubles trouble;
        const metric_stats_question wanted = metric_stats_question_from(given, question.zone);
        metric_stats_ask(has_metrics(store) ? metric_directory_of(store->path) : "", question, wanted, &result,
                         &trouble);
        auto to = std::make_unique<veldar_table>();
        face_put_stats(result.request, &result.table, result.grid, {.top = given.top}, to.get());
        return face_give(std::move(to), trouble, call, table);
    });
}

}  // extern "C"
