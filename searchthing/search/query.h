// The query record: a time range, a text in bracketed prefix notation, and options.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "searchthing/base/query_info.h"
#include "searchthing/base/st_timeval.h"

namespace veldar {

struct string_builder;

// How the literals of the text are read (tokenizer.h).
enum token_case_t : uint32_t {
    TOKEN_CASE_ASIS = 0,
    TOKEN_CASE_BLANK_PREFIX = 1,  // a blank, counted in the size, stands before every token but the brackets
    TOKEN_CASE_LOWER = 2,         // literals are folded to lower case, A to Z only; operators are still upper case
};

// opt_a: a NEQ comparison also matches the events that lack the field.
inline constexpr uint8_t QUERY_NEQ_MATCHES_MISSING = 1;
// opt_a: a wildcard literal without a colon matches no term that holds "::", so that "ho*" finds words and not every
// event that has a field "host".
inline constexpr uint8_t QUERY_WILDCARDS_SKIP_FIELDS = 2;
// opt_a: "*" stands for any characters, so that "*00" finds "1000" too (matcher_spans).
inline constexpr uint8_t QUERY_WILDCARDS_SPAN = 4;
// opt_a: "*" is a character like any other.
inline constexpr uint8_t QUERY_STARS_ARE_PLAIN = 8;
static_assert((QUERY_NEQ_MATCHES_MISSING ^ QUERY_WILDCARDS_SKIP_FIELDS ^ QUERY_WILDCARDS_SPAN ^
               QUERY_STARS_ARE_PLAIN) == 15);

// opt_flag: the times are bounds even when all of them are 0. Without it, a record whose times nobody has touched asks
// an index directory for events of any time.
inline constexpr uint8_t QUERY_BOUNDED = 1;

struct st_query_spec {
    st_timeval_t earliest;            // inclusive
    st_timeval_t latest;              // inclusive; (2147483647, 0): no upper bound
    uint32_t cumspan = 0;             // the last count argument of the step that produces answers
    const char* lispy = nullptr;      // the query's text; borrowed, but owned by a record that st_query_copy made
    st_query_info_t* info = nullptr;  // accounting, shared with the readers; not owned, may be null
    token_case_t token_case = TOKEN_CASE_ASIS;
    st_timeval_t opt_span;  // selection: the span of a time bin
    uint8_t opt_a = 0;      // QUERY_* bits
    uint8_t opt_b = 0;      // selection
    uint32_t opt_word = 0;  // selection
    uint8_t opt_flag = 0;   // QUERY_BOUNDED
};
using QUERY = st_query_spec;

static_assert(sizeof(st_query_spec) == 96 && offsetof(st_query_spec, opt_span) == 64);

// Zeroes the record: no text, case as it is, no time bounds (see QUERY_BOUNDED): as long as both times are 0 the query
// is one for all time, but a lower bound alone leaves the latest time at 0, before it. A null pointer is ignored.
void st_query_init(st_query_spec* query);

// A copy with a text of its own and the same accounting record; its token case is always TOKEN_CASE_ASIS. Null when
// memory is short. Ended by st_query_free_copy.
st_query_spec* st_query_copy(const st_query_spec* query);
// Frees a record that st_query_copy made, and its text; null is allowed.
void st_query_free_copy(st_query_spec* query);
struct query_copy_closer {
    void operator()(st_query_spec* query) const { st_query_free_copy(query); }
};
using query_copy_ptr = std::unique_ptr<st_query_spec, query_copy_closer>;

// The query with the bounds that it has, in times: all time for a record without bounds. Borrows the text.
st_query_spec query_with_bounds(const st_query_spec& query);

// Sets the range, and QUERY_BOUNDED, from an exclusive latest bound: one nanosecond less is stored, or one second less
// (and no nanoseconds) without subseconds. Latest seconds of 2147483647 mean no upper bound. Before the first second of
// time there is nothing: an exclusive bound there leaves an empty range, whose earliest second is then at least one
// later.
void st_query_set_time_bound(st_query_spec* query, bool with_subseconds, int earliest_seconds,
                             unsigned long earliest_subseconds, int latest_seconds, unsigned long latest_subseconds);

// A term, or a part of one, as a query's text has it: blanks, tabs, line feeds, brackets and backslashes get a backslash.
// A "*" stays what it is to the query (QUERY_STARS_ARE_PLAIN). May throw std::bad_alloc.
std::string query_escape(std::string_view term);
// Whether an escaped term is read back as this literal. Not so are an empty one, an operator such as "AND", one with a
// NUL, and one of more than 2048 bytes (2047 behind TOKEN_CASE_BLANK_PREFIX); st_get and st_term_count take a term as
// it is.
bool query_can_hold(std::string_view term);

// Checks a text without a slice: 0, or what a search answers to it, and where in the text (null allowed) the fault is.
[[nodiscard]] int validate_query_text(const char* text, token_case_t token_case, size_t* error_position);

// Appends two lines that describe the query; safe in a signal handler. A null query appends nothing.
void st_query_annotator_write(string_builder* out, const st_query_spec* query);

}  // namespace veldar
