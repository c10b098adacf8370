// Many partial answers as one. In any order and any grouping the same comes out, but for the last digits of sums.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/libveldar/load/stats_ask.h"
#include "tools/libveldar/partial/partial_stream.h"
#include "tools/libveldar/query/term_input.h"

namespace veldar::tool {

// A partial answer and what people call it: a file, a machine.
struct named_partial {
    std::string name;
    partial answer;
};

struct merged_answer {
    question asked;
    std::vector<partial_part> parts;  // ascending
    partial_coverage coverage;        // lacks what any of them lacks, and is complete back to the latest of their times
    std::vector<named_partial> from;
    std::vector<std::vector<uint64_t>> part_of;  // by partial answer: which of `parts` its parts are
    size_t longest_host = 0, longest_source = 0;
    bool knows_raw = true;  // of every answer
};

// Whether an index directory, or a slice of it, is in the other. Such answers cannot be merged: events would count twice.
bool parts_overlap(const std::string& identity, const std::string& other);
// At least one answer. Throws failure_t with OUTCOME_USAGE for answers to different questions, and for a part that comes
// twice. The bytes of the answers must outlive the result.
merged_answer partials_merge(std::vector<named_partial> answers);
// Adds what else the answer lacks.
void merged_lack(merged_answer* answer, const std::vector<std::string>& lacks);
// The same as a stream. Throws failure_t, and what the sink throws.
void merged_write(const merged_answer& answer, const partial_sink& sink);

// ---- What the merged answer says, by the kind of its question ----

uint64_t merged_count(const merged_answer& answer);
// Terms ascending, their totals added up.
void merged_terms(const merged_answer& answer, const term_visitor& visit);
inline term_walk merged_walk(const merged_answer& answer) {
    return [&answer](const term_visitor& visit) { merged_terms(answer, visit); };
}
// The table is finished. Throws failure_t for tables that are damaged or together too large.
void merged_stats(const merged_answer& answer, stats_result* result);

// A k-way merge of events or samples.
struct merged_place {
    uint32_t from = 0;  // which partial answer
    size_t at = 0;      // where the record stands in it
};
struct merged_cursor {
    const merged_answer* answer = nullptr;
    std::vector<partial_reader> readers;
    std::vector<size_t> places;     // of the records at hand
    std::vector<uint32_t> waiting;  // a heap of readers with a record at hand
    uint64_t left = UINT64_MAX;     // of the question's limit
    bool is_begun = false;
    uint32_t last = 0;  // whose record was given
};
merged_cursor merged_open(const merged_answer& answer);
// The place of the next record; false at the end. The record is that reader's until the next call.
bool merged_next(merged_cursor* cursor, merged_place* place);
// Reads a record again. Not between calls of merged_next.
const partial_reader& merged_again(merged_cursor* cursor, const merged_place& place);
// An event of the merged answer: the reader's, with its origin.
const event_record& merged_event(merged_cursor* cursor, const merged_place& place);

}  // namespace veldar::tool
