// veldar diff: which values of fields two stretches of time tell apart.
//
// Of a value that k1 of n1 events had before and k2 of n2 after, G2 is twice the logarithm of the ratio of the
// likelihoods of two different shares and of one (Dunning: Accurate Methods for the Statistics of Surprise and
// Coincidence, Computational Linguistics 19, 1993): how sure the difference is, for rare values too, where differences
// of shares and chi-squared mislead.
#include <algorithm>
#include <cmath>
#include <ctime>
#include <set>
#include <utility>
#include <vector>

#include "tools/libveldar/query/stats_read.h"
#include "tools/libveldar/query/term_input.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/table_output.h"

namespace veldar::tool {

namespace {

struct diff_options {
    std::string before, after, field, zone, format;
    uint64_t limit = 20;
};

struct term_change {
    std::string term;
    uint64_t before = 0, after = 0;
    double g2 = 0;  // below 0 for a share that fell
    bool operator<(const term_change& other) const {
        if (std::abs(g2) != std::abs(other.g2)) return std::abs(g2) > std::abs(other.g2);
        return term < other.term;
    }
};

st_timeval_t time_of(const std::string& option, const std::string& text, int64_t otherwise, log_zone* zone) {
    st_timeval_t time = {static_cast<st_time_t>(otherwise), 0};
    if (text.empty()) return time;
    if (!time_input_parse(text, zone, std::time(nullptr), &time) || time.time_ns != 0) {
        throw failure_t{OUTCOME_USAGE, option + ": '" + text + "' is not " + TIME_INPUT_FORMS + ", in whole seconds"};
    }
    return time;
}

// The index of a log keeps whole seconds, and nothing else is asked here.
st_query_spec range_of(const std::string& option, const std::string& text, const std::string& zone_name) {
    log_zone zone = time_zone_of(zone_name);
    const size_t dots = text.find("..");
    if (dots == std::string::npos) {
        throw failure_t{OUTCOME_USAGE, option + " " + text +
                                           ": expected two times with '..' between them, such as "
                                           "2015-05-17..2015-05-18"};
    }
    const st_timeval_t from = time_of(option, text.substr(0, dots), INT32_MIN, &zone);
    const st_timeval_t to = time_of(option, text.substr(dots + 2), INT32_MAX, &zone);
    st_query_spec query;
    st_query_init(&query);
    st_query_set_time_bound(&query, true, from.time_s, 0, to.time_s, 0);
    query.lispy = "[AND]";
    return query;
}

// k log p + (n - k) log (1 - p)
double log_likelihood(double k, double n, double p) {
    return (k > 0 ? k * std::log(p) : 0) + (n > k ? (n - k) * std::log(1 - p) : 0);
}

double signed_g2(uint64_t before, uint64_t all_before, uint64_t after, uint64_t all_after) {
    const auto k1 = static_cast<double>(before), n1 = static_cast<double>(all_before);
    const auto k2 = static_cast<double>(after), n2 = static_cast<double>(all_after);
    if (n1 + n2 == 0) return 0;
    const double p1 = n1 > 0 ? k1 / n1 : 0, p2 = n2 > 0 ? k2 / n2 : 0, p = (k1 + k2) / (n1 + n2);
    const double g2 = 2 * (log_likelihood(k1, n1, p1) + log_likelihood(k2, n2, p2) - log_likelihood(k1, n1, p) -
                           log_likelihood(k2, n2, p));
    return p2 < p1 ? -std::max(g2, 0.0) : std::max(g2, 0.0);
}

// Two selections at a time over one list of slices.
struct diff_pass {
    const slice_set& slices;
    const diff_options& options;
    st_query_spec before, after;
    uint64_t all_before = 0, all_after = 0;
    std::vector<term_change> changes;  // a heap of the greatest
    troubles* trouble;
};

void count_field(const diff_pass& pass, const st_query_spec& query, const std::string& field, select_table_t* table) {
    select_spec_t spec;
    if (!field.empty()) spec.groups = {field};
    stats_select(pass.slices, query, {}, spec, table, nullptr, pass.trouble);
}

uint64_t count_all(const diff_pass& pass, const st_query_spec& query) {
    select_table_t table;
    count_field(pass, query, "", &table);
    return table.rows.empty() ? 0 : table.rows.front().count;
}

void add_change(diff_pass* pass, const std::string& term, uint64_t before, uint64_t after) {
    term_change change = {term, before, after, signed_g2(before, pass->all_before, after, pass->all_after)};
    if (std::abs(change.g2) < 1e-9) return;
    pass->changes.push_back(std::move(change));
    std::push_heap(pass->changes.begin(), pass->changes.end());
    if (pass->changes.size() <= pass->options.limit) return;
    std::pop_heap(pass->changes.begin(), pass->changes.end());
    pass->changes.pop_back();
}

// Both tables are in the order of the values.
void compare_field(diff_pass* pass, const std::string& field) {
    select_table_t before, after;
    count_field(*pass, pass->before, field, &before);
    count_field(*pass, pass->after, field, &after);
    const auto text = [](const select_table_t& table, size_t row) {
        return select_group_text(select_table_row(table, row).groups, 0);
    };
    for (size_t i = 0, j = 0; i < before.rows.size() || j < after.rows.size();) {
        int order = i == before.rows.size() ? 1 : j == after.rows.size() ? -1 : 0;
        if (order == 0) order = text(before, i).compare(text(after, j));
        const std::string_view value = order <= 0 ? text(before, i) : text(after, j);
        const uint64_t left = order <= 0 ? before.rows[i++].count : 0;
        const uint64_t right = order >= 0 ? after.rows[j++].count : 0;
        add_change(pass, field + "::" + std::string(value), left, right);
    }
}

std::set<std::string> fields_of(const std::string& path, const diff_options& options, troubles* trouble) {
    std::set<std::string> fields;
    if (!options.field.empty()) return {term_pattern_from_text(options.field).needle};
    term_choice_t choice;
    choice.wanted = [](std::string_view term) { return term.find("::") != std::string_view::npos; };
    const auto visit = [&](std::string_view term, const term_totals_t&) {
        const std::string_view name = term.substr(0, term.find("::"));
        if (!name.empty() && !name.starts_with(' ')) fields.emplace(name);
        return true;
    };
    walk_terms(path, choice, visit, trouble);
    return fields;
}

const char* change_name(const term_change& change) {
    if (change.before == 0) return "appeared";
    if (change.after == 0) return "vanished";
    return change.g2 > 0 ? "more" : "less";
}

void print(diff_pass* pass, text_output* out) {
    std::sort(pass->changes.begin(), pass->changes.end());
    table_output table;
    table.out = out;
    table.format = table_format_from_name(pass->options.format);
    table.columns = {{"change", false},      {"g2", true},          {"before", true}, {"after", true},
                     {"before_share", true}, {"after_share", true}, {"term", false}};
    table_begin(&table);
    const auto share = [](uint64_t part, uint64_t all) {
        return number_cell(all == 0 ? 0 : static_cast<double>(part) / static_cast<double>(all));
    };
    for (const term_change& one : pass->changes) {
        if (out->closed) break;
        table_put_row(&table, {text_cell(change_name(one)), number_cell(one.g2), count_cell(one.before),
                               count_cell(one.after), share(one.before, pass->all_before),
                               share(one.after, pass->all_after), text_cell(term_query_text(one.term))});
    }
    table_end(&table);
}

int diff_run(const tool_context& context, const diff_options& options) {
    const st_query_spec before = range_of("--before", options.before, options.zone);
    const st_query_spec after = range_of("--after", options.after, options.zone);
    const std::string path = store_choose(context.store);
    troubles trouble;
    const std::set<std::string> fields = fields_of(path, options, &trouble);
    const slice_set slices = slices_list(path);
    diff_pass pass = {slices, options, before, after, 0, 0, {}, &trouble};
    pass.all_before = count_all(pass, before);
    pass.all_after = count_all(pass, after);
    for (const auto& [count, name] : {std::pair(pass.all_before, "--before"), std::pair(pass.all_after, "--after")}) {
        if (count == 0) say_trouble(std::string(name) + ": no events in these times");
    }
    for (const std::string& field : fields) {
        try {
            compare_field(&pass, field);
        } catch (const failure_t& failure) {
            if (failure.status != OUTCOME_USAGE || !options.field.empty()) throw;
            troubles_add(&trouble, failure.message);  // one field with more values than can be told apart
        }
    }
    text_output out;
    output_open(&out, "never");
    print(&pass, &out);
    output_flush(&out);
    return answer_status(!pass.changes.empty(), trouble);
}

}  // namespace

void add_diff_command(const command& veldar) {
    static diff_options options;
    const command diff = veldar.subcommand("diff", "Tell which values of fields two stretches of time tell apart");
    diff.footer(
        "The values whose share of the events differs most surely come first, by the log-likelihood ratio G2, which "
        "is below 0 for a share that fell. Above 10.8 chance makes it once in a thousand values.");
    diff.text("FIELD", &options.field, "Only values of this field; else of all fields");
    diff.text("--before", &options.before, "FROM..TO, the times of the one").required();
    diff.text("--after", &options.after, "FROM..TO, those of the other").required();
    add_zone_option(diff, &options.zone);
    diff.number("-n,--limit", &options.limit, 1, UINT64_MAX, "At most this many").with_default();
    diff.text("--format", &options.format, "table, tsv, csv or jsonl").one_of(TABLE_FORMATS);
    diff.run([](const tool_context& context) { return diff_run(context, options); });
}

}  // namespace veldar::tool
