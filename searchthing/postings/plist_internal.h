// The undecoded part of an RLE list, shared by the files that read posting lists.
//
// A list is read as runs: `last` and `run` of the reader name the events that come next, and whatever is decoded, a gap
// or a run, becomes the next pending run.
#pragma once

#include <cstdint>

#include "libzero/vbe.h"
#include "searchthing/postings/plist.h"

namespace veldar {

// The longest item of an RLE list: the run mark and a number. Where that many bytes are buffered, or the list's end is,
// an item that does not decode is damage.
inline constexpr uint64_t RLE_MAX_ITEM = 1 + VBE_MAX_BYTES;
static_assert(RLE_MAX_ITEM < PLIST_BUFFER, "a refill always gives an item");

// So many bytes are decoded one by one where no group of gaps was found (gap_groups.h), before the next is looked for.
inline constexpr uint64_t GROUP_PATIENCE = 16;

// The undecoded bytes of the list that are buffered.
struct rle_window {
    const uint8_t* at;
    const uint8_t* end;
    const uint8_t* safe_end;  // an item that begins before lies in the window whole, or the list is damaged
};

// Opens a window at the reader's position, reading if needed; it is empty only at the list's end. Where a mark is to be
// set, its safe end is there.
[[nodiscard]] int rle_open_window(plist_reader* reader, rle_window* window, warm_rc_t* rc);
// Goes on behind what was used; the reader's `last` and `run` are those of the last item. Sets a mark where one is due.
void rle_close_window(plist_reader* reader, const uint8_t* at);
// Fills the buffer from the reader's position on, to the limit at most.
[[nodiscard]] int rle_refill(plist_reader* reader, uint64_t limit, warm_rc_t* rc);

// A gap of 1 to 127; other bytes begin a longer gap or a run.
inline bool is_one_byte_gap(uint8_t byte) {
    return byte - 1u < 0x7F;
}

// Decodes a gap of more than one byte, or a run, at `*at`: the next events are last + 1 to last + run.
[[nodiscard]] int rle_decode_long_item(const plist_reader* reader, const uint8_t** at, const uint8_t* end,
                                       uint32_t* last, uint32_t* run, warm_rc_t* rc);
// Decodes the next item into the reader's last and run; run stays 0 at the list's end.
[[nodiscard]] int rle_next_item(plist_reader* reader, warm_rc_t* rc);
// Makes the next event at or after `target` the first of the pending run; at the list's end nothing is pending.
[[nodiscard]] int rle_move_to(plist_reader* reader, uint32_t target, warm_rc_t* rc);

int plist_bad_event(warm_rc_t* rc, uint64_t id);
int plist_corrupt(warm_rc_t* rc, const char* message);

}  // namespace veldar
