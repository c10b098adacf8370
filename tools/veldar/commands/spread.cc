#include "tools/veldar/commands/spread.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "tools/libveldar/partial/partial_answer.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/hosts.h"
#include "tools/veldar/commands/metrics_stats.h"
#include "tools/veldar/output/event_print.h"
#include "tools/veldar/output/sample_output.h"
#include "tools/veldar/output/term_output.h"

namespace veldar::tool {

namespace {

// Standard output, for what is no text.
partial_sink standard_output() {
    if (::isatty(STDOUT_FILENO) == 1) {
        throw failure_t{OUTCOME_USAGE, "a partial answer is for 'veldar merge-answers': expected a file or a pipe"};
    }
    return [](std::string_view bytes) {
        if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) {
            fail_io("cannot write to", "standard output", errno);
        }
    };
}

void flush_standard_output() {
    if (std::fflush(stdout) != 0) fail_io("cannot write to", "standard output", errno);
}

answer_budget budget_of(const spread_options& options) {
    return {options.deadline.empty() ? 0 : deadline_parse(options.deadline), options.max_read};
}

int write_partial(const std::string& store, const spread_options& options, const question& asked) {
    troubles trouble;
    const bool is_cut =
        partial_answer(store_choose(store), asked, standard_output(), &trouble, {budget_of(options), {}}).has_value();
    flush_standard_output();
    return is_cut ? OUTCOME_INCOMPLETE : answer_status(true, trouble);
}

// This store's answer as far as the budget goes, and the cursor for the next one.
int show_within_budget(const std::string& store, const spread_options& options, question asked,
                       const merged_view& view) {
    answer_limits limits = {budget_of(options), {}};
    const std::string path = store_choose(store);
    const std::string identity = options.cursor.empty() ? "" : index_identity(path);
    if (!options.cursor.empty()) limits.from = cursor_read(options.cursor, identity, &asked);
    std::string bytes;
    troubles trouble;
    trouble.is_silent = false;
    const std::optional<answer_cursor> cursor = partial_answer(
        path, asked, [&](std::string_view piece) { bytes.append(piece); }, &trouble, limits);
    std::string_view rest = bytes;
    named_partial answer;
    std::string fault;
    if (!partial_take(&rest, &answer.answer, &fault)) throw failure_t{OUTCOME_IO, fault};
    answer.answer.coverage.lacks.clear();  // they have been said
    std::vector<named_partial> answers;
    answers.push_back(std::move(answer));
    const int status = merged_show(partials_merge(std::move(answers)), view);
    if (!options.cursor.empty()) cursor_write(options.cursor, identity, asked, cursor);
    return trouble.incomplete ? trouble.status : status;
}

bool show_events(const merged_answer& answer, const merged_view& view, text_output* out) {
    const question& asked = answer.asked;
    const event_view shown = {view.format,
                              asked.value("fields"),
                              view.color,
                              view.oldest_first,
                              static_cast<uint32_t>(asked.number("before")),
                              static_cast<uint32_t>(asked.number("after"))};
    event_output output;
    output.out = out;
    event_view_choose(shown, answer.knows_raw, &output);
    if (out->colour) output.wanted = highlight_of(query_prepare(question_query(asked)).plans);
    merged_cursor cursor = merged_open(answer);
    merged_place place;
    std::vector<merged_place> held;
    event_feed feed;
    feed.has_raw = answer.knows_raw;
    feed.longest_host = answer.longest_host;
    feed.longest_source = answer.longest_source;
    feed.next = [&] { return merged_next(&cursor, &place); };
    feed.tell = [&]() -> const event_record& { return merged_event(&cursor, place); };
    feed.hold = [&] { held.push_back(place); };
    feed.again = [&](size_t i) -> const event_record& {
        merged_again(&cursor, held[i]);
        return merged_event(&cursor, held[i]);
    };
    return event_print(shown, feed, &output) > 0;
}

bool show_samples(const merged_answer& answer, const merged_view& view, text_output* out) {
    merged_cursor cursor = merged_open(answer);
    struct held_sample {
        merged_place place;
        int64_t time_ms;
    };
    std::vector<held_sample> held;
    for (merged_place place; merged_next(&cursor, &place);) {
        held.push_back({place, cursor.readers[place.from].time_ms});
    }
    if (view.oldest_first) {
        // Of one time they come by series all the same.
        std::stable_sort(held.begin(), held.end(),
                         [](const held_sample& a, const held_sample& b) { return a.time_ms < b.time_ms; });
    }
    sample_output printer;
    printer.out = *out;
    printer.format = view.format;
    samples_begin(&printer);
    for (size_t i = 0; i < held.size() && !printer.out.closed; i++) {
        const partial_reader& sample = merged_again(&cursor, held[i].place);
        sample_put(&printer, sample.series, sample.time_ms, sample.value);
    }
    output_flush(&printer.out);
    return !held.empty();
}

bool show_stats(const merged_answer& answer, const merged_view& view) {
    stats_result result;
    merged_stats(answer, &result);
    stats_view shown = view.stats;
    shown.format = view.format;
    shown.shape.top = answer.asked.number("top");
    shown.no_number = result.no_number;
    if (answer.asked.kind == "metric-stats") {
        shown.shape.fill = stats_fill_of(view.fill);
    } else {
        shown.shape.fill = result.request.group_names.empty() ? stats_fill::empty : stats_fill::none;
    }
    return stats_show(shown, result.request, &result.table, result.grid, result.report);
}

bool show_terms(const merged_answer& answer, const merged_view& view, text_output* out) {
    const question& asked = answer.asked;
    const term_walk walk = merged_walk(answer);
    const uint64_t limit = asked.number("limit");
    if (asked.kind == "terms") return terms_print(walk, asked.value("sort"), limit, out) > 0;
    if (asked.kind == "fields") {
        const std::vector<field_totals> fields = fields_list(walk);
        fields_print(fields, out);
        return !fields.empty();
    }
    if (asked.kind == "seen") {
        const term_totals_t all = term_seen(walk);
        seen_print(all, out);
        return all.count > 0;
    }
    st_query_spec bounds;
    st_query_init(&bounds);
    query_set_bounds(asked.value("since"), "", "UTC", &bounds);
    const std::vector<counted_term> found = terms_new_since(walk, bounds.earliest, limit);
    new_terms_print(found, view.format, out);
    return !found.empty();
}

bool show(const merged_answer& answer, const merged_view& view) {
    const std::string& kind = answer.asked.kind;
    if (kind == "stats" || kind == "metric-stats") return show_stats(answer, view);
    text_output out;
    output_open(&out, kind == "search" ? view.color : "never");
    out.zone = time_zone_of(view.zone);
    if (kind == "search") return show_events(answer, view, &out);
    if (kind == "samples") return show_samples(answer, view, &out);
    bool found = false;
    if (kind == "count") {
        const uint64_t count = merged_count(answer);
        output_put(&out, std::to_string(count) + "\n");
        found = count > 0;
    } else {
        found = show_terms(answer, view, &out);
    }
    output_flush(&out);
    return found;
}

void put_option(std::vector<std::string>* words, const char* option, const std::string& value) {
    if (!value.empty()) words->push_back(std::string("--") + option + "=" + value);
}

void put_flag(std::vector<std::string>* words, const char* option, const question& asked, const char* name) {
    if (asked.has(name)) words->push_back(std::string("--") + option);
}

std::string deadline_fault(const std::string& text) {
    try {
        deadline_parse(text);
        return {};
    } catch (const failure_t&) {
        return text + ": expected 500ms, 2s, 1m ...";
    }
}

// One argument that is taken for no option and no list.
std::string query_word(const std::string& query) {
    return (query.starts_with("-") || query.starts_with("[") ? " " : "") + query;
}

}  // namespace

void add_spread_options(const command& to, spread_options* options) {
    to.flag("--partial", &options->is_partial, "Write the answer for 'veldar merge-answers', as one of several");
    to.text("--on", &options->hosts,
            "Ask the machines of this file, a line HOST[:STORE] each, through GNU parallel and ssh");
    to.number("--timeout", &options->timeout_s, 1, 86400, "Seconds that each of them has (60)");
}

void add_budget_options(const command& to, spread_options* options) {
    to.text("--deadline", &options->deadline,
            "Answer in this time, such as 2s, the newest events first, as far as it goes")
        .checked([](const std::string& text) { return deadline_fault(text); });
    to.size("--max-read", &options->max_read,
            "Read about so many bytes of index and logs, such as 64MB, the newest first");
    to.text("--cursor", &options->cursor,
            "Go on where the answer ended that left this file; it is gone when all is told");
}

bool spread_is_wanted(const spread_options& options) {
    return options.is_partial || !options.hosts.empty() || !options.deadline.empty() || options.max_read != 0 ||
           !options.cursor.empty();
}

int merged_show(const merged_answer& answer, const merged_view& view) {
    const bool found = show(answer, view);
    const partial_coverage& coverage = answer.coverage;
    for (const std::string& one : coverage.lacks) say_trouble(one);
    if (coverage.complete_back_to) {
        const st_timeval_t time = *coverage.complete_back_to;
        say_trouble("complete back to " + event_time_text(time.time_s, time.time_ns, time_zone_of(view.zone)));
    }
    if (!coverage.lacks.empty() || coverage.complete_back_to) return OUTCOME_INCOMPLETE;
    return found ? OUTCOME_DONE : OUTCOME_NOT_FOUND;
}

int merged_write_out(const merged_answer& answer) {
    merged_write(answer, standard_output());
    flush_standard_output();
    for (const std::string& one : answer.coverage.lacks) say_trouble(one);
    return answer.coverage.lacks.empty() && !answer.coverage.complete_back_to ? OUTCOME_DONE : OUTCOME_INCOMPLETE;
}

int spread_run(const std::string& store, const spread_options& options, const question& asked,
               const merged_view& view) {
    if (options.is_partial && !options.hosts.empty()) {
        throw failure_t{OUTCOME_USAGE, "--partial is one machine's answer, --on that of several: expected one of them"};
    }
    if (!options.cursor.empty() && (options.is_partial || !options.hosts.empty())) {
        throw failure_t{OUTCOME_USAGE,
                        "--cursor goes on in one store: expected neither --partial nor --on with it; --until with the "
                        "time that an answer is complete back to goes on as well"};
    }
    if (options.is_partial) return write_partial(store, options, asked);
    if (options.hosts.empty()) return show_within_budget(store, options, asked, view);
    std::vector<std::string> words = question_arguments(asked), bytes;
    put_option(&words, "deadline", options.deadline);
    if (options.max_read != 0) put_option(&words, "max-read", std::to_string(options.max_read));
    return merged_show(hosts_ask({options.hosts, options.timeout_s, store, words}, &bytes), view);
}

std::vector<std::string> question_arguments(const question& asked) {
    const std::string& kind = asked.kind;
    const bool is_metrics = kind == "samples" || kind == "metric-stats";
    const bool has_query = kind == "search" || kind == "count" || kind == "stats";
    std::vector<std::string> words =
        is_metrics ? std::vector<std::string>{"metrics", "query"} : std::vector<std::string>{kind};
    words.emplace_back("--partial");
    for (const char* const name : {"since", "until", "sort", "limit", "fields", "by", "agg", "every", "tz", "top"}) {
        put_option(&words, name, asked.value(name));
    }
    put_option(&words, "before-context", asked.value("before"));
    put_option(&words, "after-context", asked.value("after"));
    put_flag(&words, "native", asked, "native");
    put_flag(&words, "missing", asked, "missing");
    put_flag(&words, "rate", asked, "rate");
    if (has_query && asked.has("query")) words.push_back(query_word(asked.value("query")));
    const metric_question metrics = question_metrics(asked);
    for (const std::string& condition : metrics.where) put_option(&words, "where", condition);
    if (has_query) return words;
    words.emplace_back("--");
    words.insert(words.end(), metrics.names.begin(), metrics.names.end());
    for (const char* const name : {"pattern", "term"}) {
        if (asked.has(name)) words.push_back(asked.value(name));
    }
    if (words.back() == "--") words.pop_back();
    return words;
}

}  // namespace veldar::tool
