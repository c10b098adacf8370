#include "tools/libveldar/query/query_input.h"

#include <algorithm>
#include <array>
#include <climits>
#include <ctime>

#include "searchthing/base/warm_rc.h"
#include "searchthing/search/tokenizer.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/observer.h"

namespace veldar::tool {

namespace {

constexpr uint64_t LAST_NANOSECOND = 999999999;

[[noreturn]] void refuse(const std::string& text, const query_error& error) {
    std::string shown = explain_query_error(text, error);
    while (shown.ends_with('\n')) shown.pop_back();
    throw failure_t{.status = OUTCOME_USAGE,
                    .message = "this query cannot be read:\n" + shown,
                    .offset = error.position,
                    .next_step = "expected " + error.expected};
}

const char* native_expectation(int status) {
    switch (status) {
        case WARM_RC_QUERY_END:
            return "more: a group or its ']' is missing";
        case TOKEN_TOO_LONG:
            return "a token of at most 2048 bytes";
        case TOKEN_BAD_ESCAPE:
            return "a blank, a bracket or a backslash after this backslash";
        case WARM_RC_QUERY_COMPARISON:
            return "a field and a number";
        default:
            return "a group such as [AND word field::value [NOT word]]";
    }
}

std::vector<query_plan> native_plan(const std::string& text) {
    if (const size_t nul = text.find('\0'); nul != std::string::npos) refuse(text, {nul, "a text without NUL"});
    size_t position = 0;
    const int status = validate_query_text(text.c_str(), TOKEN_CASE_ASIS, &position);
    if (status == WARM_RC_NO_MEMORY) throw failure_t{OUTCOME_IO, "out of memory"};
    if (status != 0) refuse(text, {std::min(position, text.size()), native_expectation(status)});
    return {{text, {}, {}}};
}

std::vector<query_plan> plans_of(const std::string& text, bool native) {
    if (native) return native_plan(text);
    try {
        return translate_query(text);
    } catch (const query_error& error) {
        refuse(text, error);
    }
}

st_timeval_t time_of(const char* input, const std::string& text, log_zone* zone) {
    st_timeval_t time;
    if (!time_input_parse(text, zone, std::time(nullptr), &time)) {
        const std::string advice = time_input_advice(text);
        throw failure_t{OUTCOME_USAGE, input_name(input) + " " + text + ": expected " + TIME_INPUT_FORMS +
                                           (advice.empty() ? "" : "; " + advice)};
    }
    return time;
}

// Options whose value is the next argument.
bool takes_value(std::string_view argument) {
    static constexpr std::array<std::string_view, 25> OPTIONS = {
        "-s",      "--store",   "-n",      "--limit", "-A",        "--after-context", "-B",         "--before-context",
        "-C",      "--context", "--since", "--until", "--tz",      "--format",        "--color",    "--by",
        "--every", "--agg",     "--top",   "--on",    "--timeout", "--deadline",      "--max-read", "--cursor",
        "--fields"};
    return std::find(OPTIONS.begin(), OPTIONS.end(), argument) != OPTIONS.end();
}

// Whether an argument that begins with "-" can be an option: a long one, flags, or a letter with its value.
bool is_option(std::string_view argument) {
    const std::string_view rest = argument.substr(2);
    switch (argument[1]) {
        case '-':
            return true;
        case 'h':
        case 'r':
            return rest.find_first_not_of("hr") == std::string_view::npos;
        case 'n':
        case 'A':
        case 'B':
        case 'C':
            return rest.find_first_not_of("0123456789") == std::string_view::npos;
        case 's':
            return rest.empty() || rest[0] == '/' || rest[0] == '.';
        default:
            return false;
    }
}

}  // namespace

void query_protect_words(std::vector<std::string>* arguments) {
    static constexpr std::array<std::string_view, 6> COMMANDS = {"search", "count", "explain",
                                                                 "delete", "stats", "top"};
    const auto command = std::find_first_of(arguments->begin(), arguments->end(), COMMANDS.begin(), COMMANDS.end());
    if (command == arguments->end()) return;
    // "metrics query count" asks for a metric, but "-s metrics count" names a store.
    const auto metrics = std::find(arguments->begin(), command, "metrics");
    if (metrics != command && (metrics == arguments->begin() || !takes_value(*(metrics - 1)))) return;
    for (auto one = command + 1; one != arguments->end() && *one != "--"; ++one) {
        if (takes_value(*one)) {
            if (++one == arguments->end()) return;
        } else if (one->starts_with('[') || (one->size() > 1 && one->front() == '-' && !is_option(*one))) {
            one->insert(0, 1, ' ');
        }
    }
}

void query_set_bounds(const std::string& since, const std::string& until, const std::string& zone,
                      st_query_spec* query) {
    log_zone named = time_zone_of(zone);
    st_timeval_t earliest = {INT_MIN, 0}, latest = {INT_MAX, 0};
    if (!since.empty()) earliest = time_of("since", since, &named);
    if (!until.empty()) latest = time_of("until", until, &named);
    if (std::make_pair(earliest.time_s, earliest.time_ns) > std::make_pair(latest.time_s, latest.time_ns)) {
        throw failure_t{OUTCOME_USAGE,
                        input_name("since") + " " + since + " is later than " + input_name("until") + " " + until};
    }
    st_query_set_time_bound(query, true, earliest.time_s, earliest.time_ns, latest.time_s, latest.time_ns);
}

bool prepared_query::needs_raw() const {
    return std::any_of(plans.begin(), plans.end(), [](const query_plan& plan) { return plan.needs_raw(); });
}

bool prepared_query::cuts_a_second() const {
    return cuts(bounds.earliest.time_s) || cuts(bounds.latest.time_s);
}

bool prepared_query::cuts(st_time_t second) const {
    const st_timeval_t &earliest = bounds.earliest, &latest = bounds.latest;
    return (second == earliest.time_s && earliest.time_ns > 0) ||
           (second == latest.time_s && latest.time_s != INT_MAX && latest.time_ns < LAST_NANOSECOND);
}

bool prepared_query::holds(const st_timeval_t& time) const {
    const auto key = [](const st_timeval_t& one) { return std::make_pair(one.time_s, one.time_ns); };
    const bool unbounded = bounds.latest.time_s == INT_MAX;
    return key(time) >= key(bounds.earliest) && (unbounded || key(time) <= key(bounds.latest));
}

prepared_query query_prepare(const query_options& options) {
    prepared_query query;
    for (const std::string& word : options.words) {
        query.text += query.text.empty() ? "" : " ";
        query.text += word.starts_with(" -") || word.starts_with(" [") ? word.substr(1) : word;
    }
    if (query.text.empty()) query.text = options.native ? "[AND]" : "*";
    query.is_native = options.native;
    query.plans = plans_of(query.text, options.native);
    st_query_init(&query.bounds);
    query_set_bounds(options.since, options.until, options.zone, &query.bounds);
    query.bounds.opt_a |= QUERY_WILDCARDS_SPAN;
    if (!options.native) query.bounds.opt_a |= QUERY_WILDCARDS_SKIP_FIELDS;
    return query;
}

st_query_spec query_of_plan(const prepared_query& query, const query_plan& plan) {
    st_query_spec spec = query.bounds;
    spec.lispy = plan.native.c_str();
    return spec;
}

}  // namespace veldar::tool
