#include "searchthing/lexicon/fclex_cursor.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "searchthing/lexicon/fclex_stream_internal.h"

namespace veldar {

namespace {

constexpr uint64_t MIN_PIECE = 4096;

fclex_stream_sizes sizes_within(uint64_t piece_bytes) {
    const uint64_t largest = std::clamp(piece_bytes, MIN_PIECE, FCLEX_MAX_PIECE);
    return {std::max(largest / 16, MIN_PIECE), largest};
}

}  // namespace

struct fclex_cursor_t {
    fclex_cursor_t(FCLEX* lexicon, const char* wanted, const char* behind, uint64_t first_block, uint64_t piece_bytes,
                   st_query_info_t* stats)
        : prefix(wanted),
          after(behind == nullptr ? "" : behind),
          passed(behind == nullptr),
          walker(lexicon, first_block, sizes_within(piece_bytes), stats) {}

    std::string prefix, after;
    bool passed;  // `after`
    fclex_walker walker;
    fclex_block_cursor block;
    uint32_t position = 0;  // of the next term in its block
    char text[ST_TERM_BUFFER_SIZE] = {};
};

void fclex_cursor_closer::operator()(fclex_cursor_t* cursor) const {
    delete cursor;
}

fclex_cursor_ptr fclex_cursor_open(FCLEX* lex, const char* prefix, const char* after, uint64_t piece_bytes,
                                   st_query_info_t* stats, warm_rc_t* rc) {
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
        return fclex_cursor_ptr(
            new fclex_cursor_t(lex, prefix, after, static_cast<uint64_t>(first_block), piece_bytes, stats));
    } catch (const std::bad_alloc&) {
        _set_rc(rc, WARM_RC_NO_MEMORY);
        return nullptr;
    }
}

int fclex_cursor_next(fclex_cursor_t* cursor, fclex_cursor_term_t* term, warm_rc_t* rc) {
    const size_t prefix_length = cursor->prefix.size();
    fclex_walker& walker = cursor->walker;
    for (;;) {
        *term = {};
        if (cursor->position == walker.terms) {
            if (walker.next_block == walker.block_count) return 0;
            if (const int status = walker.start_block(&cursor->block))
                return _set_rc_msg(rc, status, "reading a lexicon block");
            cursor->position = 0;
        }
        const uint32_t id = walker.first_id + cursor->position++;
        if (fclex_next_term(&cursor->block, cursor->text) != 0) {
            return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "lexicon block is damaged");
        }
        const int order = prefix_length == 0 ? 0 : std::strncmp(cursor->text, cursor->prefix.c_str(), prefix_length);
        if (order < 0) continue;
        if (order > 0) {  // nothing behind it begins with the prefix
            cursor->position = walker.terms;
            walker.next_block = walker.block_count;
            return 0;
        }
        if (!cursor->passed && std::strcmp(cursor->text, cursor->after.c_str()) <= 0) continue;
        cursor->passed = true;
        *term = {.id = id, .length = cursor->block.length, .text = cursor->text};
        return 0;
    }
}

}  // namespace veldar
