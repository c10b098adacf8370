// veldar explain: how a query is understood, and what each slice does to answer it.
#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <functional>
#include <vector>

#include "searchthing/search/warmslice_search.h"
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

constexpr uint64_t MOST_ANSWERS = uint64_t{1} << 20;  // whose times are kept to tell which slices are not needed

struct explain_options {
    query_options query;
    uint64_t limit = 0;  // 0: all
};

struct slice_work {
    uint64_t answers = 0;
    search_report_t report;
    st_query_info_t info;
    double milliseconds = 0;
};

struct explanation {
    const prepared_query* query = nullptr;
    uint64_t limit = 0;
    text_output out;
    troubles trouble;
    std::vector<st_tsval> answers;
    std::vector<st_time_t> newest;  // a heap of the newest `limit` answers, the oldest of them first
    slice_work total;
};

std::string pattern_text(const raw_pattern& pattern) {
    std::string text;
    for (const raw_piece& piece : pattern.pieces) text += (text.empty() ? "\"" : "\", then \"") + piece.text;
    return text + "\"";
}

void print_plan(explanation* e, const query_plan& plan, size_t number) {
    output_put(&e->out, "plan " + std::to_string(number + 1) + "  " + plan.native + "\n");
    for (const raw_pattern& pattern : plan.holds) {
        output_put(&e->out, "        and the raw text holds " + pattern_text(pattern) + "\n");
    }
    for (const raw_pattern& pattern : plan.lacks) {
        output_put(&e->out, "        and the raw text does not hold " + pattern_text(pattern) + "\n");
    }
}

void print_query(explanation* e) {
    const st_query_spec& bounds = e->query->bounds;
    output_put(&e->out, "query   " + e->query->text + "\n");
    if (bounds.earliest.time_s != INT_MIN) {
        output_put(&e->out,
                   "since   " + event_time_text(bounds.earliest.time_s, bounds.earliest.time_ns, e->out.zone) + "\n");
    }
    if (bounds.latest.time_s != INT_MAX) {
        output_put(&e->out,
                   "up to   " + event_time_text(bounds.latest.time_s, bounds.latest.time_ns, e->out.zone) + "\n");
    }
}

std::string slice_name(const slice_set& set, size_t i) {
    const std::string path = "/" + set.slices->slice(i).name;
    return set.directories[set.slices->source(i)].name + path.substr(path.rfind('/'));
}

void print_row(explanation* e, const slice_work& work, const std::string& name) {
    char row[160];
    const int size = std::snprintf(
        row, sizeof row, "%9llu %6llu %6llu %10llu %9llu %7u %9.3f  ", static_cast<unsigned long long>(work.answers),
        static_cast<unsigned long long>(work.report.lists_read), static_cast<unsigned long long>(work.info.reads),
        static_cast<unsigned long long>(work.info.bytes), static_cast<unsigned long long>(work.report.values_decoded),
        work.report.windows, work.milliseconds);
    output_put(&e->out, std::string_view(row, static_cast<size_t>(size)));
    output_put(&e->out, name + "\n");
}

void print_untouched(explanation* e, const std::string& name, const char* why) {
    char row[160];
    const int size =
        std::snprintf(row, sizeof row, "%9s %6s %6s %10s %9s %7s %9s  ", "-", "-", "-", "-", "-", "-", "-");
    output_put(&e->out, std::string_view(row, static_cast<size_t>(size)));
    output_put(&e->out, name + ": " + why + "\n");
}

const char* remark(const slice_work& work) {
    if (work.report.range_begin == work.report.range_end) return ": no event within the time bounds";
    const bool nothing_read = work.answers == 0 && work.report.lists_read == 0;
    return nothing_read ? ": a term is missing, or terms are never there at one time" : "";
}

// Whether the newest answers wanted are all later than anything in the slice.
bool is_needed(const explanation& e, const tsidx_slice_name_t& slice) {
    return e.limit == 0 || e.newest.size() < e.limit || slice.meta.latest >= e.newest.front();
}

void note_answers(explanation* e, int found) {
    for (int i = 0; e->limit != 0 && i < found; i++) {
        e->newest.push_back(e->answers[static_cast<size_t>(i)].time);
        std::push_heap(e->newest.begin(), e->newest.end(), std::greater<>());
        if (e->newest.size() <= e->limit) continue;
        std::pop_heap(e->newest.begin(), e->newest.end(), std::greater<>());
        e->newest.pop_back();
    }
}

// The newest answers, or of all of them only the number: what a slice says of its values takes no memory here.
int ask_slice(explanation* e, WARM* warm, const st_query_spec& query, slice_work* work, warm_rc_t* rc) {
    if (e->limit == 0 || e->limit > MOST_ANSWERS) {
        return warm_slice_count(warm, &query, &work->answers, &work->report, rc);
    }
    const auto capacity = static_cast<uint32_t>(e->limit);
    e->answers.resize(capacity);
    const int found = warm_slice_search(warm, &query, e->answers.data(), capacity, true, &work->report, rc);
    if (found < 0) return found;
    work->answers = static_cast<uint64_t>(found);
    note_answers(e, found);
    return 0;
}

// Searches one slice and accounts for it. SLICE_UNREADABLE after a failure, which has been told.
slice_state_t search_slice(explanation* e, const slice_set& set, size_t i, const query_plan& plan, slice_work* work) {
    const auto begun = std::chrono::steady_clock::now();
    snapshot_slice_ptr warm;
    std::string error;
    const slice_state_t state = slice_open(set, i, &warm, &error);
    if (state == SLICE_UNREADABLE) troubles_add(&e->trouble, error);
    if (state != SLICE_OPEN) return state;
    st_query_spec query = query_of_plan(*e->query, plan);
    query.info = &work->info;
    warm_rc_t rc;
    const int status = ask_slice(e, warm.get(), query, work, &rc);
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begun;
    work->milliseconds = took.count();
    if (status == 0) return SLICE_OPEN;
    troubles_add(&e->trouble, slice_error(set.slices->path(i), rc));
    return SLICE_UNREADABLE;
}

void add_work(slice_work* total, const slice_work& work) {
    total->answers += work.answers;
    total->report.lists_read += work.report.lists_read;
    total->report.values_decoded += work.report.values_decoded;
    total->report.windows += work.report.windows;
    total->info.reads += work.info.reads;
    total->info.bytes += work.info.bytes;
    total->milliseconds += work.milliseconds;
}

// False when a slice has gone.
bool explain_plan(explanation* e, const slice_set& set, const query_plan& plan) {
    output_put(&e->out, "\n  answers  lists  reads      bytes    values windows        ms  slice\n");
    e->newest.clear();
    for (size_t i = 0; i < set.slices->size(); i++) {
        const std::string name = slice_name(set, i);
        if (!slice_meets_bounds(set, i, e->query->bounds)) {
            print_untouched(e, name, "outside the time bounds by its name");
            continue;
        }
        if (!is_needed(*e, set.slices->slice(i))) {
            print_untouched(e, name, "older than the answers wanted");
            continue;
        }
        slice_work work;
        const slice_state_t state = search_slice(e, set, i, plan, &work);
        if (state == SLICE_VANISHED) return false;
        if (state == SLICE_UNREADABLE) {
            print_untouched(e, name, "cannot be read");
            continue;
        }
        print_row(e, work, name + remark(work));
        add_work(&e->total, work);
    }
    return true;
}

// The rows are all printed at the end: they begin again when a slice has gone.
int64_t explain_slices(explanation* e, const slice_set& set) {
    e->out.bytes.clear();
    e->total = {};
    print_query(e);
    for (size_t i = 0; i < e->query->plans.size(); i++) print_plan(e, e->query->plans[i], i);
    for (const query_plan& plan : e->query->plans) {
        if (!explain_plan(e, set, plan)) return TSIDX_VANISHED;
    }
    print_row(e, e->total, "in all");
    return 0;
}

int explain_run(const tool_context& context, const explain_options& options) {
    const prepared_query query = query_prepare(options.query);
    explanation e;
    e.query = &query;
    e.limit = options.limit;
    output_open(&e.out, "never");
    e.out.zone = time_zone_of(options.query.zone);
    const slice_set set = slices_list(store_choose(context.store));
    slices_hold(set, &e.trouble, [&] { return explain_slices(&e, set); });
    output_flush(&e.out);
    return answer_status(e.total.answers > 0, e.trouble);
}

}  // namespace

void add_explain_command(const command& veldar) {
    static explain_options options;
    const command explain = veldar.subcommand("explain", "Tell how a query is understood and what it costs");
    add_query_options(explain, &options.query);
    explain.number("-n,--limit", &options.limit, 1, UINT64_MAX, "As for search: the newest events only");
    explain.run([](const tool_context& context) { return explain_run(context, options); });
}

}  // namespace veldar::tool
