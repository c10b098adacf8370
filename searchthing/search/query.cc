#include "searchthing/search/query.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "libzero/ospath-builder.h"

namespace veldar {

namespace {

constexpr st_time_t FIRST_SECOND = std::numeric_limits<st_time_t>::min();
constexpr st_time_t NO_UPPER_BOUND = std::numeric_limits<st_time_t>::max();

st_timeval_t last_included(bool with_subseconds, st_timeval_t bound) {
    if (bound.time_s == NO_UPPER_BOUND) return {NO_UPPER_BOUND, 0};
    if (!with_subseconds) bound.time_ns = 0;
    st_timeval_subtract_one(with_subseconds, &bound, &bound);
    return bound;
}

}  // namespace

void st_query_init(st_query_spec* query) {
    if (query != nullptr) *query = {};
}

st_query_spec* st_query_copy(const st_query_spec* query) {
    char* const text = query->lispy == nullptr ? nullptr : ::strdup(query->lispy);
    const bool has_text = text != nullptr || query->lispy == nullptr;
    st_query_spec* const copy = has_text ? new (std::nothrow) st_query_spec(*query) : nullptr;
    if (copy == nullptr) {
        std::free(text);
        return nullptr;
    }
    copy->token_case = TOKEN_CASE_ASIS;
    copy->lispy = text;
    return copy;
}

void st_query_free_copy(st_query_spec* query) {
    if (query == nullptr) return;
    std::free(const_cast<char*>(query->lispy));
    delete query;
}

st_query_spec query_with_bounds(const st_query_spec& query) {
    st_query_spec bounded = query;
    const bool untouched = query.earliest == st_timeval_t{} && query.latest == st_timeval_t{};
    if (untouched && (query.opt_flag & QUERY_BOUNDED) == 0) {
        bounded.earliest = {FIRST_SECOND, 0};
        bounded.latest = {NO_UPPER_BOUND, 0};
    }
    return bounded;
}

void st_query_set_time_bound(st_query_spec* query, bool with_subseconds, int earliest_seconds,
                             unsigned long earliest_subseconds, int latest_seconds, unsigned long latest_subseconds) {
    query->earliest = {earliest_seconds, with_subseconds ? earliest_subseconds : 0};
    query->latest = last_included(with_subseconds, {latest_seconds, latest_subseconds});
    query->opt_flag |= QUERY_BOUNDED;
    const bool nothing_before = latest_seconds == FIRST_SECOND && (!with_subseconds || latest_subseconds == 0);
    if (nothing_before) query->earliest.time_s = std::max(query->earliest.time_s, FIRST_SECOND + 1);
}

void st_query_annotator_write(string_builder* out, const st_query_spec* query) {
    if (query == nullptr) return;
    string_builder_appendz(out, "QUERY et=");
    string_builder_append_decimal_i64(out, query->earliest.time_s);
    string_builder_appendz(out, " lt=");
    string_builder_append_decimal_i64(out, query->latest.time_s);
    string_builder_appendz(out, " cumspan=");
    string_builder_append_decimal_u64(out, query->cumspan);
    string_builder_appendz(out, "\nQUERY lispy=");
    string_builder_appendz(out, query->lispy == nullptr ? "(null)" : query->lispy);
    string_builder_append1(out, '\n');
}

}  // namespace veldar
