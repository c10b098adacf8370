// Finding one term: by its text (a binary search over the first terms of the blocks, then a scan of one block) or by
// id.
#include <algorithm>
#include <cstring>

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
// 2n + 1 behind place n. The first seven steps have 127 places, 64 bytes each: the length plus 1, or 0, and the term.
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
    static constexpr uint64_t PLACES = 128;
    static constexpr uint64_t PLACE_SIZE = 64;
    static_assert(PLACE_SIZE <= UINT8_MAX, "a length plus 1 fits the place's first byte");
};

// Reads the first terms of blocks for one binary search. Two things save a file most of the small reads: once few
// blocks are left, all their offsets come with one read, and a probe often holds the blocks behind the one it was made
// for.
class first_term_reader {
  public:
    first_term_reader(FCLEX* lex, st_query_info_t* stats)
        : lex_(lex), ends_(lex->fd, static_cast<uint64_t>(lex->fclex_offset), fclex_block_count(lex), stats) {}

    // The first term of a block, cut to 2047 bytes, valid until the next call. All further calls of the search ask for
    // blocks from `low` to `high`. Where the block ends does not matter.
    int read(uint64_t block, uint64_t low, uint64_t high, std::span<const uint8_t>* term) {
        std::span<const uint8_t> bytes;
        if (!fclex_in_file(lex_)) {
            ST_TRY(from_memory(block, &bytes));
            return decode(bytes, term) ? 0 : WARM_RC_CORRUPT;
        }
        fclex_extent extent;
        const bool few = high - low + 2 <= WINDOW_ENTRIES && !bo_reader_holds(ends_, block);
        if (few && bo_reader_get(&ends_, low, high - low + 2, &extent) != 0) return WARM_RC_READ;
        if (bo_reader_get(&ends_, block, 2, &extent) != 0) return WARM_RC_READ;
        if (extent.start >= probe_start_ && extent.end <= probe_end_ && decode(probed(extent), term)) return 0;
        ST_TRY(probe(extent));
        return decode(probed(extent), term) ? 0 : WARM_RC_CORRUPT;
    }

  private:
    static constexpr uint64_t WINDOW_ENTRIES = 512;

    static bool decode(std::span<const uint8_t> bytes, std::span<const uint8_t>* term) {
        uint32_t length;
        const uint32_t used = vbe_decode_bounded(&length, bytes.data(), bytes.data() + bytes.size());
        const uint32_t cut = std::min(length, ST_MAX_TERM_LENGTH);
        if (used == 0 || cut > bytes.size() - used) return false;
        *term = bytes.subspan(used, cut);
        return true;
    }

    // A body without a limit has nothing but the block's end to say where its bytes end.
    int from_memory(uint64_t block, std::span<const uint8_t>* bytes) const {
        if (lex_->body_limit == 0) return fclex_block_in_memory(lex_, block, bytes);
        const uint32_t start = fclex_extent_at(lex_->block_offsets + 4 * block, block).start;
        const uint64_t at = static_cast<uint64_t>(lex_->blocks - lex_->body) + start;
        if (at > lex_->body_limit) return WARM_RC_CORRUPT;
        *bytes = {lex_->body + at, lex_->body_limit - at};
        return 0;
    }

    // Reads the bytes at the start of a block into the block cache. Always the whole probe, which may pass the end of
    // the lexicon; a file's tail gives fewer bytes.
    int probe(const fclex_extent& extent) {
        ST_ASSERT(lex_->block_cache_size >= PROBE_SIZE);
        const uint64_t blocks = fclex_blocks_offset(fclex_block_count(lex_));
        const uint64_t at = static_cast<uint64_t>(lex_->fclex_offset) + blocks + extent.start;
        const int64_t got = st_timed_pread_msg(lex_->fd, lex_->block_cache, PROBE_SIZE, at, ends_.stats, false);
        probe_start_ = extent.start;
        probe_end_ = extent.start + (got < 0 ? 0 : static_cast<uint64_t>(got));
        return got < 1 ? WARM_RC_READ : 0;
    }

    // What the probe holds from the start of a block on.
    std::span<const uint8_t> probed(const fclex_extent& extent) const {
        if (extent.start > probe_end_) return {};
        return {lex_->block_cache + (extent.start - probe_start_), probe_end_ - extent.start};
    }

    FCLEX* lex_;
    bo_reader_t ends_;
    uint64_t probe_start_ = 0, probe_end_ = 0;  // in the blocks area
};

// The id of a text. The result is what st_fclex_get reports; `rc` tells an absent term from an unreadable one.
int64_t lookup_text(FCLEX* lex, const char* text, st_query_info_t* stats, warm_rc_t* rc) {
    fclex_check(lex);
    const int64_t block = *text == '\0' ? 0 : _find_block(lex, text, stats, rc);
    if (block < 0) return WARM_RC_FAILED;
    char term[ST_TERM_BUFFER_SIZE];
    const int64_t position =
        _find_word(lex, static_cast<uint64_t>(block), LOOKUP_BY_TEXT, {.text = text}, term, sizeof term, stats, rc);
    return position < 0 ? position : block * fclex_tperb(lex) + position;
}

}  // namespace

std::span<const uint8_t> fclex_key(const char* text) {
    return {reinterpret_cast<const uint8_t*>(text), ::strnlen(text, ST_MAX_TERM_LENGTH)};
}

int fclex_compare(std::span<const uint8_t> term, std::span<const uint8_t> key) {
    const size_t common = std::min(term.size(), key.size());
    if (common != 0) {
        if (const int order = std::memcmp(term.data(), key.data(), common); order != 0) return order;
    }
    if (term.size() < key.size()) return -1;
    return term.size() > key.size() && term[key.size()] != 0 ? 1 : 0;
}

int64_t _find_block(FCLEX* lex, const char* text, st_query_info_t* stats, warm_rc_t* rc) {
    fclex_check(lex);
    const uint64_t block_count = fclex_block_count(lex);
    if (block_count == 1) return 0;
    const std::span<const uint8_t> key = fclex_key(text);
    first_term_reader first_terms(lex, stats);
    uint64_t low = 0, high = block_count - 1;
    for (uint64_t place = 1;;) {
        const bool last_step = low + 1 == high;
        const uint64_t middle = last_step ? high : low + (high - low) / 2;
        std::span<const uint8_t> term;
        if (!top_terms::get(lex, place, &term)) {
            if (const int status = first_terms.read(middle, low, high, &term); status != 0) {
                _set_rc_msg(rc, status, "cannot read the first term of a block");
                return WARM_RC_FAILED;
            }
            if (fclex_in_file(lex)) top_terms::put(lex, place, term);
        }
        const int order = fclex_compare(term, key);
        if (last_step) return static_cast<int64_t>(order > 0 ? low : high);
        if (order == 0) return static_cast<int64_t>(middle);
        (order > 0 ? high : low) = middle;
        place = 2 * place + (order > 0 ? 0 : 1);
    }
}

int64_t _find_word(FCLEX* lex, uint64_t block, lookup_type_t type, criteria_u criterion, char* out, size_t out_size,
                   st_query_info_t* stats, warm_rc_t* rc) {
    if (out_size < ST_TERM_BUFFER_SIZE) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "term buffer too small");
    std::span<const uint8_t> bytes;
    if (const int status = fclex_fetch_block(lex, block, stats, &bytes); status != 0) {
        _set_rc_msg(rc, status, "cannot fetch a block");
        return WARM_RC_READ;
    }
    const std::span<const uint8_t> key =
        type == LOOKUP_BY_TEXT ? fclex_key(criterion.text) : std::span<const uint8_t>{};
    const uint32_t terms = fclex_terms_in_block(lex, block);
    fclex_block_cursor cursor = fclex_start_block(bytes, bytes.data() + bytes.size(), fclex_tperb(lex));
    for (uint32_t j = 0; j < terms; j++) {
        if (const int status = fclex_next_term(&cursor, out); status != 0) {
            _set_rc_msg(rc, WARM_RC_CORRUPT, "cannot decode a term");
            return status;
        }
        const bool found = type == LOOKUP_BY_POSITION
                               ? j == criterion.position
                               : fclex_compare({reinterpret_cast<const uint8_t*>(out), cursor.length}, key) == 0;
        if (found) {
            _set_rc(rc, 0);
            return j;
        }
    }
    _set_rc(rc, WARM_RC_NOT_FOUND);
    return WARM_RC_FAILED;
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
    const uint32_t tperb = fclex_tperb(lex);
    const int64_t position =
        _find_word(lex, id / tperb, LOOKUP_BY_POSITION, {.position = id % tperb}, out, out_size, stats, rc);
    if (position >= 0 || position == WARM_RC_INVALID_ARGUMENT) return rc->warm_rc;
    if (position == WARM_RC_READ) return _set_rc_msg(rc, WARM_RC_READ, "cannot get block from id");
    return _set_rc_msg(rc, WARM_RC_NOT_FOUND, "find word failed");
}

}  // namespace veldar
