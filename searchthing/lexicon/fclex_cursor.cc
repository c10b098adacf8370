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
        : lex(lexicon),
          prefix(wanted),
          after(behind == nullptr ? "" : behind),
          passed(behind == nullptr),
          stream(lexicon, first_block, sizes_within(piece_bytes), stats),
          next_block(first_block) {}

    FCLEX* lex;
    std::string prefix, after;
    bool passed;  // `after`
    fclex_block_stream stream;
    uint64_t next_block;
    fclex_block_cursor block;
    uint32_t id = 0;
    uint32_t left_in_block = 0;
    char text[ST_TERM_BUFFER_SIZE] = {};
};

namespace {

int start_next_block(fclex_cursor_t* cursor, warm_rc_t* rc) {
    std::span<const uint8_t> bytes;
    const uint8_t* readable;
    if (const int status = cursor->stream.next(&bytes, &readable); status != 0) {
        return _set_rc_msg(rc, status == WARM_RC_NO_MEMORY ? status : WARM_RC_READ, "reading a lexicon block");
    }
    cursor->block = fclex_start_block(bytes, readable, fclex_tperb(cursor->lex));
    cursor->left_in_block = fclex_terms_in_block(cursor->lex, cursor->next_block);
    cursor->id = static_cast<uint32_t>(cursor->next_block * fclex_tperb(cursor->lex));
    cursor->next_block++;
    return 0;
}

}  // namespace

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
    for (;;) {
        *term = {};
        if (cursor->left_in_block == 0) {
            if (cursor->next_block == fclex_block_count(cursor->lex)) return 0;
            ST_TRY(start_next_block(cursor, rc));
        }
        if (fclex_next_term(&cursor->block, cursor->text) != 0) {
            return _set_rc_verbose(rc, WARM_RC_CORRUPT, cursor->id, "lexicon block is damaged");
        }
        cursor->left_in_block--;
        const uint32_t id = cursor->id++;
        const int order = prefix_length == 0 ? 0 : std::strncmp(cursor->text, cursor->prefix.c_str(), prefix_length);
        if (order < 0) continue;
        if (order > 0) {  // nothing behind it begins with the prefix
            cursor->left_in_block = 0;
            cursor->next_block = fclex_block_count(cursor->lex);
            return 0;
        }
        if (!cursor->passed && std::strcmp(cursor->text, cursor->after.c_str()) <= 0) continue;
        cursor->passed = true;
        *term = {.id = id, .length = cursor->block.length, .text = cursor->text};
        return 0;
    }
}

}  // namespace veldar
