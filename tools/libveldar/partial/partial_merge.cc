#include "tools/libveldar/partial/partial_merge.h"

#include <algorithm>
#include <bit>
#include <span>
#include <tuple>

#include "tools/libveldar/store/failure.h"

namespace veldar::tool {

namespace {

void check_parts(const std::vector<named_partial>& answers) {
    // Sorted, what overlaps another stands behind it, with nothing but its other slices in between.
    std::vector<std::pair<std::string, const std::string*>> all;
    for (const named_partial& one : answers) {
        for (const partial_part& part : one.answer.parts) all.emplace_back(part.identity + "/", &one.name);
    }
    std::sort(all.begin(), all.end());
    for (size_t i = 1, whole = 0; i < all.size(); i++) {
        const std::string &outer = all[whole].first, &inner = all[i].first;
        if (!inner.starts_with(outer)) {
            whole = i;
            continue;
        }
        throw failure_t{OUTCOME_USAGE, inner.substr(0, inner.size() - 1) + " is both in the answer of " +
                                           *all[whole].second + " and in that of " + *all[i].second +
                                           ": its events would count twice"};
    }
}

void check_questions(const std::vector<named_partial>& answers) {
    const std::string wanted = question_text(answers.front().answer.asked);
    for (const named_partial& one : answers) {
        if (question_text(one.answer.asked) == wanted) continue;
        throw failure_t{OUTCOME_USAGE,
                        one.name + " and " + answers.front().name + " are answers to different questions"};
    }
}

void number_parts(merged_answer* merged) {
    for (const named_partial& one : merged->from) {
        merged->parts.insert(merged->parts.end(), one.answer.parts.begin(), one.answer.parts.end());
    }
    const auto by_identity = [](const partial_part& a, const partial_part& b) { return a.identity < b.identity; };
    std::sort(merged->parts.begin(), merged->parts.end(), by_identity);
    for (const named_partial& one : merged->from) {
        std::vector<uint64_t>& numbers = merged->part_of.emplace_back();
        for (const partial_part& part : one.answer.parts) {
            const auto at = std::lower_bound(merged->parts.begin(), merged->parts.end(), part, by_identity);
            numbers.push_back(static_cast<uint64_t>(at - merged->parts.begin()));
        }
    }
}

bool is_later(const st_timeval_t& a, const st_timeval_t& b) {
    return std::tie(a.time_s, a.time_ns) > std::tie(b.time_s, b.time_ns);
}

void add_coverage(merged_answer* merged) {
    std::optional<st_timeval_t>& latest = merged->coverage.complete_back_to;
    for (const named_partial& one : merged->from) {
        const partial_coverage& coverage = one.answer.coverage;
        merged_lack(merged, coverage.lacks);
        const std::optional<st_timeval_t>& time = coverage.complete_back_to;
        if (time && (!latest || is_later(*time, *latest))) latest = time;
        merged->knows_raw &= one.answer.knows_raw;
        merged->longest_host = std::max(merged->longest_host, one.answer.longest_host);
        merged->longest_source = std::max(merged->longest_source, one.answer.longest_source);
    }
}

// Whether the record of reader `a` comes before that of reader `b`.
bool comes_before(const merged_cursor& cursor, uint32_t a, uint32_t b) {
    const partial_reader &x = cursor.readers[a], &y = cursor.readers[b];
    const std::string& kind = cursor.answer->asked.kind;
    if (kind == "search") {
        const auto key = [&](const partial_reader& one, uint32_t from) {
            const event_record& event = one.event;
            return std::tuple(int64_t{event.time}, event.is_metric ? event.nanoseconds : 0,
                              cursor.answer->part_of[from][one.part], event.address);
        };
        return key(x, a) > key(y, b);
    }
    if (kind == "samples") {
        const auto key = [](const partial_reader& one) {
            return std::tuple(-one.time_ms, one.series, std::bit_cast<uint64_t>(one.value));
        };
        return key(x) < key(y);
    }
    return x.term < y.term;
}

void advance(merged_cursor* cursor, uint32_t reader) {
    cursor->places[reader] = partial_place(cursor->readers[reader]);
    if (!partial_next(&cursor->readers[reader])) return;
    const auto behind = [cursor](uint32_t a, uint32_t b) { return comes_before(*cursor, b, a); };
    cursor->waiting.push_back(reader);
    std::push_heap(cursor->waiting.begin(), cursor->waiting.end(), behind);
}

void add_totals(term_totals_t* into, const term_totals_t& totals) {
    if (totals.count == 0) return;
    const bool is_first = into->count == 0;
    into->earliest = is_first ? totals.earliest : std::min(into->earliest, totals.earliest);
    into->latest = is_first ? totals.latest : std::max(into->latest, totals.latest);
    into->count += totals.count;
}

stats_request request_of(const question& asked) {
    if (asked.kind == "stats") return stats_request_parse(asked.value("by"), asked.value("agg"));
    const metric_stats_question stats = question_metric_stats(asked);
    return stats_request_parse_metrics(stats.by, stats.aggregates.empty() ? "avg" : stats.aggregates,
                                       question_metrics(asked).names);
}

void add_table(const named_partial& from, const partial_reader& record, stats_result* result) {
    select_table_t table;
    warm_rc_t rc;
    const std::span bytes(reinterpret_cast<const uint8_t*>(record.table.data()), record.table.size());
    int status = select_table_decode(bytes, &table, &rc);
    if (status == 0) status = select_table_merge(&result->table, table, &rc);
    if (status == WARM_RC_NO_MEMORY) stats_fail({}, result->grid, rc);
    if (status != 0) throw failure_t{OUTCOME_DAMAGED, from.name + ": a damaged partial answer: " + rc.message};
    result->report.refused += record.count;
    const std::string_view example = record.no_number;
    // Whichever comes first of all, so that the order of merging does not matter.
    const bool is_better = !example.empty() && (result->no_number.empty() || example < result->no_number);
    if (is_better) result->no_number = example;
}

}  // namespace

bool parts_overlap(const std::string& identity, const std::string& other) {
    return (identity + "/").starts_with(other + "/") || (other + "/").starts_with(identity + "/");
}

merged_answer partials_merge(std::vector<named_partial> answers) {
    // Messages name the same two of three, whatever their order.
    std::sort(answers.begin(), answers.end(),
              [](const named_partial& a, const named_partial& b) { return a.name < b.name; });
    check_questions(answers);
    check_parts(answers);
    merged_answer merged;
    merged.asked = answers.front().answer.asked;
    merged.from = std::move(answers);
    number_parts(&merged);
    add_coverage(&merged);
    return merged;
}

void merged_lack(merged_answer* answer, const std::vector<std::string>& lacks) {
    std::vector<std::string>* const all = &answer->coverage.lacks;
    all->insert(all->end(), lacks.begin(), lacks.end());
    std::sort(all->begin(), all->end());
    all->erase(std::unique(all->begin(), all->end()), all->end());
}

merged_cursor merged_open(const merged_answer& answer) {
    merged_cursor cursor;
    cursor.answer = &answer;
    for (const named_partial& one : answer.from) cursor.readers.push_back(partial_read(one.answer));
    cursor.places.resize(cursor.readers.size());
    const bool is_limited = answer.asked.kind == "search" || answer.asked.kind == "samples";
    if (const uint64_t limit = answer.asked.number("limit"); is_limited && limit != 0) cursor.left = limit;
    return cursor;
}

bool merged_next(merged_cursor* cursor, merged_place* place) {
    if (cursor->is_begun) advance(cursor, cursor->last);
    for (uint32_t i = 0; !cursor->is_begun && i < cursor->readers.size(); i++) advance(cursor, i);
    cursor->is_begun = true;
    if (cursor->waiting.empty() || cursor->left == 0) return false;
    cursor->left--;
    const auto behind = [cursor](uint32_t a, uint32_t b) { return comes_before(*cursor, b, a); };
    std::pop_heap(cursor->waiting.begin(), cursor->waiting.end(), behind);
    cursor->last = cursor->waiting.back();
    cursor->waiting.pop_back();
    *place = {cursor->last, cursor->places[cursor->last]};
    return true;
}

const partial_reader& merged_again(merged_cursor* cursor, const merged_place& place) {
    partial_reader* const reader = &cursor->readers[place.from];
    partial_go_to(reader, place.at);
    partial_next(reader);
    return *reader;
}

const event_record& merged_event(merged_cursor* cursor, const merged_place& place) {
    partial_reader* const reader = &cursor->readers[place.from];
    reader->event.origin = cursor->answer->parts[cursor->answer->part_of[place.from][reader->part]].identity;
    return reader->event;
}

uint64_t merged_count(const merged_answer& answer) {
    uint64_t count = 0;
    for (const named_partial& one : answer.from) {
        partial_reader reader = partial_read(one.answer);
        if (partial_next(&reader)) count += reader.count;
    }
    return count;
}

void merged_terms(const merged_answer& answer, const term_visitor& visit) {
    merged_cursor cursor = merged_open(answer);
    merged_place place;
    std::string term;
    term_totals_t totals;
    bool has_term = false;
    while (merged_next(&cursor, &place)) {
        const partial_reader& record = cursor.readers[place.from];
        if (!has_term || record.term != term) {
            if (has_term && !visit(term, totals)) return;
            term = record.term;
            totals = {};
            has_term = true;
        }
        add_totals(&totals, record.totals);
    }
    if (has_term) visit(term, totals);
}

void merged_stats(const merged_answer& answer, stats_result* result) {
    result->request = request_of(answer.asked);
    select_table_init(&result->table, result->request.spec);
    for (const named_partial& one : answer.from) {
        partial_reader reader = partial_read(one.answer);
        if (partial_next(&reader)) add_table(one, reader, result);
    }
    select_table_finish(&result->table);
    const auto& rows = result->table.rows;
    const auto second_of = [](int64_t bin) { return bin / 1000000000 - (bin % 1000000000 < 0 ? 1 : 0); };
    const bool has_bins = answer.asked.has("every") && !rows.empty();
    constexpr int64_t FARTHEST_S = int64_t{1} << 32;
    if (has_bins && (second_of(rows.front().bin) < -FARTHEST_S || second_of(rows.back().bin) > FARTHEST_S)) {
        throw failure_t{OUTCOME_DAMAGED, "a damaged partial answer: bins of no time"};
    }
    result->grid = stats_grid_over(question_stats(answer.asked).bins, has_bins ? second_of(rows.front().bin) : 0,
                                   has_bins ? second_of(rows.back().bin) : 0, &result->request.spec);
    const auto is_off = [&](const auto& row) { return select_bin_of(result->grid.bins, row.bin) != row.bin; };
    if (has_bins && std::any_of(rows.begin(), rows.end(), is_off)) {
        throw failure_t{OUTCOME_DAMAGED,
                        "bins that the question does not have: made with other rules of the zone, or damaged"};
    }
}

void merged_write(const merged_answer& answer, const partial_sink& sink) {
    partial_writer writer;
    partial_begin(&writer, answer.asked, answer.parts, sink);
    const std::string& kind = answer.asked.kind;
    merged_cursor cursor = merged_open(answer);
    merged_place place;
    if (kind == "count") {
        partial_put_count(&writer, merged_count(answer));
    } else if (kind == "stats" || kind == "metric-stats") {
        stats_result result;
        merged_stats(answer, &result);
        partial_put_table(&writer, result.table, result.report.refused, result.no_number);
    } else if (kind == "search") {
        while (merged_next(&cursor, &place)) {
            const partial_reader& record = cursor.readers[place.from];
            partial_put_event(&writer, answer.part_of[place.from][record.part], record.event);
        }
    } else if (kind == "samples") {
        while (merged_next(&cursor, &place)) {
            const partial_reader& record = cursor.readers[place.from];
            partial_put_sample(&writer, record.series, record.time_ms, record.value);
        }
    } else {
        merged_terms(answer, [&](std::string_view term, const term_totals_t& totals) {
            partial_put_term(&writer, term, totals);
            return true;
        });
    }
    partial_end(&writer, answer.coverage);
}

}  // namespace veldar::tool
