// Finding one term: by its text (a binary search over the first terms of the blocks, then a scan of one block) or by
// id.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "searchthing/base/timed_read.h"
#include "searchthing/base/warmslice_util.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/lexicon/fclex_internal.h"

namespace veldar {

namespace {

constexpr uint64_t PROBE_SIZE = 2050;  // a length number of up to three bytes and 2047 bytes of text
static_assert(PROBE_SIZE >= 3 + ST_MAX_TERM_LENGTH && PROBE_SIZE <= FCLEX_MAX_TERM_BYTES,
              "every block cache holds one");

// The first terms that the binary searches of one lexicon in a file have in common. A search that has gone right and
// left in a certain way always meets the same block: its way is the number of the place, 1 for the first block, 2n or
// 2n + 1 behind place n. The first ten steps have 1023 places, 64 bytes each: the length plus 1, or 0, and the term.
class top_terms {
  public:
    static bool get(const FCLEX* lex, uint64_t place, std::span<const uint8_t>* term) {
        if (place >= PLACES || lex->known_first_terms.empty()) return false;
        const uint8_t* const at = lex->known_first_terms.data() + place * PLACE_SIZE;
        if (at[0] == 0) return false;
        *term = {at + 1, at[0] - size_t{1}};
        return true;
    }
    // A term that is too long for its place, or for which there is no memory, is read again by every search.
    static void put(FCLEX* lex, uint64_t place, std::span<const uint8_t> term) {
        if (place >= PLACES || term.size() >= PLACE_SIZE) return;
        if (lex->known_first_terms.empty() && !lex->known_first_terms.alloc(PLACES * PLACE_SIZE)) return;
        uint8_t* const at = lex->known_first_terms.data() + place * PLACE_SIZE;
        at[0] = static_cast<uint8_t>(term.size() + 1);
        std::copy(term.begin(), term.end(), at + 1);
    }

  private:
    static constexpr uint64_t PLACES = 1024;
    static constexpr uint64_t PLACE_SIZE = 64;
    static_assert(PLACE_SIZE <= UINT8_MAX, "a length plus 1 fits the place's first byte");
};

// What one lookup reads. Few small reads are left of it: once few blocks are left, all their ends come with one read, and
// when these lie close together, so do the blocks; what the block cache holds serves the lookups that follow; and a
// handle that is asked again and again has the whole table of block ends.
class block_finder {
  public:
    block_finder(FCLEX* lex, st_query_info_t* stats) : lex_(lex), shape_(lex) {
        const bool in_file = fclex_in_file(lex);
        const uint8_t* table = in_file ? known_block_ends(stats) : lex->block_offsets;
        const uint64_t body = in_file ? static_cast<uint64_t>(lex->fclex_offset) : 0;
        ends_ = {lex->fd, body, shape_.blocks(), table, stats};
        blocks_offset_ = body + shape_.blocks_offset();
        piece_ = in_file ? fclex_piece{lex->block_cache, lex->cached_start, lex->cached_end} : fclex_whole(lex);
    }

    const fclex_shape& shape() const { return shape_; }

    // The first term of a block, cut to 2047 bytes, valid until the next call; the search has come to this `place`, and
    // all its further calls ask for blocks from `low` to `high`. Where the block ends does not matter.
    int first_term(uint64_t block, uint64_t low, uint64_t high, uint64_t place, std::span<const uint8_t>* term) {
        if (!fclex_in_file(lex_)) return read_first(block, low, high, term);
        if (top_terms::get(lex_, place, term)) return 0;
        ST_TRY(read_first(block, low, high, term));
        top_terms::put(lex_, place, *term);
        return 0;
    }

    // Puts the cursor at the start of a block, which is in memory until the next call. 0, WARM_RC_CORRUPT, or
    // WARM_RC_READ (with a line on standard error).
    int start_block(uint64_t block, fclex_block_cursor* cursor) {
        ST_ASSERT(block < shape_.blocks());
        const bool in_file = fclex_in_file(lex_);
        fclex_extent extent;
        if (bo_reader_get(&ends_, block, 2, &extent) != 0) return WARM_RC_READ;
        ST_TRY(fclex_check_extent(extent, in_file ? lex_->block_cache_size : UINT64_MAX));
        if (!piece_.has(extent)) {
            if (!in_file) return WARM_RC_CORRUPT;
            if (read(extent.start, extent.size()) != int64_t{extent.size()}) {
                std::fputs("error preading block from offsets\n", stderr);
                return WARM_RC_READ;
            }
        }
        const std::span<const uint8_t> bytes = piece_.from(extent).first(extent.size());
        *cursor = {bytes, bytes.data() + bytes.size(), shape_.tperb};
        return 0;
    }

  private:
    static constexpr uint64_t WINDOW_ENTRIES = 512;
    static constexpr uint64_t NEIGHBOURS = 4096;  // bytes of blocks that are read together
    static constexpr uint32_t MANY_LOOKUPS = 32;
    static constexpr uint64_t MAX_TABLE = uint64_t{1} << 20;

    int read_first(uint64_t block, uint64_t low, uint64_t high, std::span<const uint8_t>* term) {
        fclex_extent extent;
        if (high - low + 2 <= WINDOW_ENTRIES && !bo_reader_holds(ends_, block)) {
            if (bo_reader_get(&ends_, low, high - low + 2, &extent) != 0) return WARM_RC_READ;
        }
        if (bo_reader_get(&ends_, block, 2, &extent) != 0) return WARM_RC_READ;
        if (decode_first(extent, term)) return 0;
        if (!fclex_in_file(lex_)) return WARM_RC_CORRUPT;
        if (!read_all(low, high) || !decode_first(extent, term)) {
            // Always the whole probe, which may pass the end of the lexicon; a file's tail gives fewer bytes.
            ST_ASSERT(lex_->block_cache_size >= PROBE_SIZE);
            if (read(extent.start, PROBE_SIZE) < 1) return WARM_RC_READ;
        }
        return decode_first(extent, term) ? 0 : WARM_RC_CORRUPT;
    }

    // The table of a handle that has been asked often, if it is not too large and could be read.
    const uint8_t* known_block_ends(st_query_info_t* stats) const {
        const uint64_t size = 4 * shape_.blocks();
        const bool now = lex_->lookups < MANY_LOOKUPS && ++lex_->lookups == MANY_LOOKUPS;
        if (now && size <= MAX_TABLE && lex_->known_block_ends.alloc(size)) {
            const uint64_t at = static_cast<uint64_t>(lex_->fclex_offset) + FCLEX_HEADER_SIZE;
            const int64_t got = st_timed_pread_msg(lex_->fd, lex_->known_block_ends.data(), size, at, stats, false);
            if (got != static_cast<int64_t>(size)) lex_->known_block_ends.reset();
        }
        return lex_->known_block_ends.data();
    }

    // Decodes the first term of a block from what is in memory.
    bool decode_first(const fclex_extent& extent, std::span<const uint8_t>* term) const {
        if (extent.start < piece_.start || extent.start > piece_.end) return false;
        const std::span<const uint8_t> bytes = piece_.from(extent);
        uint32_t length;
        const uint32_t used = vbe_decode_bounded(&length, bytes.data(), bytes.data() + bytes.size());
        const uint32_t cut = std::min(length, ST_MAX_TERM_LENGTH);
        if (used == 0 || cut > bytes.size() - used) return false;
        *term = bytes.subspan(used, cut);
        return true;
    }

    // Reads a part of the blocks area into the block cache.
    int64_t read(uint64_t start, uint64_t size) {
        const int64_t got =
            fclex_read_piece(&piece_, lex_->fd, blocks_offset_, start, size, lex_->block_cache, ends_.stats);
        lex_->cached_start = piece_.start;
        lex_->cached_end = piece_.end;
        return got;
    }

    // Reads the blocks from `low` to `high` when they are known to lie close together.
    bool read_all(uint64_t low, uint64_t high) {
        if (!bo_reader_holds(ends_, low) || !bo_reader_holds(ends_, high)) return false;
        const uint32_t start = bo_reader_extent(ends_, low).start;
        const uint32_t end = bo_reader_extent(ends_, high).end;
        if (end < start || end - start > std::min(NEIGHBOURS, lex_->block_cache_size)) return false;
        return read(start, end - start) > 0;
    }

    FCLEX* lex_;
    fclex_shape shape_;
    bo_reader_t ends_;
    uint64_t blocks_offset_ = 0;  // in the file
    fclex_piece piece_;           // in memory
};

// The search key of a text. Stored terms are compared on their first 2047 bytes, so no more of a key ever counts.
std::span<const uint8_t> key_of(const char* text) {
    return fclex_bytes(text, ::strnlen(text, ST_MAX_TERM_LENGTH));
}

// Orders a stored term against a key as strcmp would: a NUL byte inside a (foreign) term ends it.
int compare(std::span<const uint8_t> term, std::span<const uint8_t> key) {
    const size_t common = std::min(term.size(), key.size());
    if (common != 0) {
        if (const int order = std::memcmp(term.data(), key.data(), common); order != 0) return order;
    }
    if (term.size() < key.size()) return -1;
    return term.size() > key.size() && term[key.size()] != 0 ? 1 : 0;
}

// The position of the term of a block that equals the key, WARM_RC_NOT_FOUND, or as fclex_next_entry. A term that shares
// more with the one before than the key does differs from the key where that one does.
int64_t scan_for_key(fclex_block_cursor* cursor, uint32_t terms, std::span<const uint8_t> key) {
    uint32_t matched = 0;  // leading bytes that the key shares with the term before
    for (uint32_t position = 0; position < terms; position++) {
        fclex_entry entry;
        ST_TRY(fclex_next_entry(cursor, &entry));
        cursor->length = std::min(entry.shared + entry.rest, ST_MAX_TERM_LENGTH);
        if (entry.shared > matched) continue;
        const std::span<const uint8_t> rest = {entry.text, cursor->length - entry.shared};
        const uint32_t more = _lcp(rest, key.subspan(entry.shared));
        matched = entry.shared + more;
        if (matched == key.size() && (more == rest.size() || rest[more] == 0)) return position;
    }
    return WARM_RC_NOT_FOUND;
}

int64_t find_block(block_finder* finder, const char* text, warm_rc_t* rc) {
    const uint64_t block_count = finder->shape().blocks();
    if (block_count == 1) return 0;
    const std::span<const uint8_t> key = key_of(text);
    uint64_t low = 0, high = block_count - 1;
    for (uint64_t place = 1;;) {
        const bool last_step = low + 1 == high;
        const uint64_t middle = last_step ? high : low + (high - low) / 2;
        std::span<const uint8_t> term;
        if (const int status = finder->first_term(middle, low, high, place, &term); status != 0) {
            _set_rc_msg(rc, status, "cannot read the first term of a block");
            return WARM_RC_FAILED;
        }
        const int order = compare(term, key);
        if (last_step) return static_cast<int64_t>(order > 0 ? low : high);
        if (order == 0) return static_cast<int64_t>(middle);
        (order > 0 ? high : low) = middle;
        place = 2 * place + (order > 0 ? 0 : 1);
    }
}

// A text's id, or what st_fclex_get reports; `rc` tells an absent term from an unreadable one.
int64_t lookup_text(FCLEX* lex, const char* text, st_query_info_t* stats, warm_rc_t* rc) {
    fclex_check(lex);
    block_finder finder(lex, stats);
    const int64_t block = *text == '\0' ? 0 : find_block(&finder, text, rc);
    if (block < 0) return WARM_RC_FAILED;
    fclex_block_cursor cursor;
    if (const int status = finder.start_block(static_cast<uint64_t>(block), &cursor); status != 0) {
        _set_rc_msg(rc, status, "cannot fetch a block");
        return WARM_RC_READ;
    }
    const int64_t position = scan_for_key(&cursor, finder.shape().terms_in(static_cast<uint64_t>(block)), key_of(text));
    if (position == WARM_RC_NOT_FOUND) return _set_rc(rc, WARM_RC_NOT_FOUND), WARM_RC_FAILED;
    if (position < 0) {
        _set_rc_msg(rc, WARM_RC_CORRUPT, "cannot decode a term");
        return position;
    }
    _set_rc(rc, 0);
    return block * finder.shape().tperb + position;
}

}  // namespace

int64_t _find_block(FCLEX* lex, const char* text, st_query_info_t* stats, warm_rc_t* rc) {
    fclex_check(lex);
    block_finder finder(lex, stats);
    return find_block(&finder, text, rc);
}

int32_t st_fclex_get(FCLEX* lex, const char* text, st_query_info_t* stats) {
    if (lex == nullptr || text == nullptr) return WARM_RC_FAILED;
    warm_rc_t rc;
    return static_cast<int32_t>(lookup_text(lex, text, stats, &rc));
}

int _fclex_get_with_status(FCLEX* lex, const char* text, uint32_t* id, st_query_info_t* stats, warm_rc_t* rc) {
    if (lex == nullptr) return _set_rc(rc, WARM_RC_NO_LEXICON);
    if (text == nullptr) return _set_rc(rc, WARM_RC_INVALID_ARGUMENT);
    const int64_t found = lookup_text(lex, text, stats, rc);
    if (found >= 0) *id = static_cast<uint32_t>(found);
    return rc->warm_rc;
}

int st_fclex_get_term_from_id(FCLEX* lex, uint32_t id, char* out, size_t out_size, st_query_info_t* stats,
                              warm_rc_t* rc) {
    fclex_check(lex);
    if (id >= st_fclex_terms(lex)) return _set_rc_msg(rc, WARM_RC_CAPACITY, "term id out of range");
    if (out_size < ST_TERM_BUFFER_SIZE) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "term buffer too small");
    block_finder finder(lex, stats);
    const uint32_t tperb = finder.shape().tperb;
    fclex_block_cursor cursor;
    if (finder.start_block(id / tperb, &cursor) != 0) return _set_rc_msg(rc, WARM_RC_READ, "cannot get block from id");
    fclex_text text = {};
    fclex_entry entry;
    for (uint32_t j = 0; j <= id % tperb; j++) {
        if (fclex_next_term(&cursor, &entry, text) != 0) return _set_rc_msg(rc, WARM_RC_NOT_FOUND, "find word failed");
    }
    std::memcpy(out, text, cursor.length + size_t{1});
    return _set_rc(rc, 0);
}

}  // namespace veldar
