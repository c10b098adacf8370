// The checker: posting-list offsets, the lists, and the metadata of the terms that they belong to.
#include <fmt/format.h>

#include <bit>

#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "tools/libveldar/check/fsck_internal.h"

namespace veldar::tool {

namespace {

// Readers lose events of a bitmap whose first number takes this many bytes when it does not fit their chunk.
constexpr uint32_t LONG_FIRST_NUMBER = 4, BITMAP_CHUNK = 8192;

constexpr uint32_t NO_TERM = UINT32_MAX;

struct list_fault {
    const char* what = nullptr;  // null for none
    const uint8_t* at = nullptr;
};

// The sum of the squares from 0 to n.
unsigned __int128 squares_up_to(uint64_t n) {
    return static_cast<unsigned __int128>(n) * (n + 1) * (2 * n + 1) / 6;
}

void sum_up(fsck_list* list, uint64_t first, uint64_t last) {
    list->sum += (last * (last + 1) - first * (first + 1)) / 2 + first;
    list->squares += static_cast<uint64_t>(squares_up_to(last) - squares_up_to(first)) + first * first;
}

// What numbers of a list are below: it tells values, or runs of them in a slice that has some.
uint32_t list_limit(const st_warm_slice_body& h) {
    return tsval_encoding(&h) == TSVAL_WITH_PREAMBLES ? h.num_dimsets.get() : h.num_values.get();
}

// Takes `more` numbers, one behind the other, that end `step` behind the last one; false when that is not below
// `limit`.
bool advance(fsck_list* list, uint64_t step, uint32_t more, uint32_t limit) {
    if (list->last + step >= limit) return false;
    list->last = static_cast<uint32_t>(list->last + step);
    list->count += more;
    sum_up(list, list->last - (more - 1), list->last);
    return true;
}

list_fault decode_rle(std::span<const uint8_t> bytes, uint32_t limit, fsck_list* list) {
    const uint8_t* at = bytes.data();
    const uint8_t* const end = at + bytes.size();
    for (bool first = true; at < end; first = false) {
        const uint8_t* const begin = at;
        const bool fsck = !first && *at == 0;
        uint32_t number = 0;
        if (fsck) at++;
        const uint32_t used = vbe_decode_bounded(&number, at, end);
        if (used == 0) return {"number cannot be read", begin};
        at += used;
        if (!first && number == 0) return {fsck ? "run of no numbers" : "numbers do not ascend", begin};
        if (!advance(list, number, fsck ? number : 1, limit)) return {"value number out of range", begin};
        if (first) list->first = list->last;
    }
    return {};
}

list_fault decode_bitmap(std::span<const uint8_t> bytes, uint32_t limit, fsck_list* list) {
    if (bytes.empty()) return {};
    const uint8_t* const end = bytes.data() + bytes.size();
    uint32_t first = 0;
    const uint32_t used = vbe_decode_bounded(&first, bytes.data(), end);
    if (used == 0) return {"number cannot be read", bytes.data()};
    const std::span<const uint8_t> bitmap = bytes.subspan(used);
    if (bitmap.empty() || (bitmap.front() & 1) == 0)
        return {"bitmap does not begin with its first number", bytes.data()};
    if (bitmap.back() == 0) return {"bitmap ends with an empty byte", end - 1};
    const uint64_t last = first + (bitmap.size() - 1) * 8 + static_cast<uint64_t>(std::bit_width(bitmap.back()) - 1);
    if (last >= limit) return {"value number out of range", end - 1};
    for (size_t i = 0; i < bitmap.size(); i++) {
        for (uint8_t left = bitmap[i]; left != 0; left &= static_cast<uint8_t>(left - 1)) {
            const uint64_t number = first + i * 8 + static_cast<uint64_t>(std::countr_zero(left));
            sum_up(list, number, number);
            list->count++;
        }
    }
    list->first = first;
    list->last = static_cast<uint32_t>(last);
    if (used >= LONG_FIRST_NUMBER && bytes.size() > BITMAP_CHUNK)
        return {"bitmap longer than readers follow", bytes.data()};
    return {};
}

// Walks the offset entries; a list is decoded when the entry that ends it is met.
struct list_walk {
    fsck_state* fsck = nullptr;
    std::span<const uint8_t> entries, bytes;  // of the offsets and of the lists
    uint64_t entries_offset = 0, bytes_offset = 0;
    uint32_t width = 0, tag_bits = 0;
    uint32_t open_term = 0;  // whose list begins at `open_start`; NO_TERM behind an offset that cannot be
    uint8_t open_type = PLO_RLE;
    uint64_t open_start = 0;
};

void decode_open_list(list_walk* walk, uint64_t end) {
    fsck_list& list = walk->fsck->lists[walk->open_term];
    list.type = walk->open_type;
    const std::span<const uint8_t> bytes =
        walk->bytes.subspan(static_cast<size_t>(walk->open_start), static_cast<size_t>(end - walk->open_start));
    const uint32_t limit = list_limit(walk->fsck->image->header);
    const list_fault fault =
        list.type == PLO_RLE ? decode_rle(bytes, limit, &list) : decode_bitmap(bytes, limit, &list);
    fsck_encoding_facts& facts = walk->fsck->report->encodings[list.type];
    facts.lists++;
    facts.bytes += bytes.size();
    list.good = fault.what == nullptr;
    if (list.good) return;
    const auto at = static_cast<uint64_t>(fault.at - walk->bytes.data());
    fsck_add_term(walk->fsck, IN_LISTS, walk->bytes_offset + at, walk->open_term, fault.what,
                  fmt::format("{} list of {} bytes", pl_type_as_str(list.type), bytes.size()));
}

// An entry with a payload instead of an offset.
void take_payload(list_walk* walk, uint32_t term, uint8_t type, uint64_t payload, uint64_t offset) {
    fsck_state* const fsck = walk->fsck;
    fsck_list& list = fsck->lists[term];
    list.type = type;
    fsck->report->encodings[type].lists++;
    const st_warm_slice_body& h = fsck->image->header;
    const uint32_t limit = type == PLO_SPO ? list_limit(h) : h.num_terms.get();
    if (payload >= limit) {
        list.type = PLO_RLE;  // it names nothing
        return fsck_add_term(fsck, IN_OFFSETS, offset, term,
                             type == PLO_SPO ? "value number out of range" : "term number out of range",
                             fmt::format("{} of {}", payload, limit));
    }
    list.first = list.last = static_cast<uint32_t>(payload);
    if (type == PLO_SPO) sum_up(&list, payload, payload);
    list.count = type == PLO_SPO ? 1 : 0;
    list.good = type == PLO_SPO;
}

void take_entry(list_walk* walk, uint32_t index, bool last) {
    const uint8_t* const at = walk->entries.data() + size_t{index} * walk->width;
    const uint64_t offset = walk->entries_offset + uint64_t{index} * walk->width;
    const uint64_t entry = walk->width == 8 ? load_be64(at) : load_be32(at);
    const uint64_t value = entry >> walk->tag_bits;
    const auto type = static_cast<uint8_t>(entry & ((1u << walk->tag_bits) - 1));
    if (last && type != PLO_RLE) {
        fsck_add(walk->fsck, IN_OFFSETS, offset, "the last entry has a type", pl_type_as_str(type));
    } else if (type == PLO_SPO || type == PLO_DEDUP) {
        return take_payload(walk, index + 1, type, value, offset);
    }
    // Neither the list that such an offset ends nor the one that it begins can be told.
    if (value < walk->open_start || value > walk->bytes.size()) {
        walk->open_term = NO_TERM;
        return fsck_add_term(
            walk->fsck, IN_OFFSETS, offset, last ? index : index + 1,
            value < walk->open_start ? "offsets do not ascend" : "offset behind the lists",
            fmt::format("{} behind {}, {} bytes of lists", value, walk->open_start, walk->bytes.size()));
    }
    if (walk->open_term != NO_TERM) decode_open_list(walk, value);
    walk->open_start = value;
    walk->open_term = index + 1;
    walk->open_type = type;
}

// A DEDUP term has the list of the term that it names.
void resolve_dedups(fsck_state* fsck) {
    const uint32_t width = _get_plo_size(&fsck->image->header);
    for (uint32_t term = 1; term < fsck->lists.size(); term++) {
        fsck_list& list = fsck->lists[term];
        if (list.type != PLO_DEDUP) continue;
        const uint32_t named = list.first;
        if (fsck->lists[named].type == PLO_DEDUP) {
            fsck_add_term(fsck, IN_OFFSETS, fsck->image->sections[IN_OFFSETS].offset + uint64_t{term - 1} * width, term,
                          "duplicate of a duplicate", fmt::format("term {}", named));
            continue;
        }
        const fsck_list& original = fsck->lists[named];
        list.count = original.count;
        list.last = original.last;
        list.sum = original.sum;
        list.squares = original.squares;
        list.good = original.good;
    }
}

void check_total(fsck_state* fsck) {
    uint64_t total = 0;
    for (fsck_list& list : fsck->lists) {
        if (!list.good) return;
        total += list.count;
    }
    const uint32_t stored = fsck->image->header.num_postings.get();
    if (total == stored || fsck->metric) return;
    fsck_add(fsck, IN_HEADER, offsetof(st_warm_slice_body, num_postings), "num_postings is not what the lists hold",
             fmt::format("{}, lists {}", stored, total));
}

void check_record(fsck_state* fsck, uint32_t term) {
    uint64_t at = 0;
    const fsck_term_record record = fsck_read_record(*fsck, term, &at);
    const auto add = [&](const char* what, int64_t stored, int64_t found) {
        fsck_add_term(fsck, IN_METADATA, fsck->image->sections[IN_METADATA].offset + at, term, what,
                      fmt::format("{}, the list has {}", stored, found));
    };
    const fsck_list& list = fsck->lists[term];
    if (!list.good) return;
    if (record.count != list.count) add("count", record.count, list.count);
    if (!record.has_times || list.count == 0 || !fsck->values.readable) return;
    // A DEDUP term's own `first` is the term that it names. Numbers run from the newest value to the oldest.
    const uint32_t first = list.type == PLO_DEDUP ? fsck->lists[list.first].first : list.first;
    const st_time_t latest = fsck_value_time(fsck->values, first), earliest = fsck_value_time(fsck->values, list.last);
    if (record.earliest != earliest) add("earliest time", record.earliest, earliest);
    if (record.latest != latest) add("latest time", record.latest, latest);
}

}  // namespace

void fsck_check_lists(fsck_state* fsck) {
    const slice_image& image = *fsck->image;
    // A slice without values has no offsets, whatever its terms.
    if (image.header.num_values.get() == 0 || !slice_section_whole(image, IN_OFFSETS)) return;
    const section_place& place = image.sections[IN_LISTS];
    if (place.state != SECTION_WHOLE && place.state != SECTION_CUT) return;
    const uint32_t terms = image.header.num_terms.get();
    fsck->lists.resize(terms);
    list_walk walk;
    walk.fsck = fsck;
    walk.entries = slice_section_bytes(image, IN_OFFSETS);
    walk.bytes = slice_section_bytes(image, IN_LISTS);
    walk.entries_offset = image.sections[IN_OFFSETS].offset;
    walk.bytes_offset = place.offset;
    walk.width = _get_plo_size(&image.header);
    walk.tag_bits = warm_header_plo_tag_bits(&image.header);
    for (uint32_t index = 0; index < terms; index++) take_entry(&walk, index, index == terms - 1);
    resolve_dedups(fsck);
    check_total(fsck);
}

fsck_term_record fsck_read_record(const fsck_state& fsck, uint32_t term, uint64_t* at) {
    const st_warm_slice_body& h = fsck.image->header;
    const std::span<const uint8_t> bytes = slice_section_bytes(*fsck.image, IN_METADATA);
    const uint32_t type = warm_header_meta_type(&h);
    if (type != META_PACKED) {
        *at = uint64_t{term} * (type == META_FULL ? 12 : 4);
        const uint8_t* const entry = bytes.data() + *at;
        if (type == META_COUNT_ONLY) return {.count = load_be32(entry)};
        return {load_be32(entry), static_cast<st_time_t>(load_be32(entry + 4)),
                static_cast<st_time_t>(load_be32(entry + 8)), true};
    }
    const uint32_t count_nbits = warm_header_meta_count_nbits(&h), time_nbits = warm_header_meta_time_nbits(&h);
    const uint64_t bit = uint64_t{term} * (count_nbits + 2 * time_nbits);
    *at = bit / 8;
    const uint32_t base = h.earliest.get();
    const uint32_t earliest = packed_bits(bytes, bit + count_nbits, time_nbits);
    const uint32_t latest = packed_bits(bytes, bit + count_nbits + time_nbits, time_nbits);
    return {packed_bits(bytes, bit, count_nbits), static_cast<st_time_t>(base + earliest),
            static_cast<st_time_t>(base + latest), true};
}

void fsck_check_metadata(fsck_state* fsck) {
    if (fsck->metric || !slice_section_whole(*fsck->image, IN_METADATA)) return;
    for (uint32_t term = 0; term < fsck->lists.size(); term++) check_record(fsck, term);
}

}  // namespace veldar::tool
