// Reading posting lists in bulk: into a bitmap, into an array.
#include <algorithm>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/postings/gap_groups.h"
#include "searchthing/postings/plist_internal.h"

namespace veldar {

namespace {

struct copy_sink {
    uint32_t* out;
    uint32_t count = 0;
    void one(uint32_t id) { out[count++] = id; }
    void many(uint32_t first, uint32_t number) {
        for (uint32_t i = 0; i < number; i++) out[count++] = first + i;
    }
    uint64_t groups(gap_span* span, uint64_t bound, uint64_t room) {
        const uint64_t copied = gap_groups_copy(span, bound, out + count, room);
        count += static_cast<uint32_t>(copied);
        return copied;
    }
};

struct bitmap_sink {
    uint8_t* bitmap;
    uint32_t begin;
    void one(uint32_t id) {
        const uint32_t bit = id - begin;
        bitmap[bit / 8] = static_cast<uint8_t>(bitmap[bit / 8] | 1u << (bit % 8));
    }
    void many(uint32_t first, uint32_t number) {
        uint64_t bit = first - begin;
        const uint64_t stop = bit + number;
        for (; bit < stop && bit % 8 != 0; bit++) one(static_cast<uint32_t>(begin + bit));
        const uint64_t whole_bytes = (stop - bit) / 8;
        std::memset(bitmap + bit / 8, 0xFF, static_cast<size_t>(whole_bytes));
        for (bit += 8 * whole_bytes; bit < stop; bit++) one(static_cast<uint32_t>(begin + bit));
    }
    // A bitmap has room for all, so that nobody counts.
    uint64_t groups(gap_span* span, uint64_t bound, uint64_t) {
        gap_groups_set_bits(span, bound, bitmap, begin);
        return 0;
    }
};

// Hands the rest of the list to the sink, in order: one(id) for single events, many(first, count) for runs, and what is
// decoded in groups is told by groups(span, bound, room). `room` events at most and only those below `end`.
template <typename Sink>
int rle_walk(plist_reader* reader, uint32_t end, uint64_t room, Sink* sink, warm_rc_t* rc) {
    const uint32_t bound = std::min(end, reader->num_values);
    const bool has_groups = gap_groups_usable();
    for (;;) {
        if (reader->run > 0) {
            const uint32_t first = reader->last + 1;
            if (first >= end || room == 0) return 0;
            const uint32_t count = static_cast<uint32_t>(std::min<uint64_t>({reader->run, room, end - first}));
            sink->many(first, count);
            room -= count;
            reader->last += count;
            reader->run -= count;
            if (reader->run > 0) return 0;
        }
        if (room == 0 || reader->position == reader->list_end) return 0;
        rle_window window;
        ST_TRY(rle_open_window(reader, &window, rc));
        const uint8_t* at = window.at;
        const uint8_t* no_group_before = has_groups ? at : window.safe_end;
        uint64_t last = reader->last;
        while (at < window.safe_end && room > 0 && *at != 0) {
            if (at >= no_group_before) {
                gap_span span = {at, window.safe_end, window.end, static_cast<uint32_t>(last)};
                room -= sink->groups(&span, bound, room);
                no_group_before = span.at + (span.at == at ? GROUP_PATIENCE : 0);
                at = span.at;
                last = span.last;
                if (at >= window.safe_end || room == 0 || *at == 0) break;
            }
            if (is_one_byte_gap(*at)) {
                last += *at++;
            } else {
                uint32_t gap = 0;
                const uint32_t used = vbe_decode_bounded(&gap, at, window.end);
                if (used == 0 || gap == 0) return plist_corrupt(rc, "posting list does not decode");
                last += gap;
                at += used;
            }
            if (last >= bound) break;
            sink->one(static_cast<uint32_t>(last));
            room--;
        }
        if (last >= reader->num_values) return plist_bad_event(rc, last);
        reader->last = static_cast<uint32_t>(last);
        if (last >= bound) {
            rle_close_window(reader, at);
            return 0;
        }
        if (at < window.safe_end && room > 0) {
            ST_TRY(rle_decode_long_item(reader, &at, window.end, &reader->last, &reader->run, rc));
        }
        rle_close_window(reader, at);
    }
}

// ORs `count` bits from bit 0 of `source` into `bitmap` from bit `bit` on; no byte outside those bits is touched.
void or_bits(uint8_t* bitmap, uint64_t bit, const uint8_t* source, uint64_t count) {
    const uint32_t shift = bit % 8;
    uint8_t* out = bitmap + bit / 8;
    uint64_t carry = 0;
    for (; count >= 64; count -= 64, source += 8, out += 8) {
        const uint64_t word = load_le64(source);
        store_le64(out, load_le64(out) | word << shift | carry);
        carry = word >> 1 >> (63 - shift);
    }
    uint64_t word = 0;
    std::memcpy(&word, source, static_cast<size_t>((count + 7) / 8));
    word &= (uint64_t{1} << count) - 1;
    uint64_t low = word << shift | carry;
    uint64_t high = word >> 1 >> (63 - shift);
    for (uint64_t done = 0; done < shift + count; done += 8) {
        *out = static_cast<uint8_t>(*out | (low & 0xFF));
        out++;
        low = low >> 8 | high << 56;
        high >>= 8;
    }
}

// ORs the events of [begin, end) that are left in the bitmap reader's chunk.
void or_chunk(bitmap_reader_t* reader, uint8_t* bitmap, uint32_t begin, uint32_t end) {
    bitmap_iterator_t* itr = &reader->itr;
    for (; itr->position < itr->bitmap_size; itr->position += 4) {
        const uint64_t first = uint64_t{reader->chunk_base} + 8 * itr->position;
        if (first >= end) return;
        const uint8_t* source = itr->bytes + itr->position;
        if (first >= begin) {
            const uint64_t bits = std::min<uint64_t>(8 * (itr->bitmap_size - itr->position), end - first);
            or_bits(bitmap, first - begin, source, bits);
            itr->position = itr->bitmap_size;
            return;
        }
        bitmap_sink sink{bitmap, begin};
        for (uint32_t word = load_le32(source); word != 0; word &= word - 1) {
            const uint64_t id = first + static_cast<uint32_t>(__builtin_ctz(word));
            if (id >= begin && id < end) sink.one(static_cast<uint32_t>(id));
        }
    }
}

int bmap_or(plist_reader* reader, uint8_t* bitmap, uint32_t begin, uint32_t end, warm_rc_t* rc) {
    bitmap_sink sink{bitmap, begin};
    end = std::min(end, reader->num_values);
    uint32_t id = 0;
    ST_TRY(_seek(reader, begin, &id, rc));
    while (id < end) {
        sink.one(id);
        or_chunk(&reader->bitmap, bitmap, begin, end);
        ST_TRY(_next(reader, &id, rc));
    }
    return 0;
}

int bmap_copy(plist_reader* reader, uint32_t* out, uint32_t capacity, uint32_t end, uint32_t* count, warm_rc_t* rc) {
    while (*count < capacity) {
        uint32_t id = 0;
        ST_TRY(_next(reader, &id, rc));
        if (id >= end) return 0;
        out[(*count)++] = id;
    }
    return 0;
}

}  // namespace

int plist_or_into_bitmap(plist_reader* reader, uint8_t* bitmap, uint32_t begin, uint32_t end, warm_rc_t* rc) {
    if (reader->plo_type == PLO_BMAP) return bmap_or(reader, bitmap, begin, end, rc);
    ST_TRY(rle_move_to(reader, begin, rc));
    bitmap_sink sink{bitmap, begin};
    return rle_walk(reader, end, UINT64_MAX, &sink, rc);
}

int plist_copy(plist_reader* reader, uint32_t* out, uint32_t capacity, uint32_t end, uint32_t* count, warm_rc_t* rc) {
    *count = 0;
    if (reader->plo_type == PLO_BMAP) return bmap_copy(reader, out, capacity, end, count, rc);
    copy_sink sink{out};
    const int status = rle_walk(reader, end, capacity, &sink, rc);
    *count = sink.count;
    ST_ASSERT(*count <= capacity);
    return status;
}

}  // namespace veldar
