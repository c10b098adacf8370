// Decoding RLE posting lists.
#include <algorithm>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/postings/gap_groups.h"
#include "searchthing/postings/plist_internal.h"

namespace veldar {

namespace {

// Where the next mark is to be set, in the section; all-ones when none is.
uint64_t next_mark(const plist_reader* reader) {
    const plist_marks_t* const marks = reader->marks;
    if (marks == nullptr || marks->count == marks->marks.size()) return UINT64_MAX;
    const uint64_t due = reader->list_begin + uint64_t{marks->count + 1} * PLIST_MARK_BYTES;
    return due > reader->position ? due : UINT64_MAX;
}

// The sum of eight one-byte gaps, or 0 when one of the bytes is something else.
inline uint64_t sum_of_eight_gaps(const uint8_t* at) {
    constexpr uint64_t ONES = 0x0101010101010101, TOPS = 0x8080808080808080, PAIRS = 0x00FF00FF00FF00FF;
    const uint64_t word = load_le64(at);
    const uint64_t zero_or_long = (word | (word - ONES)) & TOPS;
    if (zero_or_long != 0) return 0;
    return (((word & PAIRS) + (word >> 8 & PAIRS)) * 0x0001000100010001) >> 48;
}

// Passes groups of gaps; true when the last event is the first at or after `target`.
bool seek_in_groups(gap_span* span, uint32_t target, uint32_t num_values) {
    if (gap_groups_usable() && target < num_values) return gap_groups_seek(span, target, num_values);
    const uint64_t limit = std::min(target, num_values);
    while (span->at < span->stop && span->end - span->at >= 8) {
        const uint64_t sum = sum_of_eight_gaps(span->at);
        if (sum == 0 || span->last + sum >= limit) return false;
        span->last += static_cast<uint32_t>(sum);
        span->at += 8;
    }
    return false;
}

// Goes to the last mark that has only events before `target` in front of it, if that lies ahead.
int go_to_mark(plist_reader* reader, uint32_t target, warm_rc_t* rc) {
    const plist_mark_t* const marks = reader->marks->marks.data();
    const uint64_t at = reader->position - reader->list_begin;
    // A mark lies less than PLIST_MARK_BYTES behind the first byte that it can lie at.
    uint64_t low = at / PLIST_MARK_BYTES, step = 1;
    while (low + step <= reader->marks->count && marks[low + step - 1].last < target) {
        low += step;
        step *= 2;
    }
    for (; step > 0; step /= 2) {
        if (low + step <= reader->marks->count && marks[low + step - 1].last < target) low += step;
    }
    if (low == 0 || low > reader->marks->count) return 0;
    const plist_mark_t& mark = marks[low - 1];
    if (mark.last >= target || mark.offset <= at) return 0;
    reader->position = reader->list_begin + mark.offset;
    reader->last = mark.last;
    if (reader->position > reader->list_end) return plist_corrupt(rc, "a posting list became shorter");
    const uint64_t buffered_end = reader->buf_start + reader->buf_fill;
    if (reader->position < buffered_end || reader->position == reader->list_end) return 0;
    return rle_refill(reader, std::min(reader->list_end, reader->position + 2 * PLIST_MARK_BYTES), rc);
}

// Skips whole items while all their events lie before `target`; nothing is pending. Afterwards the pending run, if
// there is one, ends at or after the target; without one the list is at its end.
int skip_to(plist_reader* reader, uint32_t target, warm_rc_t* rc) {
    if (reader->marks != nullptr) ST_TRY(go_to_mark(reader, target, rc));
    while (reader->position < reader->list_end) {
        rle_window window;
        ST_TRY(rle_open_window(reader, &window, rc));
        gap_span span = {window.at, window.safe_end, window.end, reader->last};
        for (const uint8_t* no_group_before = span.at; span.at < span.stop;) {
            if (span.at >= no_group_before) {
                const uint8_t* const before = span.at;
                if (seek_in_groups(&span, target, reader->num_values)) {
                    reader->last = span.last - 1;
                    reader->run = 1;
                    rle_close_window(reader, span.at);
                    return 0;
                }
                no_group_before = span.at + (span.at == before ? GROUP_PATIENCE : 0);
                if (span.at >= span.stop) break;
            }
            uint32_t run = 1;
            if (is_one_byte_gap(*span.at)) {
                const uint64_t id = uint64_t{span.last} + *span.at++;
                if (id >= reader->num_values) return plist_bad_event(rc, id);
                span.last = static_cast<uint32_t>(id - 1);
            } else {
                ST_TRY(rle_decode_long_item(reader, &span.at, window.end, &span.last, &run, rc));
            }
            const uint32_t newest = span.last + run;
            if (newest >= target) {
                reader->last = span.last;
                reader->run = run;
                rle_close_window(reader, span.at);
                return 0;
            }
            span.last = newest;
        }
        reader->last = span.last;
        rle_close_window(reader, span.at);
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

int rle_refill(plist_reader* reader, uint64_t limit, warm_rc_t* rc) {
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
        ST_TRY(rle_refill(reader, reader->list_end, rc));
        buffered_end = std::min(reader->buf_start + reader->buf_fill, reader->list_end);
        const bool file_ends = buffered_end < reader->list_end && buffered_end - reader->position < RLE_MAX_ITEM;
        if (file_ends) return _set_rc(rc, WARM_RC_SHORT_READ);
    }
    window->at = reader->bytes + (reader->position - reader->buf_start);
    window->end = reader->bytes + (buffered_end - reader->buf_start);
    window->safe_end = buffered_end == reader->list_end ? window->end : window->end - (RLE_MAX_ITEM - 1);
    const uint64_t due = next_mark(reader);
    if (due - reader->position < static_cast<uint64_t>(window->safe_end - window->at)) {
        window->safe_end = window->at + (due - reader->position);
    }
    return 0;
}

void rle_close_window(plist_reader* reader, const uint8_t* at) {
    const uint64_t before = reader->position, due = next_mark(reader);
    reader->position = reader->buf_start + static_cast<uint64_t>(at - reader->bytes);
    plist_marks_t* const marks = reader->marks;
    if (marks == nullptr) return;
    const bool is_first_time =
        !marks->marks.empty() && before - reader->list_begin >= uint64_t{marks->count} * PLIST_MARK_BYTES;
    if (!is_first_time) marks->passed += reader->position - before;
    if (reader->position < due) return;
    const uint64_t offset = reader->position - reader->list_begin;
    marks->marks[marks->count++] = {reader->last + reader->run, static_cast<uint32_t>(offset)};
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
