// The query of a command line: its text, its time bounds, and the searches that they become.
#pragma once

#include <string>
#include <vector>

#include "searchthing/search/query.h"
#include "tools/libveldar/query/query_language.h"

namespace veldar::tool {

struct query_options {
    std::vector<std::string> words;  // joined with blanks
    std::string since, until, zone;  // zone: see time_zone_of
    bool native = false;
};

// Makes the arguments behind a subcommand that takes a query safe to parse: one such as "-root" or "-(a OR b)" is a
// part of the query and no option, and "[AND a]" is no list of values. A blank before it tells.
void query_protect_words(std::vector<std::string>* arguments);

// Sets the bounds that --since, --until and --tz give; an empty text is no bound. Throws failure_t with OUTCOME_USAGE.
void query_set_bounds(const std::string& since, const std::string& until, const std::string& zone,
                      st_query_spec* query);

struct prepared_query {
    std::string text;
    bool is_native = false;  // the text is in bracket notation
    std::vector<query_plan> plans;
    st_query_spec bounds;  // time bounds and options; its text is a plan's
    bool needs_raw() const;
    // Whether a bound cuts a second in two; and whether it cuts this one. The index of a log keeps whole seconds, so
    // that its answers in such a second are to be checked.
    bool cuts_a_second() const;
    bool cuts(st_time_t second) const;
    bool holds(const st_timeval_t& time) const;  // whether the time is within the bounds
};

// Throws failure_t with OUTCOME_USAGE, a malformed query with a caret under the spot.
prepared_query query_prepare(const query_options& options);
// What the engine is asked for one plan; the text is the plan's and lives as long.
st_query_spec query_of_plan(const prepared_query& query, const query_plan& plan);

}  // namespace veldar::tool
