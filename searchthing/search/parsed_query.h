// A query's text, read once for any number of slices.
//
//   query    = group { group }                       the groups are ANDed
//   group    = "[" ( "AND" | "OR" ) { item } "]"
//   item     = literal | group | "[" "NOT" literal "]" | "[" comparison field number "]"
//
// The root is an AND frame of its own. A group whose operator equals its frame's makes no frame (both operators are
// associative), so that only AND in OR and OR in AND are ever folded. "[OR]" matches nothing, "[AND]" everything.
// Nesting and text length are bounded by memory, never by the C stack.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "searchthing/base/warm_rc.h"
#include "searchthing/search/query.h"
#include "searchthing/search/tokenizer.h"

namespace veldar {

// A comparison of a field with a number.
struct comp_t {
    token_type_t op = T_OP_EQ;  // T_OP_LT to T_OP_NEQ
    std::string field;
    double number = 0;
};

// One bracket group.
struct frame_t {
    token_type_t _op = T_OP_AND;
    std::vector<std::string> _kw_list;
    std::vector<std::string> _not_kw_list;
    std::vector<comp_t> _comparisons;
    uint32_t parent = 0;        // the frame that this one is folded into; the root has none
    bool has_children = false;  // frames that are folded into this one
};

struct parsed_query_t {
    st_query_spec spec;            // bounds and options; the text is borrowed
    std::vector<frame_t> frames;   // frames[0] is the root; every other one comes after its parent
    bool stars_are_plain = false;  // "*" is a character like any other
};

// Reads the query's text: 0, or WARM_RC_QUERY_END for a blank text or one that ends inside a group, the tokenizer's
// TOKEN_TOO_LONG and TOKEN_BAD_ESCAPE, WARM_RC_QUERY_TOKEN for an unexpected token, WARM_RC_QUERY_COMPARISON for a
// comparison with a missing field or a number that is not fully numeric, WARM_RC_INVALID_ARGUMENT for a null text.
// `detail` of the record is where in the text.
[[nodiscard]] int parse_query(const st_query_spec& query, parsed_query_t* out, warm_rc_t* rc);
// The query for one literal, taken as it is. May throw std::bad_alloc.
parsed_query_t query_for_term(const st_query_spec& query, const char* term);
// True with the term when the query is one exact term and nothing else.
bool query_is_single_term(const parsed_query_t& query, const std::string** term);

}  // namespace veldar
