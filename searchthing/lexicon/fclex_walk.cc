// The ordered walk over a lexicon, and the prefix enumeration on top of it.
#include <algorithm>
#include <cstring>

#include "searchthing/lexicon/fclex.h"
#include "searchthing/lexicon/fclex_internal.h"
#include "searchthing/lexicon/fclex_stream_internal.h"

namespace veldar {

namespace {

// A walk over everything reads up to 128 KiB of blocks at a time, as many as a run of block ends tells. One behind a
// prefix usually ends within a few blocks: it begins with pieces of a sixteenth of that and doubles them as it goes on.
constexpr fclex_stream_sizes WHOLE = {FCLEX_MAX_PIECE, FCLEX_MAX_PIECE};
constexpr fclex_stream_sizes BEHIND_PREFIX = {FCLEX_MAX_PIECE / 16, FCLEX_MAX_PIECE};

// Calls `visit(id, text, length)` for every term from a block on until it returns false. 0, or why the walk failed.
template <typename Visit>
int walk(FCLEX* lex, uint64_t first_block, bool whole, st_query_info_t* stats, Visit visit) {
    fclex_walker walker(lex, first_block, whole ? WHOLE : BEHIND_PREFIX, stats);
    char text[ST_TERM_BUFFER_SIZE];
    text[0] = '\0';
    while (walker.next_block < walker.block_count) {
        fclex_block_cursor cursor;
        ST_TRY(walker.start_block(&cursor));
        const uint32_t first_id = walker.first_id, terms = walker.terms;
        for (uint32_t j = 0; j < terms; j++) {
            ST_TRY(fclex_next_term(&cursor, text));
            if (!visit(first_id + j, text, cursor.length)) return 0;
        }
    }
    return 0;
}

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
    if (lex == nullptr) return WARM_RC_NO_LEXICON;
    fclex_check(lex);
    int64_t total = 0;
    bool stopped = false;
    const auto call = [&](uint32_t id, const char* text, size_t length) {
        const int result = fn(static_cast<int32_t>(id), text, length, context);
        stopped = result == -1;
        if (!stopped) total += result;
        return !stopped;
    };

    int status = 0;
    if (prefix == nullptr || *prefix == '\0') {
        status = walk(lex, 0, true, stats, call);
    } else {
        warm_rc_t rc;
        const int64_t block = _find_block(lex, prefix, stats, &rc);
        if (block < 0) return rc.warm_rc;
        const size_t prefix_length = std::strlen(prefix);
        const auto call_if_prefixed = [&](uint32_t id, const char* text, size_t length) {
            const int order = std::strncmp(text, prefix, prefix_length);
            return order < 0 || (order == 0 && call(id, text, length));
        };
        status = walk(lex, static_cast<uint64_t>(block), false, stats, call_if_prefixed);
    }
    if (status != 0) return status;
    return stopped ? -1 : total;
}

int st_fclex_enum(FCLEX* lex, const char* prefix, st_enum_answer* answers, uint32_t capacity, bool case_flag) {
    if (prefix == nullptr) prefix = "";
    enum_context context = {answers, capacity};
    const size_t length = std::strlen(prefix);
    if (case_flag && length < ST_MAX_TERM_LENGTH) {
        char blank_prefix[ST_TERM_BUFFER_SIZE];
        blank_prefix[0] = ' ';
        std::memcpy(blank_prefix + 1, prefix, length + 1);
        context.skip = 1;
        st_fclex_apply(lex, blank_prefix, store_term, &context, nullptr);
        if (context.upper_case) return static_cast<int>(context.count);
    }
    context = {answers, capacity};
    st_fclex_apply(lex, prefix, store_term, &context, nullptr);
    return static_cast<int>(context.count);
}

}  // namespace veldar
