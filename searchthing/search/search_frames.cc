#include "searchthing/search/search_frames.h"

#include <new>

#include "libzero/ospath-builder.h"

namespace veldar {

namespace {

constexpr uint32_t TOKEN_BUFFER = 2049;

// A token as the grammar sees it.
struct token {
    token_type_t type = T_END;
    size_t position = 0;
    std::string text;
};

// Reads the bracket notation into a frame stack. With a context, frames are evaluated as they close; without one the
// text is only checked.
struct bracket_parser {
    tokenizer_t tokenizer;
    conjunction_context* context = nullptr;
    bool exact = true;
    fstack_t stack;
    warm_rc_t* rc = nullptr;
    size_t error_position = 0;
};

int fail(bracket_parser* parser, int status, const char* message) {
    return _set_rc_verbose(parser->rc, status, static_cast<uint32_t>(parser->error_position), message);
}

int fail_token(bracket_parser* parser, int status) {
    return fail(parser, status, status == WARM_RC_QUERY_END ? "the query text ends here" : "a token cannot be read");
}

int read_token(bracket_parser* parser, token* out) {
    char text[TOKEN_BUFFER];
    size_t position = parser->tokenizer._pos;
    parser->error_position = position;
    const int size = next_token(&parser->tokenizer, text, TOKEN_BUFFER, &position, &out->type);
    if (size < 0) return fail_token(parser, size);
    parser->error_position = position;
    out->position = position;
    out->text.assign(text, static_cast<size_t>(size));
    return 0;
}

bool is_comparison(token_type_t type) {
    return type >= T_OP_LT && type <= T_OP_NEQ;
}

frame_t* top(bracket_parser* parser) {
    return &parser->stack.frames.back();
}

bool matches_everything(const conjunction_context* context, const query_result_t& result) {
    return result.tsval_list_capacity == context->bufcap && result.tsval_list.empty() && result.bitmap.empty();
}

bool matches_nothing(const conjunction_context* context, const query_result_t& result) {
    if (!result.bitmap.empty()) return false;
    return result.tsval_list.empty() ? !matches_everything(context, result) : result.tsval_list_capacity == 0;
}

// An empty OR result: a bitmap without a bit.
int _no_match_result_or(conjunction_context* context, query_result_t* result) {
    _reset_result(result);
    return range_bitmap_alloc(&result->bitmap, context->range, &context->rc);
}

int _all_match_result_bitmap(conjunction_context* context, query_result_t* result) {
    buffer<uint8_t> all;
    if (!all.alloc(_calc_bitmap_size(context->range.begin, context->range.end))) {
        return _set_rc_msg(&context->rc, WARM_RC_NO_MEMORY, "malloc failed in _all_match_result_bitmap");
    }
    ST_TRY(_set_everything(context, all.data()));
    result->bitmap = std::move(all);
    result->tsval_list_capacity = context->bufcap;
    return 0;
}

int fold_to_bitmap(conjunction_context* context, query_result_t* result) {
    const id_range_t& range = context->range;
    if (matches_nothing(context, *result)) {
        ST_TRY(_no_match_result_or(context, result));
    } else if (matches_everything(context, *result)) {
        ST_TRY(_all_match_result_bitmap(context, result));
    } else if (result->bitmap.empty()) {
        ST_TRY(range_bitmap_alloc(&result->bitmap, range, &context->rc));
        for (uint32_t i = 0; i < result->tsval_list_capacity; i++) {
            const uint32_t bit = result->tsval_list[i] - range.begin;
            result->bitmap[bit / 8] = static_cast<uint8_t>(result->bitmap[bit / 8] | 1U << (bit % 8));
        }
        result->tsval_list.reset();
    }
    if (!result->not_bitmap.empty()) range_bitmap_and_not(result->bitmap.data(), result->not_bitmap.data(), range);
    result->not_bitmap.reset();
    result->tsval_list_capacity = context->bufcap;
    return 0;
}

// The parent keeps only ids that its OR child matched.
int _merge_or2and(conjunction_context* context, frame_t* parent, query_result_t* child) {
    if (child->bitmap.empty()) ST_TRY(_no_match_result_or(context, child));
    if (parent->_result.bitmap.empty()) {
        parent->_result.bitmap = std::move(child->bitmap);
    } else {
        range_bitmap_and(parent->_result.bitmap.data(), child->bitmap.data(), context->range);
    }
    return 0;
}

// The child's ids, less those in its not bitmap, are added to the parent's bitmap.
int _merge_and2or(conjunction_context* context, frame_t* parent, query_result_t* child) {
    ST_TRY(fold_to_bitmap(context, child));
    if (parent->_result.bitmap.empty()) {
        parent->_result.bitmap = std::move(child->bitmap);
    } else {
        range_bitmap_or(parent->_result.bitmap.data(), child->bitmap.data(), context->range);
    }
    return 0;
}

// Folds what the children of an AND frame left into the result of its own literals.
int fold_children(conjunction_context* context, frame_t* frame, query_result_t* own) {
    uint8_t* children = frame->_result.bitmap.data();
    if (matches_nothing(context, *own)) return 0;
    if (!own->tsval_list.empty()) {
        own->tsval_list_capacity =
            _filter_values(own->tsval_list.data(), own->tsval_list_capacity, children, context->range, true);
    } else if (own->bitmap.empty()) {
        own->bitmap = std::move(frame->_result.bitmap);
    } else {
        range_bitmap_and(own->bitmap.data(), children, context->range);
    }
    return 0;
}

// True only for a group with no literals and no comparisons: nothing has to be looked up for it.
bool _shortcut(const frame_t& frame) {
    return frame._kw_list.empty() && frame._not_kw_list.empty() && frame._comparisons.empty();
}

literal_group group_of(const frame_t& frame) {
    return {frame._kw_list, frame._not_kw_list, frame._comparisons};
}

// The result of a closed frame. Over an empty id range nothing is looked up.
int _eval_partial(bracket_parser* parser, frame_t* frame, query_result_t* result) {
    conjunction_context* context = parser->context;
    _reset_result(result);
    if (context->range.empty()) return 0;
    if (frame->_op == T_OP_AND) {
        if (_shortcut(*frame)) {
            result->tsval_list_capacity = context->bufcap;
        } else {
            ST_TRY(_and_group(context, group_of(*frame), parser->exact, result, nullptr, nullptr));
        }
        return frame->has_children ? fold_children(context, frame, result) : 0;
    }
    *result = std::move(frame->_result);
    if (!_shortcut(*frame)) return _or_group(context, group_of(*frame), result);
    return result->bitmap.empty() ? _no_match_result_or(context, result) : 0;
}

// A new child gets its parent's id range.
void _find_first_for_frame(const conjunction_context* context, frame_t* frame) {
    frame->_beginval = context->range.begin;
    frame->_endval = context->range.end;
    frame->_ds_beginval_preamble = context->range.begin_preamble;
    frame->_find_first_called = context->range.computed;
}

void _make_frame(bracket_parser* parser, token_type_t op) {
    frame_t frame;
    frame._op = op;
    if (parser->context != nullptr) _find_first_for_frame(parser->context, &frame);
    parser->stack.frames.push_back(std::move(frame));
}

void _new_stack(bracket_parser* parser) {
    parser->stack.frames.clear();
    _make_frame(parser, T_OP_AND);
}

void open_group(bracket_parser* parser, token_type_t op) {
    if (top(parser)->_op == op) {
        top(parser)->depth++;
    } else {
        _make_frame(parser, op);
    }
}

int close_group(bracket_parser* parser) {
    frame_t* frame = top(parser);
    if (frame->depth > 0) {
        frame->depth--;
        return 0;
    }
    if (parser->stack.frames.size() < 2)
        return fail(parser, WARM_RC_QUERY_TOKEN, "a closing bracket without its group");
    frame_t closed = std::move(*frame);
    parser->stack.frames.pop_back();
    frame_t* parent = top(parser);
    parent->has_children = true;
    if (parser->context == nullptr) return 0;
    if (parent->_op == closed._op || parent->_beginval != closed._beginval || parent->_endval != closed._endval) {
        return fail(parser, WARM_RC_QUERY_FOLD, "a group that cannot be folded into its parent");
    }
    if (parser->context->range.empty()) return 0;
    query_result_t child;
    ST_TRY(_eval_partial(parser, &closed, &child));
    return parent->_op == T_OP_AND ? _merge_or2and(parser->context, parent, &child)
                                   : _merge_and2or(parser->context, parent, &child);
}

bool inside_group(bracket_parser* parser) {
    return parser->stack.frames.size() > 1 || top(parser)->depth > 0;
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

int read_item(bracket_parser* parser, const token& item) {
    if (item.type == T_OPEN_BRACE) return read_group(parser);
    if (item.type == T_CLOSE_BRACE) {
        if (!inside_group(parser)) return fail(parser, WARM_RC_QUERY_TOKEN, "a closing bracket without its group");
        return close_group(parser);
    }
    if (item.type != T_LITERAL) return fail(parser, WARM_RC_QUERY_TOKEN, "an operator outside its bracket");
    if (!inside_group(parser)) return fail(parser, WARM_RC_QUERY_TOKEN, "a term outside every group");
    top(parser)->_kw_list.push_back(item.text);
    return 0;
}

// Reads the whole text; the root frame then holds what is left to evaluate.
int read_query(bracket_parser* parser, const char* text, token_case_t token_case) {
    init_tokenizer(&parser->tokenizer, text, token_case);
    _new_stack(parser);
    bool any = false;
    while (true) {
        token item;
        const int status = read_token(parser, &item);
        if (status == WARM_RC_QUERY_END && any && !inside_group(parser)) break;
        if (status == WARM_RC_QUERY_END) {
            return fail(parser, status, any ? "the query text ends inside a group" : "the query text is blank");
        }
        if (status != 0) return status;
        any = true;
        ST_TRY(read_item(parser, item));
    }
    return 0;
}

int evaluate(conjunction_context* context, const st_query_spec* query, bool exact, query_result_t* result) {
    bracket_parser parser;
    parser.context = context;
    parser.exact = exact;
    parser.rc = &context->rc;
    context->tokenizer = &parser.tokenizer;
    context->stack = &parser.stack;
    ST_TRY(_find_first_if_needed(context));
    ST_TRY(read_query(&parser, query->lispy, query->token_case));
    _set_rc(&context->rc, WARM_RC_OK);
    return _eval_partial(&parser, top(&parser), result);
}

}  // namespace

int evaluate_query(conjunction_context* context, const st_query_spec* query, bool exact, query_result_t* result) {
    _reset_result(result);
    if (query->lispy == nullptr) return _set_rc_msg(&context->rc, WARM_RC_INVALID_ARGUMENT, "a query without text");
    int status = 0;
    try {
        status = evaluate(context, query, exact, result);
    } catch (const std::bad_alloc&) {
        status = _set_rc(&context->rc, WARM_RC_NO_MEMORY);
    }
    context->tokenizer = nullptr;
    context->stack = nullptr;
    if (status != 0) _reset_result(result);
    return status;
}

void search_annotator_write(string_builder* out, const conjunction_context* context) noexcept {
    if (context->tokenizer == nullptr || context->stack == nullptr) return;
    string_builder_appendz(out, "tokenizer pos=");
    string_builder_append_decimal_u64(out, context->tokenizer->_pos);
    string_builder_appendz(out, " len=");
    string_builder_append_decimal_u64(out, context->tokenizer->_strlen);
    string_builder_append1(out, ' ');
    string_builder_appendz(out, context->tokenizer->text);
    string_builder_appendz(out, "\nwsas->stack: [ ");
    for (const frame_t& frame : context->stack->frames) {
        string_builder_appendz(out, frame._op == T_OP_AND ? "AND terms=" : "OR terms=");
        string_builder_append_decimal_u64(out, frame._kw_list.size());
        string_builder_appendz(out, " not=");
        string_builder_append_decimal_u64(out, frame._not_kw_list.size());
        string_builder_appendz(out, " comparisons=");
        string_builder_append_decimal_u64(out, frame._comparisons.size());
        string_builder_appendz(out, " ids=");
        string_builder_append_decimal_u64(out, frame._beginval);
        string_builder_append1(out, '-');
        string_builder_append_decimal_u64(out, frame._endval);
        string_builder_appendz(out, "; ");
    }
    string_builder_appendz(out, "]\n");
}

int _frame2bitmap(conjunction_context* context, query_result_t* result) {
    return fold_to_bitmap(context, result);
}

int validate_query_text(const char* text, token_case_t token_case, size_t* error_position) {
    warm_rc_t rc;
    bracket_parser parser;
    parser.rc = &rc;
    if (text == nullptr) return WARM_RC_INVALID_ARGUMENT;
    int status = 0;
    try {
        status = read_query(&parser, text, token_case);
    } catch (const std::bad_alloc&) {
        status = WARM_RC_NO_MEMORY;
    }
    if (error_position != nullptr) *error_position = parser.error_position;
    return status;
}

bool query_is_single_term(const st_query_spec* query, std::string* term) {
    warm_rc_t rc;
    bracket_parser parser;
    parser.rc = &rc;
    if (query->lispy == nullptr || read_query(&parser, query->lispy, query->token_case) != 0) return false;
    const frame_t& root = *top(&parser);
    if (root.has_children || root._kw_list.size() != 1 || !root._not_kw_list.empty() || !root._comparisons.empty()) {
        return false;
    }
    *term = root._kw_list.front();
    return term->find('*') == std::string::npos;
}

}  // namespace veldar
