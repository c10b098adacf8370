// The ordered walk over a lexicon, and the prefix enumeration on top of it.
#include <algorithm>
#include <cstring>

#include "searchthing/lexicon/fclex.h"
#include "searchthing/lexicon/fclex_internal.h"
#include "searchthing/lexicon/fclex_walker_internal.h"

namespace veldar {

namespace {

// A walk over everything reads up to 128 KiB of blocks at a time, as many as a run of block ends tells. One behind a
// prefix usually ends within a few blocks: it begins with pieces of a sixteenth of that and doubles them as it goes on.
constexpr fclex_stream_sizes WHOLE = {FCLEX_MAX_PIECE, FCLEX_MAX_PIECE};
constexpr fclex_stream_sizes BEHIND_PREFIX = {FCLEX_MAX_PIECE / 16, FCLEX_MAX_PIECE};

struct enum_context {
    st_enum_answer* answers;
    uint32_t capacity;
    uint32_t count = 0;
    bool upper_case = false;
    uint32_t skip = 0;  // bytes of each term that are left out: 1 behind a blank
};

int store_term(int32_t id, const char* term, size_t length, void* opaque) {
    auto* context = static_cast<enum_context*>(opaque);
    if (context->count == context->capacity) return -1;
    st_enum_answer* answer = &context->answers[context->count++];
    const char* const end = term + length;
    term += context->skip;
    std::memcpy(answer->term, term, static_cast<size_t>(end - term) + 1);
    answer->id = static_cast<uint32_t>(id);
    context->upper_case |= std::any_of(term, end, [](char c) { return c >= 'A' && c <= 'Z'; });
    return 1;
}

}  // namespace

int64_t st_fclex_apply(FCLEX* lex, const char* prefix, st_term_fn fn, void* context, st_query_info_t* stats) {
    return fclex_apply_holding(lex, prefix, {}, fn, context, stats);
}

int64_t fclex_apply_holding(FCLEX* lex, const char* prefix, std::string_view infix, st_term_fn fn, void* context,
                            st_query_info_t* stats) {
    if (lex == nullptr) return WARM_RC_NO_LEXICON;
    fclex_check(lex);
    const std::string_view start = prefix == nullptr ? "" : prefix;
    int64_t first_block = 0;
    if (!start.empty()) {
        warm_rc_t rc;
        first_block = _find_block(lex, prefix, stats, &rc);
        if (first_block < 0) return rc.warm_rc;
    }
    fclex_walker walker(lex, static_cast<uint64_t>(first_block), infix, start.empty() ? WHOLE : BEHIND_PREFIX, stats);
    int64_t total = 0;
    for (;;) {
        ST_TRY(walker.next(start));
        if (walker.at_end()) return total;
        const int result = fn(static_cast<int32_t>(walker.id()), walker.text(), walker.length(), context);
        if (result == -1) return -1;
        total += result;
    }
}

int fclex_enum_told(FCLEX* lex, const char* prefix, st_enum_answer* answers, uint32_t capacity, bool case_flag,
                    uint32_t* count) {
    if (prefix == nullptr) prefix = "";
    enum_context context = {answers, capacity};
    // The walk ends with -1 where there is no more room, and at one kind of damage.
    const auto walk = [&](const char* start) {
        const int64_t total = st_fclex_apply(lex, start, store_term, &context, nullptr);
        *count = context.count;
        if (total >= 0 || (total == -1 && context.count == capacity)) return 0;
        return total == -1 ? static_cast<int>(WARM_RC_CORRUPT) : static_cast<int>(total);
    };
    const size_t length = std::strlen(prefix);
    int failure = 0;
    if (case_flag && length < ST_MAX_TERM_LENGTH) {
        char blank_prefix[ST_TERM_BUFFER_SIZE];
        blank_prefix[0] = ' ';
        std::memcpy(blank_prefix + 1, prefix, length + 1);
        context.skip = 1;
        failure = walk(blank_prefix);
        if (context.upper_case) return failure;
    }
    context = {answers, capacity};
    const int status = walk(prefix);
    return failure != 0 ? failure : status;
}

int st_fclex_enum(FCLEX* lex, const char* prefix, st_enum_answer* answers, uint32_t capacity, bool case_flag) {
    uint32_t count = 0;
    static_cast<void>(fclex_enum_told(lex, prefix, answers, capacity, case_flag, &count));
    return static_cast<int>(count);
}

}  // namespace veldar
