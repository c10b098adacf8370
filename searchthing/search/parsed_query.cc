#include "searchthing/search/parsed_query.h"

#include <new>

#include "libzero/assertions.h"
#include "searchthing/base/number.h"
#include "searchthing/search/search_literals.h"

namespace veldar {

namespace {

// A token as the grammar sees it.
struct token {
    token_type_t type = T_END;
    std::string text;
};

// A group that is not closed yet: its frame, and how many groups of the same operator are open inside of it.
struct open_group_t {
    uint32_t frame = 0;
    uint32_t depth = 0;
};

struct bracket_parser {
    tokenizer_t tokenizer;
    std::vector<frame_t>* frames = nullptr;
    std::vector<open_group_t> open;
    warm_rc_t* rc = nullptr;
    size_t error_position = 0;
};

int fail(bracket_parser* parser, int status, const char* message) {
    return _set_rc_verbose(parser->rc, status, static_cast<uint32_t>(parser->error_position), message);
}

int fail_token(bracket_parser* parser, int status) {
    static_assert(int{TOKEN_END_OF_TEXT} == int{WARM_RC_QUERY_END});
    return fail(parser, status, status == WARM_RC_QUERY_END ? "the query text ends here" : "a token cannot be read");
}

int read_token(bracket_parser* parser, token* out) {
    char text[TOKEN_CAPACITY];
    size_t position = parser->tokenizer._pos;
    parser->error_position = position;
    const int size = next_token(&parser->tokenizer, text, TOKEN_CAPACITY, &position, &out->type);
    if (size < 0) return fail_token(parser, size);
    parser->error_position = position;
    out->text.assign(text, static_cast<size_t>(size));
    return 0;
}

bool is_comparison(token_type_t type) {
    static_assert(T_LITERAL < T_OP_LT && T_OP_NEQ - T_OP_LT == 5);
    return type >= T_OP_LT && type <= T_OP_NEQ;
}

frame_t* top(bracket_parser* parser) {
    ST_ASSERT(!parser->open.empty() && parser->open.back().frame < parser->frames->size());
    return &(*parser->frames)[parser->open.back().frame];
}

bool inside_group(const bracket_parser* parser) {
    return parser->open.size() > 1 || parser->open.back().depth > 0;
}

void _make_frame(bracket_parser* parser, token_type_t op) {
    frame_t frame;
    frame._op = op;
    if (!parser->open.empty()) {
        frame.parent = parser->open.back().frame;
        top(parser)->has_children = true;
    }
    parser->open.push_back({static_cast<uint32_t>(parser->frames->size()), 0});
    parser->frames->push_back(std::move(frame));
}

void open_group(bracket_parser* parser, token_type_t op) {
    if (top(parser)->_op == op) {
        parser->open.back().depth++;
    } else {
        _make_frame(parser, op);
    }
}

int close_group(bracket_parser* parser) {
    if (!inside_group(parser)) return fail(parser, WARM_RC_QUERY_TOKEN, "a closing bracket without its group");
    uint32_t* const depth = &parser->open.back().depth;
    *depth > 0 ? static_cast<void>(--*depth) : parser->open.pop_back();
    return 0;
}

int close_bracket(bracket_parser* parser) {
    parser->error_position = parser->tokenizer._pos;
    const int status = discard_next(&parser->tokenizer, T_CLOSE_BRACE);
    if (status == 0) return 0;
    if (status != TOKEN_UNEXPECTED) return fail_token(parser, status);
    parser->error_position = parser->tokenizer._pos;
    return fail(parser, WARM_RC_QUERY_TOKEN, "a closing bracket was expected");
}

int read_negation(bracket_parser* parser) {
    if (!inside_group(parser)) return fail(parser, WARM_RC_QUERY_TOKEN, "NOT outside every group");
    token literal;
    ST_TRY(read_token(parser, &literal));
    if (literal.type != T_LITERAL) return fail(parser, WARM_RC_QUERY_TOKEN, "NOT takes one term");
    ST_TRY(close_bracket(parser));
    top(parser)->_not_kw_list.push_back(std::move(literal.text));
    return 0;
}

// The blank that one token case puts in front of every literal belongs to terms, not to numbers.
const char* number_text(const bracket_parser* parser, const token& number) {
    const bool blank = parser->tokenizer.token_case == TOKEN_CASE_BLANK_PREFIX && number.text.starts_with(' ');
    return number.text.c_str() + (blank ? 1 : 0);
}

int read_comparison(bracket_parser* parser, token_type_t op) {
    if (!inside_group(parser)) return fail(parser, WARM_RC_QUERY_TOKEN, "a comparison outside every group");
    comp_t comparison;
    comparison.op = op;
    token field;
    token number;
    ST_TRY(read_token(parser, &field));
    if (field.type != T_LITERAL) return fail(parser, WARM_RC_QUERY_COMPARISON, "a comparison needs a field");
    ST_TRY(read_token(parser, &number));
    if (number.type != T_LITERAL || !parse_query_number(number_text(parser, number), &comparison.number)) {
        return fail(parser, WARM_RC_QUERY_COMPARISON, "a comparison needs a number");
    }
    ST_TRY(close_bracket(parser));
    comparison.field = std::move(field.text);
    top(parser)->_comparisons.push_back(std::move(comparison));
    return 0;
}

int read_group(bracket_parser* parser) {
    token op;
    ST_TRY(read_token(parser, &op));
    if (op.type == T_OP_AND || op.type == T_OP_OR) {
        open_group(parser, op.type);
        return 0;
    }
    if (op.type == T_OP_NOT) return read_negation(parser);
    if (is_comparison(op.type)) return read_comparison(parser, op.type);
    return fail(parser, WARM_RC_QUERY_TOKEN, "an opening bracket needs an operator");
}

int read_item(bracket_parser* parser, token* item) {
    if (item->type == T_OPEN_BRACE) return read_group(parser);
    if (item->type == T_CLOSE_BRACE) return close_group(parser);
    if (item->type != T_LITERAL) return fail(parser, WARM_RC_QUERY_TOKEN, "an operator outside its bracket");
    if (!inside_group(parser)) return fail(parser, WARM_RC_QUERY_TOKEN, "a term outside every group");
    top(parser)->_kw_list.push_back(std::move(item->text));
    return 0;
}

int read_query(bracket_parser* parser, const char* text, token_case_t token_case) {
    init_tokenizer(&parser->tokenizer, text, token_case);
    _make_frame(parser, T_OP_AND);
    bool any = false;
    while (true) {
        token item;
        const int status = read_token(parser, &item);
        if (status == WARM_RC_QUERY_END && any && !inside_group(parser)) return _set_rc(parser->rc, WARM_RC_OK);
        if (status == WARM_RC_QUERY_END) {
            return fail(parser, status, any ? "the query text ends inside a group" : "the query text is blank");
        }
        if (status != 0) return status;
        any = true;
        ST_TRY(read_item(parser, &item));
    }
}

}  // namespace

int parse_query(const st_query_spec& query, parsed_query_t* out, warm_rc_t* rc) {
    *out = {.spec = query, .frames = {}, .stars_are_plain = (query.opt_a & QUERY_STARS_ARE_PLAIN) != 0};
    if (query.lispy == nullptr) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "a query without text");
    try {
        bracket_parser parser;
        parser.frames = &out->frames;
        parser.rc = rc;
        return read_query(&parser, query.lispy, query.token_case);
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

parsed_query_t query_for_term(const st_query_spec& query, const char* term) {
    parsed_query_t parsed = {.spec = query, .frames = {}, .stars_are_plain = true};
    parsed.frames.emplace_back()._kw_list.emplace_back(term);
    return parsed;
}

int validate_query_text(const char* text, token_case_t token_case, size_t* error_position) {
    st_query_spec query;
    query.lispy = text;
    query.token_case = token_case;
    parsed_query_t parsed;
    warm_rc_t rc;
    const int status = parse_query(query, &parsed, &rc);
    const bool told = status != 0 && rc.detail != WARM_RC_NO_DETAIL;
    if (error_position != nullptr) *error_position = told ? rc.detail : 0;
    return status;
}

bool query_is_single_term(const parsed_query_t& query, const std::string** term) {
    ST_ASSERT(!query.frames.empty());
    const frame_t& root = query.frames.front();
    if (query.frames.size() != 1 || root._kw_list.size() != 1 || !root._not_kw_list.empty() ||
        !root._comparisons.empty()) {
        return false;
    }
    *term = &root._kw_list.front();
    return query.stars_are_plain || (*term)->find('*') == std::string::npos;
}

}  // namespace veldar
