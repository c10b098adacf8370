#include "tools/libveldar/query/query_hints.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <vector>

#include "searchthing/base/number.h"
#include "tools/libveldar/formats/terms.h"
#include "tools/libveldar/formats/unit_number.h"
#include "tools/libveldar/query/event_count.h"
#include "tools/libveldar/query/suggestion.h"
#include "tools/libveldar/query/term_input.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/slices.h"

namespace veldar::tool {

namespace {

constexpr uint64_t MOST_TERMS = 4'000'000;  // of the slices whose lexicons are walked for a hint: a tenth of a second
constexpr uint64_t TIMES_MORE = 10;         // that other words have to find to be worth a hint
constexpr int PROBES = 100;                 // values of a field that are looked at

// Whether the terms of all slices are few enough to walk over; and how many events there are.
bool is_cheap(const slice_set& set, uint64_t* events) {
    uint64_t terms = 0;
    *events = 0;
    for (size_t i = 0; i < set.slices->size() && terms <= MOST_TERMS; i++) {
        snapshot_slice_ptr warm;
        std::string error;
        if (slice_open(set, i, &warm, &error) != SLICE_OPEN) continue;
        terms += st_warm_slice_terms(warm.get());
        *events += st_warm_slice_values(warm.get());
    }
    return set.slices->size() > 0 && terms <= MOST_TERMS;
}

// Up to PROBES terms of a field, from the value `from` on.
std::vector<std::string> some_values(const std::string& path, const std::string& field, const std::string& from) {
    std::vector<std::string> values;
    term_choice_t choice;
    choice.prefix = field + "::";
    if (!from.empty()) choice.after = choice.prefix + from;
    const auto visit = [&](std::string_view term, const term_totals_t&) {
        values.emplace_back(term.substr(choice.prefix.size()));
        return values.size() < PROBES;
    };
    troubles untold;
    untold.is_silent = true;  // the answer has told them
    walk_terms(path, choice, visit, &untold);
    return values;
}

bool is_number(const std::string& text) {
    double value = 0;
    return parse_query_number(text.c_str(), &value) || unit_number(text, &value);
}

// The first value that is no number among some of the field's; empty: none.
std::string odd_value(const std::string& path, const std::string& field, bool* has_numbers) {
    const std::vector<std::string> first = some_values(path, field, ""), last = some_values(path, field, ":");
    *has_numbers = std::any_of(first.begin(), first.end(), is_number);
    const auto& values = last.empty() ? first : last;
    const auto odd = std::find_if_not(values.begin(), values.end(), is_number);
    return odd == values.end() ? std::string() : *odd;
}

// The names of all fields: of each only the first term is read.
std::vector<std::string> field_names(const std::string& path) {
    std::vector<std::string> names;
    term_choice_t choice;
    choice.wanted = [&names](std::string_view term) {
        const size_t colons = term.find("::");
        return colons != std::string_view::npos && (names.empty() || term.substr(0, colons) != names.back());
    };
    troubles untold;
    untold.is_silent = true;
    const auto visit = [&](std::string_view term, const term_totals_t&) {
        names.emplace_back(term.substr(0, term.find("::")));
        return true;
    };
    walk_terms(path, choice, visit, &untold);
    return names;
}

// Of a query that finds nothing: tells a name that has to be put in quotes, and one that no field has. False when it did.
bool has_fields(const std::string& path, const prepared_query& query) {
    query_names names = query_names_of(query.text);
    for (const std::string& name : names.before_equals) {
        if (some_values(path, name, "").empty()) continue;
        say_trouble("the name of this field has to be put in quotes: " + field_query_text(name) + "=...");
        return false;
    }
    names.fields.insert(names.fields.end(), names.compared.begin(), names.compared.end());
    return hint_fields(path, names.fields);
}

uint64_t count_silently(const std::string& path, const prepared_query& query) {
    troubles untold;
    untold.is_silent = true;
    return count_events(path, query, &untold);
}

// Of a query that finds nothing: tells what there is at other times. False when it did.
bool is_nowhere(const std::string& path, const prepared_query& query) {
    prepared_query always = query;
    always.bounds.earliest = {INT_MIN, 0};
    always.bounds.latest = {INT_MAX, 0};
    const bool is_bounded = query.bounds.earliest.time_s != INT_MIN || query.bounds.latest.time_s != INT_MAX;
    const uint64_t count = is_bounded && query_needs_index_only(always) ? count_silently(path, always) : 0;
    if (count > 0) {
        say_trouble(
            fmt::format("0 in these times; without {} and {} {}", input_name("since"), input_name("until"), count));
    }
    return count == 0;
}

}  // namespace

bool hint_fields(const std::string& path, const std::vector<std::string>& fields) {
    for (const std::string& field : fields) {
        if (field.find('*') != std::string::npos || !some_values(path, field, "").empty()) continue;
        const std::string meant = nearest_name(field, field_names(path));
        say_trouble("no event has a field '" + field + "'" +
                    (meant.empty() ? std::string() : "; did you mean '" + meant + "'?"));
        return false;
    }
    return true;
}

void hint_more(const std::string& path, const prepared_query& query, uint64_t found) {
    uint64_t events = 0;
    if (query.is_native || !is_cheap(slices_list(path, false), &events)) return;
    if (events / TIMES_MORE < found) return;  // as often as told below it is not there
    if (found == 0 && (!has_fields(path, query) || !is_nowhere(path, query))) return;
    prepared_query inside = query;
    inside.text = query_inside_words(query.text);
    if (inside.text.empty()) return;
    inside.plans = translate_query(inside.text);
    if (!query_needs_index_only(inside)) return;
    const uint64_t more = count_silently(path, inside);
    if (more == 0 || more / TIMES_MORE < found) return;
    say_trouble(std::to_string(found) + "; `" + inside.text + "` would find " + std::to_string(more));
}

void hint_comparisons(const std::string& path, const prepared_query& query) {
    if (query.is_native) return;
    for (const std::string& field : query_names_of(query.text).compared) {
        bool has_numbers;
        const std::string odd = odd_value(path, field, &has_numbers);
        if (odd.empty()) continue;
        say_trouble((has_numbers ? "some values of '" : "the values of '") + field + "' are no numbers, such as '" +
                    odd + "'; these count as greater than any");
    }
}

std::string no_number_example(const std::string& path, const std::vector<std::string>& fields) {
    for (const std::string& field : fields) {
        bool has_numbers;
        const std::string odd = odd_value(path, field, &has_numbers);
        if (!odd.empty()) return "'" + odd + "' of '" + field + "'";
    }
    return {};
}

}  // namespace veldar::tool
