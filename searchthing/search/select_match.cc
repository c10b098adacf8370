#include "searchthing/search/select_match.h"

#include <cstring>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/postings/bitmap.h"
#include "searchthing/search/search_frames.h"
#include "searchthing/slice/warmslice_lists.h"
#include "searchthing/slice/warmslice_meta.h"
#include "searchthing/slice/warmslice_values.h"

namespace veldar {

namespace {

// Matches are kept one by one too when they are at most this part of the range.
constexpr uint32_t FEW = 64;
// Of a list, which take as long as a step between two questions whether to stop.
constexpr uint32_t POSTINGS_A_STEP = 8;

int read_times(const selection_t& selection, select_match_t* match, warm_rc_t* rc) {
    const uint8_t* const bits = match->bits.data();
    size_t low = 0, high = match->bits.size();
    while (low < high && bits[low] == 0) low++;
    while (high > low && bits[high - 1] == 0) high--;
    ST_ASSERT(low < high);
    const uint32_t first =
        match->range.begin + static_cast<uint32_t>(8 * low) + static_cast<uint32_t>(__builtin_ctz(bits[low]));
    const uint32_t last = match->range.begin + static_cast<uint32_t>(8 * (high - 1)) + 31 -
                          static_cast<uint32_t>(__builtin_clz(bits[high - 1]));
    uint64_t nanoseconds = 0;
    ST_TRY(get_tsval_timestamp(selection.warm, first, &match->latest, &nanoseconds, rc));
    return get_tsval_timestamp(selection.warm, last, &match->earliest, &nanoseconds, rc);
}

}  // namespace

uint32_t select_next_bit(const uint8_t* bits, uint32_t first, uint32_t begin, uint32_t end) {
    uint32_t at = begin - first;
    const uint32_t stop = end - first;
    for (; at < stop; at = at / 8 * 8 + 8) {
        const unsigned left = bits[at / 8] >> (at % 8);
        if (left != 0) return std::min(end, first + at + static_cast<uint32_t>(__builtin_ctz(left)));
    }
    return end;
}

uint64_t select_count_bits(const uint8_t* bits, uint64_t begin, uint64_t end) {
    uint64_t count = 0;
    for (uint64_t at = begin; at < end;) {
        const uint64_t byte = at / 8;
        if (at % 8 == 0 && at + 64 <= end) {
            count += static_cast<uint64_t>(__builtin_popcountll(load_le64(bits + byte)));
            at += 64;
            continue;
        }
        const uint64_t stop = std::min(end, 8 * (byte + 1));
        const unsigned mask = (1u << (stop - 8 * byte)) - 1;
        count += static_cast<uint64_t>(__builtin_popcount((bits[byte] & mask) >> (at % 8)));
        at = stop;
    }
    return count;
}

int select_match_open(const selection_t& selection, select_match_t* match, warm_rc_t* rc) {
    const parsed_query_t& query = *selection.query;
    const event_walk_ptr walk = event_walk_open(selection.warm, query, query.spec.latest, UINT64_MAX, true);
    conjunction_context& context = walk->context;
    query_result_t result;
    int status = event_walk_evaluate(walk.get(), &result);
    const bool is_everything = match_kind(result) == MATCH_EVERYTHING && result.not_bitmap.empty();
    match->range = context.range;
    if (status == 0 && !match->range.empty()) status = _frame2bitmap(&context, &result);
    if (status != 0) return _cpy_rc(rc, &context.rc);
    if (match->range.empty()) return 0;
    match->bits = std::move(result.bitmap);
    if (st_warm_slice_has_deletes(selection.warm)) {
        range_bitmap_clear(match->bits.data(), selection.warm->tsval_reader.d.bytes, match->range);
    }
    match->count = range_bitmap_count(match->bits.data(), match->range);
    match->is_slice = is_everything && match->count == st_warm_slice_values(selection.warm);
    if (match->count == 0) return 0;
    if (match->count <= match->range.size() / FEW) {
        match->ids.reserve(match->count);
        select_each_bit(match->bits.data(), match->range.begin, match->range.begin, match->range.end,
                        [&](uint32_t id) { match->ids.push_back(id); });
        ST_ASSERT(match->ids.size() == match->count);
    }
    return read_times(selection, match, rc);
}

int select_lists::position(uint32_t term, uint32_t list_count, warm_rc_t* rc) {
    // The bits of a short list take longer to go through than the list, unless they are looked at here and there.
    const bool is_long = list_count >= match_.range.size() / 64;
    const bool pays = is_long || (!match_.ids.empty() && match_.ids.size() <= list_count / 8);
    ST_TRY(warm_slice_go_on(selection_.warm, list_count / POSTINGS_A_STEP, rc));
    kept_ = pays ? selection_.warm->lists.find(term) : std::span<const uint8_t>();
    if (!kept_.empty()) return 0;
    if (!is_open_) {
        ST_TRY(_init_reader(&reader_, selection_.warm, 1024, selection_.query->spec.info, rc));
        is_open_ = true;
    }
    ST_TRY(_seek_reader(&reader_, term, rc));
    const bool is_looked_for = !match_.ids.empty() && match_.ids.size() <= list_count / 8;
    const uint32_t wanted = is_looked_for ? 0 : match_.range.size();
    return pays ? selection_.warm->lists.open(term, &reader_, wanted, &kept_, rc) : 0;
}

int select_lists::look_up(uint32_t term, bool* is_possible, uint32_t* count, warm_rc_t* rc) {
    st_term_metadata record;
    ST_TRY(warm_slice_go_on(selection_.warm, 1, rc));
    ST_TRY(warm_slice_term_metadata(selection_.warm, term, selection_.query->spec.info, &record, rc));
    const bool has_times = warm_header_meta_type(selection_.warm->body) != META_COUNT_ONLY;
    *count = record.count;
    *is_possible = !has_times || (static_cast<st_time_t>(record.latest) >= match_.earliest &&
                                  static_cast<st_time_t>(record.earliest) <= match_.latest);
    return 0;
}

int select_lists::read_dense(uint32_t begin, uint32_t end, warm_rc_t* rc) {
    ST_ASSERT((begin - match_.range.begin) % 8 == 0 && begin < end && end <= match_.range.end);
    if (dense_.empty() && !dense_.alloc(match_.bits.size())) return _set_rc(rc, WARM_RC_NO_MEMORY);
    const size_t bytes = _calc_bitmap_size(begin, end);
    const uint8_t* const match = match_.bits.data() + (begin - match_.range.begin) / 8;
    std::memset(dense_.data(), 0, bytes);
    if (kept_.empty()) {
        ST_TRY(plist_or_into_bitmap(&reader_, dense_.data(), begin, end, rc));
    } else {
        range_bitmap_or_part(dense_.data(), kept_, {.begin = begin, .end = end, .begin_preamble = 0, .computed = true});
    }
    size_t i = 0;
    for (; i + 8 <= bytes; i += 8) store_le64(dense_.data() + i, load_le64(dense_.data() + i) & load_le64(match + i));
    for (; i < bytes; i++) dense_.data()[i] = static_cast<uint8_t>(dense_.data()[i] & match[i]);
    return 0;
}

int select_lists::count(uint32_t term, uint32_t list_count, std::span<const select_stretch_t> stretches,
                        uint64_t* counts, warm_rc_t* rc) {
    if (match_.is_slice && stretches.size() == 1) {
        selection_.report->lists_from_metadata++;
        counts[0] += list_count;
        return 0;
    }
    const uint32_t begin = match_.range.begin;
    size_t stretch = 0;
    const auto add = [&](uint32_t id) {
        while (id >= stretches[stretch].end) stretch++;
        counts[stretch]++;
    };
    ST_TRY(position(term, list_count, rc));
    if (!is_dense(list_count) || is_probed(list_count)) {
        return each_here(list_count, begin, match_.range.end, add, rc);
    }
    selection_.report->lists_counted++;
    ST_TRY(read_dense(begin, match_.range.end, rc));
    for (; stretch < stretches.size(); stretch++) {
        counts[stretch] +=
            select_count_bits(dense_.data(), stretches[stretch].begin - begin, stretches[stretch].end - begin);
    }
    return 0;
}

}  // namespace veldar
