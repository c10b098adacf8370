// The values of one slice of events that a selection counts, and the posting lists that say which of them have a term.
#pragma once

#include <algorithm>
#include <vector>

#include "libzero/assertions.h"
#include "libzero/resource.h"
#include "searchthing/postings/plist.h"
#include "searchthing/postings/range_bitmap.h"
#include "searchthing/search/select_internal.h"

namespace veldar {

// The match of the query without deleted values.
struct select_match_t {
    id_range_t range;  // holds every match
    buffer<uint8_t> bits;
    uint64_t count = 0;
    bool is_slice = false;               // it is every value of the slice
    std::vector<uint32_t> ids;           // the matches, if they are few
    st_time_t earliest = 0, latest = 0;  // of the matches

    bool has(uint32_t id) const {
        const uint32_t bit = id - range.begin;
        return (bits.data()[bit / 8] >> (bit % 8) & 1) != 0;
    }
};
// Evaluates the query; may throw std::bad_alloc.
[[nodiscard]] int select_match_open(const selection_t& selection, select_match_t* match, warm_rc_t* rc);

// Calls fn(id) for every bit of `bits` from number `begin` to `end` - 1, ascending; bit 0 is number `first`.
template <typename Fn>
void select_each_bit(const uint8_t* bits, uint32_t first, uint32_t begin, uint32_t end, Fn fn) {
    if (begin >= end) return;
    const uint32_t stop = end - first;
    for (uint32_t byte = (begin - first) / 8; byte * 8 < stop; byte += 8) {
        const uint32_t bytes = std::min(8u, (stop + 7) / 8 - byte);
        uint64_t word = 0;
        for (uint32_t i = 0; i < bytes; i++) word |= uint64_t{bits[byte + i]} << (8 * i);
        for (; word != 0; word &= word - 1) {
            const uint32_t id = first + byte * 8 + static_cast<uint32_t>(__builtin_ctzll(word));
            if (id >= end) return;
            if (id >= begin) fn(id);
        }
    }
}

// The first bit set from number `begin` on, `end` when there is none.
uint32_t select_next_bit(const uint8_t* bits, uint32_t first, uint32_t begin, uint32_t end);
// How many of the bits `begin` to `end` - 1 are set.
uint64_t select_count_bits(const uint8_t* bits, uint64_t begin, uint64_t end);

// Reads the lists of one slice, at its matches.
class select_lists {
  public:
    select_lists(const selection_t& selection, const select_match_t& match) : selection_(selection), match_(match) {}
    select_lists(const select_lists&) = delete;
    select_lists& operator=(const select_lists&) = delete;
    ~select_lists() {
        if (is_open_) close_plist_reader(&reader_);
    }

    // Whether a term can have a match, as its metadata tell, and how many values its list has. 0 or a status.
    [[nodiscard]] int look_up(uint32_t term, bool* is_possible, uint32_t* count, warm_rc_t* rc);
    // How many matches of each stretch the term has, added to `counts`. The stretches ascend and hold all matches.
    [[nodiscard]] int count(uint32_t term, uint32_t list_count, std::span<const select_stretch_t> stretches,
                            uint64_t* counts, warm_rc_t* rc);
    // Calls fn(id) for every match of the term in [begin, end), ascending. 0 or a status.
    template <typename Fn>
    [[nodiscard]] int each(uint32_t term, uint32_t list_count, uint32_t begin, uint32_t end, Fn fn, warm_rc_t* rc);

  private:
    static constexpr uint32_t COPIED = 1024;

    // Positions the reader on a list, or has its bits at hand in `kept_`.
    [[nodiscard]] int position(uint32_t term, uint32_t list_count, warm_rc_t* rc);
    // `each` for the list that was positioned on.
    template <typename Fn>
    [[nodiscard]] int each_here(uint32_t list_count, uint32_t begin, uint32_t end, Fn fn, warm_rc_t* rc);
    bool is_dense(uint32_t list_count) const { return !kept_.empty() || list_count >= match_.range.size() / 32; }
    // Of a bitmap the chunks that hold a match are read and only those; gaps are passed eight at a time.
    bool is_probed(uint32_t list_count) const {
        if (match_.ids.empty() || !kept_.empty()) return !match_.ids.empty();
        const bool is_bitmap = reader_.plo_type == PLO_BMAP;
        return match_.ids.size() <= (is_bitmap ? match_.range.size() / 2048 : list_count / 8);
    }
    // Fills `dense_` with the term's matches of [begin, end); bit 0 is number `begin`, which begins a byte of the match.
    [[nodiscard]] int read_dense(uint32_t begin, uint32_t end, warm_rc_t* rc);

    const selection_t& selection_;
    const select_match_t& match_;
    plist_reader reader_;
    bool is_open_ = false;
    std::span<const uint8_t> kept_;  // the list's bits over all values; empty: the reader has the list
    buffer<uint8_t> dense_;          // has room for the match's range
    uint32_t copied_[COPIED];
};

template <typename Fn>
int select_lists::each(uint32_t term, uint32_t list_count, uint32_t begin, uint32_t end, Fn fn, warm_rc_t* rc) {
    ST_ASSERT(match_.range.begin <= begin && end <= match_.range.end);
    ST_TRY(position(term, list_count, rc));
    return each_here(list_count, begin, end, fn, rc);
}

template <typename Fn>
int select_lists::each_here(uint32_t list_count, uint32_t begin, uint32_t end, Fn fn, warm_rc_t* rc) {
    if (is_probed(list_count)) {
        selection_.report->lists_probed++;
        const auto first = std::lower_bound(match_.ids.begin(), match_.ids.end(), begin);
        if (!kept_.empty()) {
            for (auto at = first; at != match_.ids.end() && *at < end; ++at) {
                if ((kept_[*at / 8] >> (*at % 8) & 1) != 0) fn(*at);
            }
            return 0;
        }
        uint32_t found = 0;
        for (auto at = first; at != match_.ids.end() && *at < end; ++at) {
            if (found < *at || at == first) ST_TRY(_seek(&reader_, *at, &found, rc));
            if (found == *at) fn(*at);
        }
        return 0;
    }
    if (is_dense(list_count)) {
        selection_.report->lists_counted++;
        ST_TRY(read_dense(begin, end, rc));
        select_each_bit(dense_.data(), begin, begin, end, fn);
        return 0;
    }
    selection_.report->lists_decoded++;
    uint32_t id = 0, copied = 0;
    ST_TRY(_seek(&reader_, begin, &id, rc));
    if (id >= end) return 0;
    if (match_.has(id)) fn(id);
    do {
        ST_TRY(plist_copy(&reader_, copied_, COPIED, end, &copied, rc));
        for (uint32_t i = 0; i < copied; i++) {
            if (match_.has(copied_[i])) fn(copied_[i]);
        }
    } while (copied == COPIED);
    return 0;
}

}  // namespace veldar
