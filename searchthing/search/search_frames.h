// Bracket evaluation: reads the query text and folds its groups over one warm slice.
//
//   query    = group { group }                       the groups are ANDed
//   group    = "[" ( "AND" | "OR" ) { item } "]"
//   item     = literal | group | "[" "NOT" literal "]" | "[" comparison field number "]"
//
// The root is an AND frame of its own. A group whose operator equals its frame's pushes no frame (both operators are
// associative) but raises the frame's depth, so that only AND in OR and OR in AND are ever folded. "[OR]" matches
// nothing,
// "[AND]" everything. Nesting and text length are bounded by memory, never by the C stack.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "searchthing/search/query.h"
#include "searchthing/search/search_literals.h"

namespace veldar {

// One bracket group under evaluation. `_result` gathers what the children yielded, over the frame's id range.
struct frame_t {
    token_type_t _op = T_OP_AND;
    std::vector<std::string> _kw_list;
    std::vector<std::string> _not_kw_list;
    std::vector<comp_t> _comparisons;
    query_result_t _result;
    bool has_children = false;
    uint32_t depth = 0;  // open groups of the same operator inside this frame
    uint32_t _beginval = 0;
    uint32_t _endval = 0;
    uint32_t _ds_beginval_preamble = 0;
    bool _find_first_called = false;
};

struct fstack_t {
    std::vector<frame_t> frames;  // frames[0] is the root
};

// Evaluates the query text over the context's slice, time bounds and range; the result is the root's. 0, or a negative
// status: -20 blank text or text that ends inside a group, -18 and -25 from the tokenizer, -21 an unexpected token, -22
// a frame that cannot be folded, -23 a comparison with a missing field or a number that is not fully numeric, -37 a
// null text, or the failure of a read. On failure the result is empty.
int evaluate_query(conjunction_context* context, const st_query_spec* query, bool exact, query_result_t* result);

// How far the evaluation under way has come, for the crash log: the tokenizer and the stack of frames. Nothing when
// there is none.
void search_annotator_write(string_builder* out, const conjunction_context* context) noexcept;

// Turns the root's result into one bitmap over the context's range, the excluded values taken out. 0 or a status.
int _frame2bitmap(conjunction_context* context, query_result_t* result);

// Checks the text alone, without a slice: what evaluate_query would answer to it.
int validate_query_text(const char* text, token_case_t token_case, size_t* error_position);

// The literals of a query that is one conjunction without children, for callers that answer such queries from metadata:
// true with the single exact term when the query is exactly that.
bool query_is_single_term(const st_query_spec* query, std::string* term);

}  // namespace veldar
