// Tokenizer of the bracketed prefix notation in which the engine takes queries: [AND host::a [NOT source::b] [OR x y]].
//
// Blank, tab and line feed separate tokens; "[" and "]" are tokens by themselves; everything else is a literal, in
// which a backslash takes a following blank, tab, line feed, bracket or backslash as it is. The words AND, OR, NOT, LT,
// LTE, GT, GTE, EQ and NEQ are operators when they stand alone and in upper case.
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/search/query.h"

namespace veldar {

enum token_type_t : int32_t {
    T_OPEN_BRACE = 0,
    T_CLOSE_BRACE = 1,
    T_OP_AND = 2,
    T_OP_OR = 3,
    T_OP_NOT = 4,
    T_END = 5,  // reserved: the end of the text is a status
    T_LITERAL = 6,
    T_OP_LT = 7,
    T_OP_LTE = 8,
    T_OP_GT = 9,
    T_OP_GTE = 10,
    T_OP_EQ = 11,
    T_OP_NEQ = 12,
};

// What the tokenizer returns instead of a size. The numbers are its own, whatever they mean in warm_rc_t.
enum token_status_t : int {
    TOKEN_TOO_LONG = -18,
    TOKEN_UNEXPECTED = -19,
    TOKEN_END_OF_TEXT = -20,
    TOKEN_BAD_ESCAPE = -25,
};

// The buffer that every caller passes: a literal of 2048 bytes and its NUL.
inline constexpr uint32_t TOKEN_CAPACITY = 2049;

struct tokenizer_t {
    size_t _pos = 0;             // the next unread byte
    const char* text = nullptr;  // borrowed, NUL-terminated, not to change while tokens are read
    size_t _strlen = 0;
    token_case_t token_case = TOKEN_CASE_ASIS;
};

// Stands at the start of the text, which must outlive the tokenizer; returns its length.
size_t init_tokenizer(tokenizer_t* tokenizer, const char* text, token_case_t token_case);

// Reads the next token into a buffer of `token_capacity` bytes (more than 1) and terminates it. Returns its size
// without the NUL, never 0, and tells its type and where in the text it starts. Fails with TOKEN_END_OF_TEXT (the start
// is then not written), TOKEN_TOO_LONG when token and NUL do not fit, or TOKEN_BAD_ESCAPE; after the last two the
// position stays where reading stopped, and the query is to be given up.
[[nodiscard]] int next_token(tokenizer_t* tokenizer, char* buffer, unsigned int token_capacity, size_t* token_pos,
                             token_type_t* type);

// Continues at a position before the end of the text, such as a token's start.
void seek_tokenizer(tokenizer_t* tokenizer, size_t token_pos);

// Reads past a token of the expected type: 0; TOKEN_UNEXPECTED, standing before the token again, when it is of another
// type; or the failure of next_token.
[[nodiscard]] int discard_next(tokenizer_t* tokenizer, token_type_t expected);

}  // namespace veldar
