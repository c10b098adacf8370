#include "searchthing/search/search_lists.h"

#include <algorithm>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/slice/warmslice_lists.h"

namespace veldar {

namespace {

// Of a range of fewer numbers than this part of all the bits are gone through sooner than a list.
constexpr uint32_t NARROW_PART = 4;
// Looking for one id in gaps takes as long as decoding about so many.
constexpr uint32_t SEEK_COST = 64;
// Of the range, whose part of a list takes as long at most as a step between two questions whether to stop.
constexpr uint32_t VALUES_A_STEP = 64;

// Before a list is read: whether the search goes on.
int go_on(conjunction_context* context) {
    return warm_slice_go_on(context->handle, 1 + context->range.size() / VALUES_A_STEP, &context->rc);
}

int position_reader(conjunction_context* context, uint32_t term) {
    if (!context->reader_open) {
        ST_TRY(_init_reader(&context->reader, context->handle, 1024, context->info, &context->rc));
        context->reader_open = true;
    }
    context->lists_read++;
    return _seek_reader(&context->reader, term, &context->rc);
}

// Positions the reader on a list, unless all of its bits are at hand. Numbers of a range of `wanted` are about to be
// decoded, or with 0 looked for.
int open_list(conjunction_context* context, uint32_t term, uint32_t wanted, std::span<const uint8_t>* bits) {
    ST_TRY(go_on(context));
    kept_lists& lists = context->handle->lists;
    *bits = lists.find(term);
    if (!bits->empty()) return 0;
    ST_TRY(position_reader(context, term));
    return lists.open(term, &context->reader, wanted, bits, &context->rc);
}

// Takes the ids of the range out of the bits of a whole list, as many as there is room for; false when there are more.
bool take_bits(std::span<const uint8_t> bits, const id_range_t& range, std::span<uint32_t> ids, uint32_t* count) {
    for (uint64_t first = range.begin / 64 * 64; first < range.end && first < 8 * bits.size(); first += 64) {
        uint64_t word = 0;
        if (first / 8 + 8 <= bits.size()) {
            word = load_le64(bits.data() + first / 8);
        } else {
            for (size_t i = first / 8; i < bits.size(); i++) word |= uint64_t{bits[i]} << (8 * i - first);
        }
        for (; word != 0; word &= word - 1) {
            const auto id = static_cast<uint32_t>(first + static_cast<uint32_t>(__builtin_ctzll(word)));
            if (id < range.begin || id >= range.end) continue;
            if (*count == ids.size()) return false;
            ids[(*count)++] = id;
        }
    }
    return true;
}

// The ids of the positioned list instead.
int take_postings(conjunction_context* context, std::span<uint32_t> ids, uint32_t* count, bool* are_all) {
    const uint32_t end = context->range.end;
    uint32_t id = PLIST_END;
    ST_TRY(_seek(&context->reader, context->range.begin, &id, &context->rc));
    if (id >= end) return 0;
    ids[0] = id;
    uint32_t more = 0;
    const auto room = static_cast<uint32_t>(ids.size() - 1);
    ST_TRY(plist_copy(&context->reader, ids.data() + 1, room, end, &more, &context->rc));
    *count = 1 + more;
    if (*count < ids.size()) return 0;
    ST_TRY(_next(&context->reader, &id, &context->rc));
    *are_all = id >= end;
    return 0;
}

}  // namespace

int list_or_into(conjunction_context* context, uint32_t term, bool keep, uint8_t* bitmap) {
    std::span<const uint8_t> bits;
    if (keep) {
        ST_TRY(open_list(context, term, context->range.size(), &bits));
    } else {
        ST_TRY(go_on(context));
        bits = context->handle->lists.find(term);
        if (bits.empty()) ST_TRY(position_reader(context, term));
    }
    if (!bits.empty()) {
        range_bitmap_or_part(bitmap, bits, context->range);
        return 0;
    }
    return plist_or_into_bitmap(&context->reader, bitmap, context->range.begin, context->range.end, &context->rc);
}

int list_scratch(conjunction_context* context, buffer<uint8_t>* bitmap) {
    if (bitmap->empty()) return range_bitmap_alloc(bitmap, context->range, &context->rc);
    bitmap->clear();
    return 0;
}

int list_start(conjunction_context* context, const term_lookup_t& term, buffer<uint32_t>* ids, uint32_t* count) {
    const id_range_t& range = context->range;
    *count = 0;
    ST_ASSERT(term.count > 0 && !range.empty());
    ST_TRY(go_on(context));
    if (!ids->alloc(std::min(term.count, range.size()))) {
        return _set_rc_msg(&context->rc, WARM_RC_NO_MEMORY, "list of value numbers");
    }
    const std::span<uint32_t> room(ids->data(), ids->size());
    const bool is_narrow = range.size() < context->bufcap / NARROW_PART;
    std::span<const uint8_t> bits = is_narrow ? context->handle->lists.find(term.id) : std::span<const uint8_t>();
    bool are_all = true;
    if (bits.empty()) {
        ST_TRY(position_reader(context, term.id));
        ST_TRY(context->handle->lists.open(term.id, &context->reader, 0, &bits, &context->rc));
    }
    if (bits.empty()) {
        ST_TRY(take_postings(context, room, count, &are_all));
    } else {
        are_all = take_bits(bits, range, room, count);
    }
    if (are_all) return 0;
    return _set_rc_verbose(&context->rc, WARM_RC_CORRUPT, term.id, "a posting list is longer than its count");
}

int list_filter_ids(conjunction_context* context, const term_lookup_t& term, bool keep, uint32_t* ids,
                    uint32_t* count) {
    const id_range_t& range = context->range;
    const bool are_looked_for = *count < term.count / SEEK_COST;
    std::span<const uint8_t> bits;
    ST_TRY(open_list(context, term.id, are_looked_for ? 0 : range.size(), &bits));
    if (!bits.empty()) {
        const id_range_t all = {.begin = 0, .end = context->bufcap, .begin_preamble = 0, .computed = true};
        *count = _filter_values(ids, *count, bits.data(), all, keep);
        return 0;
    }
    if (!are_looked_for && context->reader.plo_type == PLO_RLE) {
        buffer<uint8_t> decoded;
        ST_TRY(range_bitmap_alloc(&decoded, range, &context->rc));
        ST_TRY(plist_or_into_bitmap(&context->reader, decoded.data(), range.begin, range.end, &context->rc));
        *count = _filter_values(ids, *count, decoded.data(), range, keep);
        return 0;
    }
    uint32_t kept = 0, other = 0;
    for (uint32_t i = 0; i < *count; i++) {
        const uint32_t id = ids[i];
        if (i == 0 || other < id) ST_TRY(_seek(&context->reader, id, &other, &context->rc));
        ids[kept] = id;
        kept += (other == id) == keep ? 1 : 0;
    }
    *count = kept;
    return 0;
}

int list_filter_bits(conjunction_context* context, uint32_t term, bool keep, buffer<uint8_t>* scratch,
                     uint8_t* bitmap) {
    const id_range_t& range = context->range;
    std::span<const uint8_t> bits;
    ST_TRY(open_list(context, term, range.size(), &bits));
    if (!bits.empty()) {
        (keep ? range_bitmap_and_part : range_bitmap_clear)(bitmap, bits, range);
        return 0;
    }
    ST_TRY(list_scratch(context, scratch));
    ST_TRY(plist_or_into_bitmap(&context->reader, scratch->data(), range.begin, range.end, &context->rc));
    (keep ? range_bitmap_and : range_bitmap_and_not)(bitmap, scratch->data(), range);
    return 0;
}

}  // namespace veldar
