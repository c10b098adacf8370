#include "searchthing/search/search_frames.h"

#include <new>

#include "libzero/assertions.h"
#include "libzero/ospath-builder.h"
#include "searchthing/base/bitset.h"

namespace veldar {

namespace {

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
    switch (match_kind(*result)) {
        case MATCH_NOTHING:
            ST_TRY(_no_match_result_or(context, result));
            break;
        case MATCH_EVERYTHING:
            ST_TRY(_all_match_result_bitmap(context, result));
            break;
        case MATCH_LIST:
            ST_TRY(range_bitmap_alloc(&result->bitmap, range, &context->rc));
            set_list_bits(*result, range, result->bitmap.data());
            result->tsval_list.reset();
            break;
        case MATCH_BITS:
            break;
    }
    if (!result->not_bitmap.empty()) range_bitmap_and_not(result->bitmap.data(), result->not_bitmap.data(), range);
    result->not_bitmap.reset();
    result->tsval_list_capacity = context->bufcap;
    ST_ASSERT(result->bitmap.size() >= _calc_bitmap_size(range.begin, range.end));
    return 0;
}

// The parent keeps only ids that its OR child matched.
int _merge_or2and(conjunction_context* context, buffer<uint8_t>* parent, query_result_t* child) {
    ST_ASSERT(!child->bitmap.empty());
    if (parent->empty()) {
        *parent = std::move(child->bitmap);
    } else {
        ST_ASSERT(parent->size() == child->bitmap.size());
        range_bitmap_and(parent->data(), child->bitmap.data(), context->range);
    }
    return 0;
}

// The child's ids, less those in its not bitmap, are added to the parent's bitmap.
int _merge_and2or(conjunction_context* context, buffer<uint8_t>* parent, query_result_t* child) {
    ST_TRY(fold_to_bitmap(context, child));
    if (parent->empty()) {
        *parent = std::move(child->bitmap);
    } else {
        ST_ASSERT(parent->size() == child->bitmap.size());
        range_bitmap_or(parent->data(), child->bitmap.data(), context->range);
    }
    return 0;
}

// Folds what the children of an AND frame left into the result of its own literals.
int fold_children(conjunction_context* context, buffer<uint8_t>* children, query_result_t* own) {
    ST_ASSERT(children->size() >= _calc_bitmap_size(context->range.begin, context->range.end));
    switch (match_kind(*own)) {
        case MATCH_NOTHING:
            break;
        case MATCH_LIST:
            own->tsval_list_capacity = _filter_values(own->tsval_list.data(), own->tsval_list_capacity,
                                                      children->data(), context->range, true);
            break;
        case MATCH_EVERYTHING:
            own->bitmap = std::move(*children);
            break;
        case MATCH_BITS:
            range_bitmap_and(own->bitmap.data(), children->data(), context->range);
            break;
    }
    return 0;
}

// True only for a group with no literals and no comparisons: nothing has to be looked up for it.
bool _shortcut(const frame_t& frame) {
    return frame._kw_list.empty() && frame._not_kw_list.empty() && frame._comparisons.empty();
}

// The result of a frame, `children` being what its children yielded.
int _eval_partial(conjunction_context* context, const frame_t& frame, bool exact, buffer<uint8_t>* children,
                  query_result_t* result) {
    const literal_group group = {frame._kw_list, frame._not_kw_list, frame._comparisons};
    _reset_result(result);
    if (frame._op == T_OP_AND) {
        if (_shortcut(frame)) {
            result->tsval_list_capacity = context->bufcap;
        } else {
            ST_TRY(_and_group(context, group, exact, result, nullptr, nullptr));
        }
        return frame.has_children ? fold_children(context, children, result) : 0;
    }
    result->bitmap = std::move(*children);
    if (!_shortcut(frame)) return _or_group(context, group, result);
    return result->bitmap.empty() ? _no_match_result_or(context, result) : 0;
}

// Every frame comes after its parent, so that from the last one on the children come first.
int evaluate(conjunction_context* context, const std::vector<frame_t>& frames, bool exact, query_result_t* result) {
    ST_TRY(_find_first_if_needed(context));
    if (context->range.empty()) return 0;
    ST_ASSERT(!frames.empty() && frames.front()._op == T_OP_AND);
    std::vector<buffer<uint8_t>> yields(frames.size());  // of each frame's children
    for (size_t i = frames.size() - 1; i > 0; i--) {
        const frame_t& frame = frames[i];
        ST_ASSERT(frame.parent < i && frames[frame.parent]._op != frame._op);
        query_result_t child;
        ST_TRY(_eval_partial(context, frame, exact, &yields[i], &child));
        ST_TRY((frame._op == T_OP_OR ? _merge_or2and : _merge_and2or)(context, &yields[frame.parent], &child));
    }
    return _eval_partial(context, frames.front(), exact, &yields.front(), result);
}

}  // namespace

int evaluate_query(conjunction_context* context, const parsed_query_t& query, bool exact, query_result_t* result) {
    _reset_result(result);
    context->query = &query;
    int status = 0;
    try {
        status = evaluate(context, query.frames, exact, result);
    } catch (const std::bad_alloc&) {
        status = _set_rc(&context->rc, WARM_RC_NO_MEMORY);
    }
    context->query = nullptr;
    if (status != 0) _reset_result(result);
    return status;
}

void search_annotator_write(string_builder* out, const conjunction_context* context) noexcept {
    if (context->query == nullptr) return;
    string_builder_appendz(out, "wsas->stack: [ ");
    for (const frame_t& frame : context->query->frames) {
        string_builder_appendz(out, frame._op == T_OP_AND ? "AND terms=" : "OR terms=");
        string_builder_append_decimal_u64(out, frame._kw_list.size());
        string_builder_appendz(out, " not=");
        string_builder_append_decimal_u64(out, frame._not_kw_list.size());
        string_builder_appendz(out, " comparisons=");
        string_builder_append_decimal_u64(out, frame._comparisons.size());
        string_builder_appendz(out, "; ");
    }
    string_builder_appendz(out, "] ids=");
    string_builder_append_decimal_u64(out, context->range.begin);
    string_builder_append1(out, '-');
    string_builder_append_decimal_u64(out, context->range.end);
    string_builder_append1(out, '\n');
}

int _frame2bitmap(conjunction_context* context, query_result_t* result) {
    return fold_to_bitmap(context, result);
}

}  // namespace veldar
