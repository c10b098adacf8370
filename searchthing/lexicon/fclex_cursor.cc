#include "searchthing/lexicon/fclex_cursor.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "searchthing/lexicon/fclex_walker_internal.h"

namespace veldar {

namespace {

constexpr uint64_t MIN_PIECE = 4096;

fclex_stream_sizes sizes_within(uint64_t piece_bytes) {
    const uint64_t largest = std::clamp(piece_bytes, MIN_PIECE, FCLEX_MAX_PIECE);
    return {std::max(largest / 16, MIN_PIECE), largest};
}

}  // namespace

struct fclex_cursor_t {
    std::string prefix, after;
    bool passed;  // `after`
    fclex_walker walker;
};

void fclex_cursor_closer::operator()(fclex_cursor_t* cursor) const {
    delete cursor;
}

fclex_cursor_ptr fclex_cursor_open(FCLEX* lex, const char* prefix, const char* after, std::string_view infix,
                                   uint64_t piece_bytes, st_query_info_t* stats, warm_rc_t* rc) {
    if (lex == nullptr) {
        _set_rc_msg(rc, WARM_RC_NO_LEXICON, "no lexicon");
        return nullptr;
    }
    fclex_check(lex);
    if (prefix == nullptr) prefix = "";
    int64_t first_block = 0;
    const char* const start = after != nullptr && std::strcmp(after, prefix) > 0 ? after : prefix;
    if (*start != '\0') first_block = _find_block(lex, start, stats, rc);
    if (first_block < 0) return nullptr;
    try {
        return fclex_cursor_ptr(new fclex_cursor_t{
            .prefix = prefix,
            .after = after == nullptr ? "" : after,
            .passed = after == nullptr,
            .walker = {lex, static_cast<uint64_t>(first_block), infix, sizes_within(piece_bytes), stats}});
    } catch (const std::bad_alloc&) {
        _set_rc(rc, WARM_RC_NO_MEMORY);
        return nullptr;
    }
}

int fclex_cursor_next(fclex_cursor_t* cursor, fclex_cursor_term_t* term, warm_rc_t* rc) {
    fclex_walker& walker = cursor->walker;
    *term = {};
    for (;;) {
        const int status = walker.next(cursor->prefix);
        if (status == WARM_RC_READ || status == WARM_RC_NO_MEMORY) {
            return _set_rc_msg(rc, status, "reading a lexicon block");
        }
        if (status != 0) return _set_rc_verbose(rc, WARM_RC_CORRUPT, walker.id(), "lexicon block is damaged");
        if (walker.at_end()) return 0;
        if (!cursor->passed && std::strcmp(walker.text(), cursor->after.c_str()) <= 0) continue;
        cursor->passed = true;
        *term = {.id = walker.id(), .length = walker.length(), .text = walker.text()};
        return 0;
    }
}

}  // namespace veldar
