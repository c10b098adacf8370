#include "tools/libveldar/partial/partial_answer.h"

#include <algorithm>
#include <climits>

#include "tools/libveldar/load/event_record.h"
#include "tools/libveldar/load/stats_ask.h"
#include "tools/libveldar/query/event_count.h"
#include "tools/libveldar/query/term_input.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/store.h"

namespace veldar::tool {

namespace {

struct answering {
    const question* asked;
    std::string path;
    slice_set slices;
    std::vector<uint32_t> part_of;  // by directory
    std::vector<partial_part> parts;
    partial_writer writer;
    troubles* trouble;
    // What the windows gave so far.
    uint64_t events = 0, count = 0, refused = 0;
    bool has_table = false;
    select_table_t table;
    std::string no_number;
};

void list_parts(answering* a) {
    for (const slice_directory& directory : a->slices.directories) {
        std::string identity = index_identity(directory.path);
        if (directory.tsidx == nullptr) identity += a->slices.path.substr(a->slices.path.rfind('/') + 1).insert(0, "/");
        a->parts.push_back({std::move(identity), 0, directory.has_sources});
    }
    std::vector<uint32_t> order(a->parts.size());
    for (uint32_t i = 0; i < order.size(); i++) order[i] = i;
    std::sort(order.begin(), order.end(),
              [&](uint32_t x, uint32_t y) { return a->parts[x].identity < a->parts[y].identity; });
    std::vector<partial_part> sorted;
    a->part_of.resize(order.size());
    for (uint32_t i = 0; i < order.size(); i++) {
        a->part_of[order[i]] = i;
        sorted.push_back(a->parts[order[i]]);
    }
    a->parts = std::move(sorted);
    for (size_t i = 0; i < a->slices.slices->size(); i++) a->parts[a->part_of[a->slices.slices->source(i)]].slices++;
}

// What is asked of one window of time, or of all times.
struct time_window {
    question asked;
    budget_watch* watch = nullptr;                      // null: no budget
    std::optional<st_timeval_t> complete_back_to = {};  // set when it was cut
};

void put_events(answering* a, event_reader* reader, std::vector<event_t>* held) {
    for (const event_t& event : *held) {
        partial_put_event(&a->writer, a->part_of[event.source], event_record_of(reader, event));
        a->events++;
    }
    held->clear();
}

event_reader reader_for(const answering& a, event_source* source) {
    event_reader reader;
    reader.source = source;
    reader.parts = EVENT_FRACTION | EVENT_RAW | EVENT_NAMES;
    if (a.asked->has("fields")) reader.parts |= EVENT_FIELDS;
    reader.lines_before = static_cast<uint32_t>(std::min<uint64_t>(a.asked->number("before"), UINT32_MAX));
    reader.lines_after = static_cast<uint32_t>(std::min<uint64_t>(a.asked->number("after"), UINT32_MAX));
    if (reader.lines_before > 0 || reader.lines_after > 0) reader.parts |= EVENT_LINES;
    reader.has_raw = event_source_knows_raw(a.slices);
    return reader;
}

bool is_cut(time_window* window) {
    return window->watch != nullptr && window->watch->is_over();
}

// Of the seconds that a window ends with and the time before which events may lack: behind the last second there is
// none, so that it ends with its own last moment.
st_timeval_t time_of_end(int64_t end) {
    if (end > INT_MAX) return {INT_MAX, 999999999};
    return {static_cast<st_time_t>(end), 0};
}

int64_t end_of_time(const st_timeval_t& before) {
    return int64_t{before.time_s} + (before.time_ns > 0 ? 1 : 0);
}

// The last two seconds of all are one: a bound between them would be none.
constexpr int64_t LAST_BOUND = INT_MAX - 1;

int64_t end_of_second(const event_t& event) {
    return event.value.time >= LAST_BOUND ? int64_t{INT_MAX} + 1 : int64_t{event.value.time} + 1;
}

// The events of a second are held until the next one begins, so that an answer that is cut has whole seconds.
void answer_search(answering* a, time_window* window) {
    const prepared_query query = query_prepare(question_query(window->asked));
    event_source source;
    event_source_open(&source, &a->slices, a->trouble);
    event_source_read_names(&source);
    event_reader reader = reader_for(*a, &source);
    const uint64_t limit = a->asked->number("limit"), left = limit == 0 ? UINT64_MAX : limit - a->events;
    if (left == 0) return;
    std::vector<event_t> held;
    try {
        const event_cursor_ptr events = events_open(query, limit == 0 ? 0 : left, &source);
        event_t event;
        for (uint64_t count = 0; count < left && events_next(events.get(), &event); count++) {
            if (!held.empty() && end_of_second(held.front()) != end_of_second(event)) put_events(a, &reader, &held);
            if (is_cut(window)) {
                window->complete_back_to = time_of_end(end_of_second(event));
                return;
            }
            held.push_back(event);
        }
    } catch (const failure_t& failure) {
        if (failure.status != OUTCOME_INTERRUPTED || !is_cut(window)) throw;
        if (held.empty()) throw;
        window->complete_back_to = time_of_end(end_of_second(held.front()));
        return;
    }
    put_events(a, &reader, &held);
}

void answer_count(answering* a, time_window* window) {
    a->count += count_events(a->path, query_prepare(question_query(window->asked)), a->trouble);
}

// Adds a table to what the windows before gave.
void add_table(answering* a, select_table_t table, uint64_t refused, const std::string& no_number) {
    a->refused += refused;
    if (a->no_number.empty()) a->no_number = no_number;
    if (!a->has_table) {
        a->table = std::move(table);
        a->has_table = true;
        return;
    }
    warm_rc_t rc;
    if (select_table_merge(&a->table, table, &rc) != 0) stats_fail(a->slices, {}, rc);
    select_table_finish(&a->table);
}

void answer_stats(answering* a, time_window* window) {
    stats_result result;
    stats_ask(a->slices, query_prepare(question_query(window->asked)), question_stats(window->asked), &result,
              a->trouble);
    add_table(a, std::move(result.table), result.report.refused, result.no_number);
}

void answer_metric_stats(answering* a, time_window* window) {
    metric_stats_result result;
    metric_stats_ask(a->path, question_metrics(window->asked), question_metric_stats(window->asked), &result,
                     a->trouble);
    add_table(a, std::move(result.table), result.report.refused, "");
}

void answer_samples(answering* a, time_window* window) {
    const uint64_t limit = a->asked->number("limit");
    if (limit != 0 && a->events == limit) return;
    metric_points points;
    metric_samples_read(a->path, question_metrics(window->asked), limit == 0 ? 0 : limit - a->events, false, &points);
    for (const metric_point& point : points.points) {
        partial_put_sample(&a->writer, *points.series.texts[point.series], point.time_ms, point.value);
        a->events++;
    }
}

void answer_window(answering* a, time_window* window) {
    const std::string& kind = a->asked->kind;
    if (kind == "search") return answer_search(a, window);
    if (kind == "count") return answer_count(a, window);
    if (kind == "stats") return answer_stats(a, window);
    kind == "samples" ? answer_samples(a, window) : answer_metric_stats(a, window);
}

void answer_terms(answering* a) {
    walk_terms(
        a->path, question_terms(*a->asked),
        [a](std::string_view term, const term_totals_t& totals) {
            partial_put_term(&a->writer, term, totals);
            return true;
        },
        a->trouble);
}

// ---- Windows of time ----

constexpr int64_t FIRST_PART = 64;       // of all time, the first window's
constexpr double WANTED_PART = 1.0 / 8;  // of the budget, a window's

std::string second_text(int64_t second) {
    return "@" + std::to_string(second) + ".000000000";
}

// Where the next window ends: the first second that is not meant any more, or the cursor's.
int64_t first_end(const slice_times& times, const answer_limits& limits) {
    if (!limits.from) return times.latest_s + 1;
    return std::min(times.latest_s + 1, end_of_time(limits.from->before));
}

// Asks for the events from `begin` to `end`, without; as much of it as the budget allows.
void answer_between(answering* a, const slice_times& times, int64_t begin, int64_t end, budget_watch* watch,
                    time_window* window) {
    window->asked = *a->asked;
    window->watch = watch;
    // The question's own bounds may cut a second.
    if (begin > times.earliest_s) window->asked.set("since", second_text(begin));
    if (end <= times.latest_s) window->asked.set("until", second_text(end));
    try {
        answer_window(a, window);
    } catch (const failure_t& failure) {
        if (failure.status != OUTCOME_INTERRUPTED || !watch->is_over()) throw;
        window->complete_back_to = time_of_end(end);
    }
}

// Asks window by window, the newest first, until all is told or the budget used up.
std::optional<answer_cursor> answer_in_windows(answering* a, const answer_limits& limits) {
    const prepared_query bounds = query_prepare(question_query(*a->asked));
    const slice_times times = slices_times(a->slices, bounds.bounds);
    if (times.is_empty()) return std::nullopt;
    budget_watch watch(limits.budget);
    const answer_cursor from = limits.from.value_or(answer_cursor{});
    const int64_t all = times.latest_s - times.earliest_s + 1;
    int64_t width = from.width_s > 0 ? std::min(from.width_s, all) : all / FIRST_PART + 1;
    const uint64_t limit = a->asked->number("limit");
    if (limit != 0) a->events = std::min(from.told, limit);
    const auto cursor_at = [a](int64_t end, int64_t next_width, double used) {
        return answer_cursor{time_of_end(end), next_width, used, a->events};
    };
    bool is_patient = from.used > 0;
    for (int64_t end = first_end(times, limits); end > times.earliest_s;) {
        const double used_before = watch.used();
        const int64_t begin = std::max(times.earliest_s, std::min(end - width, LAST_BOUND));
        time_window window;
        watch.set_patient(is_patient);
        answer_between(a, times, begin, end, &watch, &window);
        watch.set_patient(false);
        if (window.complete_back_to) {
            const int64_t told_to = end_of_time(*window.complete_back_to);
            const bool is_narrowest = width == 1 && told_to == end;
            return cursor_at(told_to, std::max<int64_t>(width / 4, 1), is_narrowest ? 1.0 : 0.0);
        }
        if (limit != 0 && a->events == limit) return std::nullopt;
        end = begin;
        const double used = watch.used() - used_before;
        const bool is_cheap = is_patient ? used <= from.used * 1.5 : used < WANTED_PART / 2;
        if (is_cheap) width = std::min(width * 2, all);
        if (!is_cheap && (is_patient || used > WANTED_PART * 2)) width = std::max<int64_t>(width / 2, 1);
        if (watch.is_over() && end > times.earliest_s) {
            return cursor_at(end, width, is_patient ? used : 0.0);
        }
        is_patient = false;
    }
    return std::nullopt;
}

bool has_times(const question& asked) {
    static constexpr std::string_view KINDS[] = {"search", "count", "stats", "samples", "metric-stats"};
    return std::find(std::begin(KINDS), std::end(KINDS), asked.kind) != std::end(KINDS);
}

void put_totals(answering* a) {
    if (a->asked->kind == "count") partial_put_count(&a->writer, a->count);
    if (a->has_table) partial_put_table(&a->writer, a->table, a->refused, a->no_number);
}

}  // namespace

std::optional<answer_cursor> partial_answer(const std::string& path, const question& asked, const partial_sink& sink,
                                            troubles* trouble, const answer_limits& limits) {
    const bool is_limited = limits.budget.is_limited() || limits.from;
    if (is_limited && (!has_times(asked) || asked.has("rate"))) {
        throw failure_t{OUTCOME_USAGE,
                        "this answer cannot be cut by time: expected no deadline, no limit of reading and no cursor"};
    }
    answering a;
    a.asked = &asked;
    a.trouble = trouble;
    const bool is_metrics = asked.kind == "samples" || asked.kind == "metric-stats";
    a.path = is_metrics ? metric_directory_of(path) : path;
    // A store need not have metrics.
    const bool has_none = is_metrics && a.path != path && !disk_exists(a.path);
    a.slices = has_none ? slices_none() : slices_list(a.path, false);
    list_parts(&a);
    partial_begin(&a.writer, asked, a.parts, sink);
    std::optional<answer_cursor> cursor;
    time_window all_times = {asked};
    if (!has_times(asked)) {
        answer_terms(&a);
    } else if (is_limited) {
        cursor = answer_in_windows(&a, limits);
    } else if (!has_none) {
        answer_window(&a, &all_times);
    }
    put_totals(&a);
    slices_tell_errors(a.slices, trouble);
    partial_coverage coverage;
    coverage.lacks = {trouble->said.begin(), trouble->said.end()};
    if (trouble->incomplete && coverage.lacks.empty()) coverage.lacks = {path + ": not all could be read"};
    if (cursor) coverage.complete_back_to = cursor->before;
    partial_end(&a.writer, coverage);
    return cursor;
}

term_choice_t question_terms(const question& asked) {
    if (asked.kind == "fields") return terms_of_fields();
    if (asked.kind == "seen") return terms_of_one(asked.value("term"));
    return asked.kind == "new" ? terms_of_field_or_pattern(asked.value("pattern"))
                               : terms_of_pattern(asked.value("pattern"));
}

}  // namespace veldar::tool
