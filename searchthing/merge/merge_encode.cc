#include "searchthing/merge/merge_encode.h"

#include <xxhash.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/vbe.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/postings/rle_encoder.h"

namespace veldar {

namespace {

constexpr size_t FIRST_SLOTS = 1 << 16;
constexpr size_t MAX_SLOTS = 1 << 24;
static_assert(std::has_single_bit(FIRST_SLOTS) && std::has_single_bit(MAX_SLOTS) && FIRST_SLOTS <= MAX_SLOTS);
static_assert(MAX_SLOTS * sizeof(merge_known_list_t) == size_t{256} << 20);
// The parts of merge_known_list_t::place.
constexpr uint64_t SIZE_LIMIT = 1 << 23;
constexpr uint64_t FORM_BITS = 24;  // type and size together
static_assert(2 * SIZE_LIMIT == uint64_t{1} << FORM_BITS);
constexpr uint64_t OFFSET_LIMIT = uint64_t{1} << (64 - FORM_BITS);

uint64_t form_of(const merge_encoded_t& list) {
    return (list.type == PLO_BMAP ? SIZE_LIMIT : 0) | list.bytes.size();
}

int reserve(buffer<uint8_t>* bytes, uint64_t size, warm_rc_t* rc) {
    if (bytes->size() >= size) return 0;
    return bytes->alloc(std::max<uint64_t>(size, 2 * bytes->size()))
               ? 0
               : _set_rc_msg(rc, WARM_RC_NO_MEMORY, "posting list");
}

// At most 2 bytes an event, one more for every 128 values that a gap passes over, and the first event.
uint64_t rle_bound(uint64_t count, uint64_t num_values) {
    return 2 * count + num_values / 64 + 2 * VBE_MAX_BYTES;
}

struct bitmap_sink {
    uint8_t* bits;
    uint32_t first;
    void operator()(uint32_t id) {
        const uint32_t bit = id - first;
        bits[bit / 8] = static_cast<uint8_t>(bits[bit / 8] | 1u << (bit % 8));
    }
};

// Whether the written list at an offset has these bytes.
int compare_written(const merge_list_writer_t* writer, uint64_t offset, std::span<const uint8_t> bytes, bool* equal,
                    warm_rc_t* rc) {
    ST_ASSERT(offset + bytes.size() <= merge_list_writer_total(writer));
    *equal = false;
    std::array<uint8_t, 4096> piece;
    while (!bytes.empty() && offset < writer->written) {
        const size_t size =
            static_cast<size_t>(std::min<uint64_t>({bytes.size(), piece.size(), writer->written - offset}));
        const int64_t got = st_pread(writer->fd, piece.data(), size, writer->offset + offset);
        if (got != static_cast<int64_t>(size)) return _set_rc_msg(rc, read_status(got), "reading a list back");
        if (std::memcmp(piece.data(), bytes.data(), size) != 0) return 0;
        offset += size;
        bytes = bytes.subspan(size);
    }
    *equal = bytes.empty() ||
             std::memcmp(writer->pending.data() + (offset - writer->written), bytes.data(), bytes.size()) == 0;
    return 0;
}

void insert(buffer<merge_known_list_t>* slots, const merge_known_list_t& list) {
    ST_ASSERT(std::has_single_bit(slots->size()) && list.term != MERGE_NO_TERM);
    const size_t mask = slots->size() - 1;
    size_t slot = list.hash & mask;
    while ((*slots)[slot].term != MERGE_NO_TERM) slot = (slot + 1) & mask;
    (*slots)[slot] = list;
}

// Makes room for one more, if there may be more.
int grow(merge_known_lists_t* lists, warm_rc_t* rc) {
    const size_t size = lists->slots.size();
    if (lists->used < size - size / 4 || size == MAX_SLOTS) return 0;
    buffer<merge_known_list_t> larger;
    if (!larger.alloc(std::max(2 * size, FIRST_SLOTS))) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "known lists");
    for (merge_known_list_t& slot : larger) slot.term = MERGE_NO_TERM;
    for (const merge_known_list_t& list : lists->slots) {
        if (list.term != MERGE_NO_TERM) insert(&larger, list);
    }
    ST_ASSERT(lists->used <= larger.size() / 2);
    lists->slots = std::move(larger);
    return 0;
}

}  // namespace

int merge_encode(merge_encoder_t* encoder, const merge_list_t& list, bool bitmap_allowed, merge_encoded_t* out,
                 warm_rc_t* rc) {
    *out = {};
    if (list.count == 0) return 0;
    ST_ASSERT(list.first <= list.last && list.last < encoder->num_values);
    ST_TRY(reserve(&encoder->rle, rle_bound(list.count, encoder->num_values), rc));
    rle_encoder_t rle{encoder->rle.data()};
    merge_list_for_each(list, [&rle](uint32_t id) { rle.put(id); });
    rle.end_run();
    const uint64_t rle_size = static_cast<uint64_t>(rle.at - encoder->rle.data());
    ST_ASSERT(rle_size <= rle_bound(list.count, encoder->num_values));
    out->bytes = {encoder->rle.data(), static_cast<size_t>(rle_size)};

    const uint32_t first_length = vbe_length(list.first);
    const uint64_t bitmap_size = first_length + 1 + uint64_t{list.last - list.first} / 8;
    const bool read_whole = first_length < 4 || bitmap_size <= BITMAP_CHUNK;
    if (!bitmap_allowed || !read_whole || bitmap_size >= rle_size) return 0;
    ST_TRY(reserve(&encoder->bitmap, bitmap_size, rc));
    std::memset(encoder->bitmap.data(), 0, static_cast<size_t>(bitmap_size));
    st_encode_to_vbe(encoder->bitmap.data(), list.first);
    bitmap_sink bits{encoder->bitmap.data() + first_length, list.first};
    merge_list_for_each(list, [&bits](uint32_t id) { bits(id); });
    *out = {PLO_BMAP, {encoder->bitmap.data(), static_cast<size_t>(bitmap_size)}};
    return 0;
}

int merge_list_writer_open(merge_list_writer_t* writer, int fd, uint64_t offset, uint64_t buffer_bytes, warm_rc_t* rc) {
    writer->fd = fd;
    writer->offset = offset;
    writer->fill = writer->written = 0;
    return writer->pending.alloc(static_cast<size_t>(buffer_bytes)) ? 0
                                                                    : _set_rc_msg(rc, WARM_RC_NO_MEMORY, "list buffer");
}

int merge_list_writer_flush(merge_list_writer_t* writer, warm_rc_t* rc) {
    ST_ASSERT(writer->fill <= writer->pending.size());
    const int64_t size = static_cast<int64_t>(writer->fill);
    if (st_pwrite(writer->fd, writer->pending.data(), writer->fill, writer->offset + writer->written) != size) {
        return _set_rc_msg(rc, WARM_RC_WRITE, "posting lists");
    }
    writer->written += writer->fill;
    writer->fill = 0;
    return 0;
}

int merge_list_writer_append(merge_list_writer_t* writer, std::span<const uint8_t> bytes, warm_rc_t* rc) {
    while (!bytes.empty()) {
        if (writer->fill == writer->pending.size()) ST_TRY(merge_list_writer_flush(writer, rc));
        const size_t size = std::min<size_t>(bytes.size(), writer->pending.size() - writer->fill);
        std::memcpy(writer->pending.data() + writer->fill, bytes.data(), size);
        writer->fill += size;
        bytes = bytes.subspan(size);
    }
    return 0;
}

int merge_known_lists_find(merge_known_lists_t* lists, const merge_list_writer_t* writer, uint32_t term,
                           const merge_encoded_t& list, uint32_t* known, warm_rc_t* rc) {
    *known = MERGE_NO_TERM;
    const uint64_t offset = merge_list_writer_total(writer);
    if (list.bytes.empty() || list.bytes.size() >= SIZE_LIMIT) return 0;
    ST_TRY(grow(lists, rc));
    const uint64_t hash64 = XXH64(list.bytes.data(), list.bytes.size(), list.type) & lists->hash_mask;
    const uint32_t hash = static_cast<uint32_t>(hash64 ^ hash64 >> 32);
    const size_t mask = lists->slots.size() - 1;
    for (size_t slot = hash & mask; lists->slots[slot].term != MERGE_NO_TERM; slot = (slot + 1) & mask) {
        const merge_known_list_t& earlier = lists->slots[slot];
        const uint64_t form = earlier.place & ((uint64_t{1} << FORM_BITS) - 1);
        if (earlier.hash != hash || form != form_of(list)) continue;
        bool equal = false;
        ST_TRY(compare_written(writer, earlier.place >> FORM_BITS, list.bytes, &equal, rc));
        if (!equal) continue;
        *known = earlier.term;
        return 0;
    }
    if (lists->used >= lists->slots.size() - lists->slots.size() / 4 || offset >= OFFSET_LIMIT) return 0;
    insert(&lists->slots, {term, hash, offset << FORM_BITS | form_of(list)});
    lists->used++;
    return 0;
}

}  // namespace veldar
