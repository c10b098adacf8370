// Questions to several stores: an answer as a part for others to merge, or the merged answer of several machines.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/libveldar/partial/partial_merge.h"
#include "tools/libveldar/partial/question.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/stats.h"

namespace veldar::tool {

struct spread_options {
    bool is_partial = false;
    std::string hosts;        // a file
    uint32_t timeout_s = 60;  // for each of them
    std::string deadline;     // see deadline_parse; empty: none
    uint64_t max_read = 0;    // bytes; 0: no end
    std::string cursor;       // a file; empty: none
};

// --partial, --on and --timeout.
void add_spread_options(const command& to, spread_options* options);
// --deadline, --max-read and --cursor.
void add_budget_options(const command& to, spread_options* options);
bool spread_is_wanted(const spread_options& options);

// How a merged answer is to be shown, whatever it is about.
struct merged_view {
    std::string format = {}, color = "auto", zone = {};
    bool oldest_first = false;
    stats_view stats = {};  // format and shape of the question do not count
    std::string fill = {};  // see stats_fill_of
};
// Prints it, and on standard error what it lacks. The exit status. Throws failure_t, as do the functions below.
int merged_show(const merged_answer& answer, const merged_view& view);

// Writes it to standard output, for the next merge. The exit status.
int merged_write_out(const merged_answer& answer);

// Answers from the store as --partial asks for, or asks the machines and shows the merged answer. The exit status.
int spread_run(const std::string& store, const spread_options& options, const question& asked, const merged_view& view);

// The words behind "veldar" that ask the question, with --partial.
std::vector<std::string> question_arguments(const question& asked);

}  // namespace veldar::tool
