// A question as a record of its own, the same for every store that is asked: with times that are absolute, so that it
// means the same whenever and wherever it is answered. Questions of one text are one question.
//
//   kind            what its partial answers hold    values
//   search          events                           query native since until limit fields before after
//   count           a number                         query native since until
//   stats           a table of cells                 query native since until by agg missing every tz top
//   terms           terms                            pattern sort limit
//   fields          terms                            -
//   seen            terms                            term
//   new             terms                            pattern since limit
//   samples         samples of metrics               names where since until limit
//   metric-stats    a table of cells                 names where since until by agg missing every tz top rate
//
// A value that is not given is left out. Lists have one item a line.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/libveldar/load/stats_ask.h"
#include "tools/libveldar/query/metric_ask.h"
#include "tools/libveldar/query/query_input.h"

namespace veldar::tool {

struct question {
    std::string kind;
    std::map<std::string, std::string> values;  // by name

    const std::string& value(const std::string& name) const;  // empty when it is not given
    uint64_t number(const std::string& name) const;           // 0 when it is not given
    bool has(const std::string& name) const { return values.contains(name); }
    void set(const std::string& name, const std::string& value);  // an empty one is not given
    void set(const std::string& name, uint64_t value);            // nor is 0
};

// "kind search\nquery status=500\n..."; the values by name, percent-encoded.
std::string question_text(const question& asked);
// False for anything that question_text does not give.
[[nodiscard]] bool question_parse(std::string_view text, question* asked);

// The questions as they are asked now and here. Throw failure_t with OUTCOME_USAGE, as do the inverse functions.
question question_of_query(const char* kind, const query_options& options);  // search, count, stats
// stats: the bins and groups.
void question_set_stats(question* asked, const stats_question& stats, uint64_t top);
question question_of_metrics(const metric_question& metrics, uint64_t limit);
question question_of_metric_stats(const metric_question& metrics, const metric_stats_question& stats, uint64_t top);
question question_of_new(const std::string& pattern, const std::string& since, const std::string& zone, uint64_t limit);

query_options question_query(const question& asked);
stats_question question_stats(const question& asked);
metric_question question_metrics(const question& asked);
metric_stats_question question_metric_stats(const question& asked);

}  // namespace veldar::tool
