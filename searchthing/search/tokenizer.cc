#include "searchthing/search/tokenizer.h"

#include <cstring>
#include <span>
#include <string_view>

#include "libzero/assertions.h"

namespace veldar {

namespace {

struct keyword {
    std::string_view text;
    token_type_t type;
};
constexpr keyword KEYWORDS[] = {
    {"AND", T_OP_AND}, {"OR", T_OP_OR},   {"NOT", T_OP_NOT}, {"LT", T_OP_LT},   {"LTE", T_OP_LTE},
    {"GT", T_OP_GT},   {"GTE", T_OP_GTE}, {"EQ", T_OP_EQ},   {"NEQ", T_OP_NEQ},
};

bool is_separator(char c) {
    return c == ' ' || c == '\t' || c == '\n';
}
bool is_bracket(char c) {
    return c == '[' || c == ']';
}
bool ends_literal(char c) {
    return c == '\0' || is_separator(c) || is_bracket(c);
}
bool is_escapable(char c) {
    return is_separator(c) || is_bracket(c) || c == '\\';
}

token_type_t type_of(std::string_view word) {
    for (const keyword& k : KEYWORDS) {
        if (k.text == word) return k.type;
    }
    return T_LITERAL;
}

void fold_to_lower(char* text, uint32_t size) {
    for (char& c : std::span(text, size)) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
}

// Copies the literal at the position behind the `size` bytes that the buffer holds; its new size or a failure.
int read_literal(tokenizer_t* tokenizer, char* buffer, uint32_t size, uint32_t capacity) {
    while (!ends_literal(tokenizer->text[tokenizer->_pos])) {
        if (tokenizer->text[tokenizer->_pos] == '\\') {
            tokenizer->_pos++;
            if (!is_escapable(tokenizer->text[tokenizer->_pos])) return TOKEN_BAD_ESCAPE;
        }
        buffer[size++] = tokenizer->text[tokenizer->_pos++];
        if (size == capacity) return TOKEN_TOO_LONG;
    }
    buffer[size] = '\0';
    return static_cast<int>(size);
}

}  // namespace

std::string query_escape(std::string_view term) {
    std::string escaped;
    escaped.reserve(term.size());
    for (const char c : term) {
        if (is_escapable(c)) escaped += '\\';
        escaped += c;
    }
    return escaped;
}

bool query_can_hold(std::string_view term) {
    return !term.empty() && term.size() < TOKEN_CAPACITY && term.find('\0') == std::string_view::npos &&
           type_of(term) == T_LITERAL;
}

size_t init_tokenizer(tokenizer_t* tokenizer, const char* text, token_case_t token_case) {
    *tokenizer = {0, text, std::strlen(text), token_case};
    return tokenizer->_strlen;
}

int next_token(tokenizer_t* tokenizer, char* buffer, unsigned int token_capacity, size_t* token_pos,
               token_type_t* type) {
    ST_ASSERT(token_capacity > 1);
    while (is_separator(tokenizer->text[tokenizer->_pos])) tokenizer->_pos++;
    const char c = tokenizer->text[tokenizer->_pos];
    if (c == '\0') {
        ST_ASSERT(tokenizer->_pos == tokenizer->_strlen);
        return TOKEN_END_OF_TEXT;
    }
    *token_pos = tokenizer->_pos;
    if (is_bracket(c)) {
        tokenizer->_pos++;
        buffer[0] = c;
        buffer[1] = '\0';
        *type = c == '[' ? T_OPEN_BRACE : T_CLOSE_BRACE;
        return 1;
    }
    const uint32_t prefix = tokenizer->token_case == TOKEN_CASE_BLANK_PREFIX ? 1 : 0;
    buffer[0] = ' ';
    const int size = read_literal(tokenizer, buffer, prefix, token_capacity);
    if (size < 0) return size;
    const uint32_t word_size = static_cast<uint32_t>(size) - prefix;
    *type = type_of({buffer + prefix, word_size});
    if (*type == T_LITERAL && tokenizer->token_case == TOKEN_CASE_LOWER) fold_to_lower(buffer, word_size);
    ST_ASSERT(size > 0);
    return size;
}

void seek_tokenizer(tokenizer_t* tokenizer, size_t token_pos) {
    ST_ASSERT(token_pos < tokenizer->_strlen);
    tokenizer->_pos = token_pos;
}

int discard_next(tokenizer_t* tokenizer, token_type_t expected) {
    char token[TOKEN_CAPACITY];
    size_t token_pos = 0;
    token_type_t type = T_END;
    const int size = next_token(tokenizer, token, sizeof token, &token_pos, &type);
    if (size < 0) return size;
    if (type == expected) return 0;
    seek_tokenizer(tokenizer, token_pos);
    return TOKEN_UNEXPECTED;
}

}  // namespace veldar
