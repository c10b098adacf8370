// Decoding RLE posting lists.
#include <algorithm>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/postings/plist_internal.h"

namespace veldar {

namespace {

// The sum of eight one-byte gaps, or 0 when one of the bytes is something else.
inline uint64_t sum_of_eight_gaps(const uint8_t* at) {
    constexpr uint64_t ONES = 0x0101010101010101, TOPS = 0x8080808080808080, PAIRS = 0x00FF00FF00FF00FF;
    const uint64_t word = load_le64(at);
    const uint64_t zero_or_long = (word | (word - ONES)) & TOPS;
    if (zero_or_long != 0) return 0;
    return (((word & PAIRS) + (word >> 8 & PAIRS)) * 0x0001000100010001) >> 48;
}

// Skips whole items while all their events lie before `target`; nothing is pending. Afterwards the pending run, if
// there is one, ends at or after the target; without one the list is at its end.
int skip_to(plist_reader* reader, uint32_t target, warm_rc_t* rc) {
    const uint64_t skip_limit = std::min(target, reader->num_values);
    uint64_t last = reader->last;
    while (reader->position < reader->list_end) {
        rle_window window;
        ST_TRY(rle_open_window(reader, &window, rc));
        const uint8_t* at = window.at;
        while (at < window.safe_end) {
            if (window.end - at >= 8) {
                const uint64_t sum = sum_of_eight_gaps(at);
                if (sum != 0 && last + sum < skip_limit) {
                    last += sum;
                    at += 8;
                    continue;
                }
            }
            uint32_t run = 1;
            if (is_one_byte_gap(*at)) {
                last += *at++;
                if (last >= reader->num_values) return plist_bad_event(rc, last);
            } else {
                uint32_t before = static_cast<uint32_t>(last);
                ST_TRY(rle_decode_long_item(reader, &at, window.end, &before, &run, rc));
                last = uint64_t{before} + run;
            }
            if (last < target) continue;
            reader->last = static_cast<uint32_t>(last - run);
            reader->run = run;
            rle_close_window(reader, at);
            return 0;
        }
        rle_close_window(reader, at);
    }
    ST_ASSERT(reader->position == reader->list_end);
    return 0;
}

// The pending run ends at or after `target`. The addition wraps only for the first event of a list, whose `last` is one
// below it even when it is 0.
bool run_reaches(const plist_reader* reader, uint32_t target) {
    return reader->run > 0 && reader->last + reader->run >= target;
}

}  // namespace

int rle_refill(plist_reader* reader, bool read_ahead, warm_rc_t* rc) {
    const uint64_t limit = read_ahead ? reader->plo_last : reader->list_end;
    ST_ASSERT(reader->position < limit && reader->memory.empty());
    const size_t size = static_cast<size_t>(std::min<uint64_t>(reader->buf.size(), limit - reader->position));
    reader->buf_start = reader->position;
    reader->buf_fill = 0;
    reader->bytes = reader->buf.data();
    const uint64_t offset = reader->postings_base + reader->position;
    const int64_t got = st_timed_pread_msg(reader->fd, reader->buf.data(), size, offset, reader->stats, false);
    if (got <= 0) return _set_rc(rc, got < 0 ? WARM_RC_READ : WARM_RC_END_OF_FILE);
    reader->buf_fill = static_cast<uint64_t>(got);
    return 0;
}

int rle_open_window(plist_reader* reader, rle_window* window, warm_rc_t* rc) {
    uint64_t buffered_end = std::min(reader->buf_start + reader->buf_fill, reader->list_end);
    if (buffered_end < reader->list_end && buffered_end - reader->position < RLE_MAX_ITEM) {
        ST_TRY(rle_refill(reader, false, rc));
        buffered_end = std::min(reader->buf_start + reader->buf_fill, reader->list_end);
        const bool file_ends = buffered_end < reader->list_end && buffered_end - reader->position < RLE_MAX_ITEM;
        if (file_ends) return _set_rc(rc, WARM_RC_SHORT_READ);
    }
    window->at = reader->bytes + (reader->position - reader->buf_start);
    window->end = reader->bytes + (buffered_end - reader->buf_start);
    window->safe_end = buffered_end == reader->list_end ? window->end : window->end - (RLE_MAX_ITEM - 1);
    return 0;
}

void rle_close_window(plist_reader* reader, const uint8_t* at) {
    reader->position = reader->buf_start + static_cast<uint64_t>(at - reader->bytes);
}

int rle_decode_long_item(const plist_reader* reader, const uint8_t** at, const uint8_t* end, uint32_t* last,
                         uint32_t* run, warm_rc_t* rc) {
    const bool is_run = **at == 0;
    if (is_run) (*at)++;
    uint32_t number = 0;
    const uint32_t used = vbe_decode_bounded(&number, *at, end);
    if (used == 0 || number == 0) return plist_corrupt(rc, "posting list does not decode");
    *at += used;
    const uint64_t newest = uint64_t{*last} + number;
    if (newest >= reader->num_values) return plist_bad_event(rc, newest);
    *last = is_run ? *last : *last + number - 1;
    *run = is_run ? number : 1;
    return 0;
}

int rle_next_item(plist_reader* reader, warm_rc_t* rc) {
    if (reader->position == reader->list_end) return 0;
    rle_window window;
    ST_TRY(rle_open_window(reader, &window, rc));
    if (is_one_byte_gap(*window.at)) {
        const uint64_t id = uint64_t{reader->last} + *window.at++;
        if (id >= reader->num_values) return plist_bad_event(rc, id);
        reader->last = static_cast<uint32_t>(id - 1);
        reader->run = 1;
    } else {
        ST_TRY(rle_decode_long_item(reader, &window.at, window.end, &reader->last, &reader->run, rc));
    }
    rle_close_window(reader, window.at);
    return 0;
}

int rle_move_to(plist_reader* reader, uint32_t target, warm_rc_t* rc) {
    if (!run_reaches(reader, target)) {
        if (reader->run > 0) {
            reader->last += reader->run;
            reader->run = 0;
        }
        ST_TRY(skip_to(reader, target, rc));
    }
    const uint32_t first = reader->last + 1;
    if (reader->run > 0 && first < target) {
        reader->run -= target - first;
        reader->last = target - 1;
    }
    return 0;
}

}  // namespace veldar
