// veldar.h: one question to many stores.
#include <climits>
#include <span>

#include "tools/libveldar/face/face_stats.h"
#include "tools/libveldar/face/face_tables.h"
#include "tools/libveldar/partial/partial_answer.h"
#include "tools/libveldar/partial/partial_merge.h"

using namespace veldar::tool;

struct veldar_bytes {
    std::string bytes;
};

namespace {

// Runs `work(call)` for a call that is none on a handle.
template <typename F>
veldar_status run(F work) noexcept {
    veldar_hearing nobody;
    return face_run(&nobody, work);
}

question question_of_kind(const std::string& kind) {
    question asked;
    asked.kind = kind;
    return asked;
}

question events_question(const std::string& kind, const veldar_question& given) {
    const query_options query = query_from(given.query);
    question asked = question_of_query(kind.c_str(), query);
    if (kind == "search") {
        asked.set("limit", given.limit);
        if (given.with_fields != 0) asked.set("fields", "all");
    } else if (kind == "stats") {
        const veldar_stats_options stats = record_from(given.stats);
        question_set_stats(&asked,
                           {text_from(stats.by),
                            text_from(stats.aggregates),
                            stats.keeps_missing != 0,
                            {text_from(stats.every), query.zone}},
                           stats.top);
    }
    return asked;
}

question terms_question(const std::string& kind, const veldar_question& given) {
    if (kind == "new") {
        const query_options query = query_from(given.query);
        return question_of_new(text_from(given.pattern), query.since, query.zone, given.limit);
    }
    question asked = question_of_kind(kind);
    if (kind == "seen") {
        asked.set("term", text_from(given.pattern));
    } else if (kind == "terms") {
        asked.set("pattern", text_from(given.pattern));
        asked.set("sort", given.by_term != 0 ? "term" : "count");
        asked.set("limit", given.limit);
    }
    static_cast<void>(question_terms(asked));  // throws what is wrong with it
    return asked;
}

question metrics_question(const std::string& kind, const veldar_question& given) {
    const metric_question metrics = metric_question_from(given.metrics);
    if (kind == "samples") return question_of_metrics(metrics, given.limit);
    const veldar_metric_stats_options stats = record_from(given.metric_stats);
    return question_of_metric_stats(metrics, metric_stats_question_from(stats, metrics.zone), stats.top);
}

question question_from(const veldar_question& given) {
    const std::string kind = text_from(given.kind);
    const auto is_one_of = [&](std::initializer_list<const char*> kinds) {
        return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
    };
    if (is_one_of({"search", "count", "stats"})) return events_question(kind, given);
    if (is_one_of({"terms", "fields", "seen", "new"})) return terms_question(kind, given);
    if (is_one_of({"samples", "metric-stats"})) return metrics_question(kind, given);
    throw failure_t{OUTCOME_USAGE, "'" + kind + "': no such kind of question"};
}

question question_read(const char* text) {
    question asked;
    if (!question_parse(text_from(text), &asked)) throw failure_t{OUTCOME_USAGE, "no text of a question"};
    return asked;
}

void give_bytes(std::string bytes, veldar_bytes** out) {
    *out = new veldar_bytes{std::move(bytes)};
}

// Whoever answers a question without having been asked finds nothing.
void write_nothing(const question& asked, const partial_coverage& coverage, const partial_sink& sink) {
    partial_writer writer;
    partial_begin(&writer, asked, {}, sink);
    if (asked.kind == "count") partial_put_count(&writer, 0);
    partial_end(&writer, coverage);
}

// The answers that are whole; what is wrong with the others goes to `lacks`.
std::vector<named_partial> answers_take(std::span<const veldar_text> given, std::vector<std::string>* lacks) {
    std::vector<named_partial> answers;
    for (size_t i = 0; i < given.size(); i++) {
        named_partial one;
        one.name = "answer " + std::to_string(i + 1);
        std::string_view bytes(given[i].data, given[i].size);
        std::string fault;
        if (partial_take(&bytes, &one.answer, &fault) && bytes.empty()) {
            answers.push_back(std::move(one));
        } else {
            lacks->push_back(one.name + ": " + (fault.empty() ? "more than one partial answer" : fault));
        }
    }
    return answers;
}

merged_answer answer_read(const veldar_text* given) {
    std::vector<std::string> faults;
    std::vector<named_partial> answers = answers_take({given, 1}, &faults);
    if (!faults.empty()) throw failure_t{OUTCOME_DAMAGED, faults[0]};
    return partials_merge(std::move(answers));
}

// What the answer lacks, for people.
std::string lacks_text(const partial_coverage& coverage) {
    std::string text;
    for (const std::string& one : coverage.lacks) text += (text.empty() ? "" : "\n") + one;
    if (text.empty() && coverage.complete_back_to) text = "the answer ends early";
    return text;
}

std::string fields_text(const event_fields& fields) {
    std::string text;
    for (const auto& [name, values] : fields) {
        for (const std::string& value : values) {
            if (!text.empty()) text += ',';
            face_put_escaped(&text, name);
            text += '=';
            face_put_escaped(&text, value);
        }
    }
    return text;
}

void put_event(const event_record& event, bool has_fields, veldar_table* to) {
    auto column = to->columns.begin();
    column_put(&*column++, time_ns_of(event.time, event.nanoseconds));
    event.has_raw ? column_put(&*column, event.raw) : column_put_nothing(&*column);
    column++;
    for (const std::string_view text : {event.host, event.source, event.sourcetype, event.directory}) {
        column_put(&*column++, text);
    }
    column_put(&*column++, uint64_t{event.address});
    column_put(&*column++, event.origin);
    if (has_fields) column_put(&*column, std::string_view(fields_text(event.fields)));
}

void put_events(const merged_answer& answer, veldar_table* to) {
    const bool has_fields = answer.asked.has("fields");
    table_column(to, "time", VELDAR_TIME);
    for (const char* const name : {"raw", "host", "source", "sourcetype", "directory"}) {
        table_column(to, name, VELDAR_TEXT);
    }
    table_column(to, "address", VELDAR_UINT64);
    table_column(to, "index", VELDAR_TEXT);
    if (has_fields) table_column(to, "fields", VELDAR_TEXT);
    merged_cursor cursor = merged_open(answer);
    for (merged_place place; merged_next(&cursor, &place);) put_event(merged_event(&cursor, place), has_fields, to);
}

void put_samples(const merged_answer& answer, veldar_table* to) {
    face_samples samples;
    face_samples_begin(&samples, to);
    merged_cursor cursor = merged_open(answer);
    for (merged_place place; merged_next(&cursor, &place);) {
        const partial_reader& sample = cursor.readers[place.from];
        face_samples_put(&samples, std::string(sample.series), sample.time_ms, sample.value);
    }
}

void put_stats(const merged_answer& answer, veldar_table* to) {
    stats_result result;
    merged_stats(answer, &result);
    stats_shape shape;
    shape.top = answer.asked.number("top");
    const bool is_events = answer.asked.kind == "stats";
    if (is_events && result.request.group_names.empty()) shape.fill = stats_fill::empty;
    face_put_stats(result.request, &result.table, result.grid, shape, to);
}

void put_new(const merged_answer& answer, veldar_table* to) {
    face_add_term_columns(to);
    const prepared_query bounds = query_prepare(question_query(answer.asked));
    const uint64_t limit = answer.asked.number("limit");
    for (const counted_term& one : terms_new_since(merged_walk(answer), bounds.bounds.earliest, limit)) {
        face_put_term(to, one.term, one.totals);
    }
}

void put_answer(const merged_answer& answer, veldar_table* to) {
    const question& asked = answer.asked;
    const term_walk walk = merged_walk(answer);
    if (asked.kind == "search") return put_events(answer, to);
    if (asked.kind == "samples") return put_samples(answer, to);
    if (asked.kind == "stats" || asked.kind == "metric-stats") return put_stats(answer, to);
    if (asked.kind == "terms") return face_put_terms(walk, asked.number("limit"), asked.value("sort") == "term", to);
    if (asked.kind == "fields") return face_put_fields(walk, to);
    if (asked.kind == "seen") return face_put_seen(walk, to);
    if (asked.kind == "new") return put_new(answer, to);
    column_put(&table_column(to, "count", VELDAR_UINT64), merged_count(answer));
}

}  // namespace

extern "C" {

const char* veldar_bytes_data(const veldar_bytes* bytes) {
    return bytes->bytes.data();
}

size_t veldar_bytes_size(const veldar_bytes* bytes) {
    return bytes->bytes.size();
}

void veldar_bytes_free(veldar_bytes* bytes) {
    delete bytes;
}

veldar_status veldar_question_text(const veldar_question* question, veldar_bytes** text) {
    *text = nullptr;
    return run([&](const face_call&) {
        give_bytes(question_text(question_from(record_from(question))), text);
        return VELDAR_OK;
    });
}

veldar_status veldar_answer_partially(veldar_store* store, const char* question, veldar_bytes** answer) {
    *answer = nullptr;
    return face_run(&store->hearing, [&](const face_call& call) {
        std::string bytes;
        troubles trouble;
        partial_answer(
            store->path, question_read(question), [&](std::string_view piece) { bytes.append(piece); }, &trouble);
        give_bytes(std::move(bytes), answer);
        return trouble.incomplete ? call.end(OUTCOME_INCOMPLETE, &trouble) : VELDAR_OK;
    });
}

veldar_status veldar_answers_merge(const char* question, const veldar_text* answers, size_t count,
                                   const char* const* lacks, size_t lacks_count, veldar_bytes** merged) {
    *merged = nullptr;
    return run([&](const face_call&) {
        const auto asked = question_read(question);
        std::vector<std::string> lacking(lacks, lacks + lacks_count);
        std::vector<named_partial> taken = answers_take({answers, count}, &lacking);
        std::string bytes;
        const partial_sink sink = [&](std::string_view piece) { bytes.append(piece); };
        merged_answer all;
        const bool is_nothing = taken.empty();
        if (!is_nothing) all = partials_merge(std::move(taken));
        if (!is_nothing && question_text(all.asked) != question_text(asked)) {
            throw failure_t{OUTCOME_USAGE, "these are answers to another question"};
        }
        merged_lack(&all, lacking);
        is_nothing ? write_nothing(asked, all.coverage, sink) : merged_write(all, sink);
        give_bytes(std::move(bytes), merged);
        if (!all.coverage.lacks.empty() || all.coverage.complete_back_to) {
            return face_failed({OUTCOME_INCOMPLETE, lacks_text(all.coverage)});
        }
        return VELDAR_OK;
    });
}

veldar_status veldar_answer_table(const veldar_text* answer, veldar_table** table) {
    *table = nullptr;
    return run([&](const face_call& call) {
        const merged_answer read = answer_read(answer);
        auto to = std::make_unique<veldar_table>();
        put_answer(read, to.get());
        const veldar_status status = face_give(std::move(to), {}, call, table);
        const std::string lacks = lacks_text(read.coverage);
        return lacks.empty() ? status : face_failed({OUTCOME_INCOMPLETE, lacks});
    });
}

veldar_status veldar_answer_lacks(const veldar_text* answer, int64_t* complete_back_to_ns, veldar_table** table) {
    *table = nullptr;
    *complete_back_to_ns = INT64_MIN;
    return run([&](const face_call& call) {
        const partial_coverage coverage = answer_read(answer).coverage;
        if (const auto& time = coverage.complete_back_to)
            *complete_back_to_ns = time_ns_of(time->time_s, time->time_ns);
        auto to = std::make_unique<veldar_table>();
        table_column(to.get(), "lacks", VELDAR_TEXT);
        for (const std::string& one : coverage.lacks) column_put(&to->columns[0], std::string_view(one));
        return face_give(std::move(to), {}, call, table);
    });
}

}  // extern "C"
