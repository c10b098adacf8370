// The posting lists, their offset entries and the terms' metadata of a merge, written in one sweep over the terms.
//
// Every list is written in the encoding that takes the fewest bytes, of those that the header's flags can tell apart:
//
//   RLE     always possible; term 0 has no entry of its own and takes no other
//   BMAP    when it is shorter, and readers see all of it (bitmap.h has the rule)
//   SPO     one event, if its number fits the entry
//   DEDUP   when an earlier RLE or BMAP term has the same bytes
#pragma once

#include "searchthing/base/bitset.h"
#include "searchthing/merge/merge_internal.h"

namespace veldar {

// What a reader of the finished slice must find of one list.
struct merge_list_digest_t {
    uint32_t count = 0;
    uint64_t hash = 0;  // of the numbers
    void add(uint32_t id) {
        hash = (hash ^ id) * 0x9E3779B97F4A7C15;
        count++;
    }
};

struct merge_postings_t {
    uint64_t bytes = 0;  // of all lists
    uint64_t postings = 0;
    bool entries_too_narrow = false;  // failed because an entry of 4 bytes cannot hold an offset
    merge_list_digest_t first, last;  // of the first and the last term
};

// Writes the three sections of the target, whose header is complete but for the number of postings and whose lexicon
// ends at `lists_offset`. Entry t of `holders` tells which sources have term t. WARM_RC_WRITE, WARM_RC_DOES_NOT_FIT for
// what the format cannot hold, WARM_RC_TIME_MISMATCH for events outside the header's times, and what merge_lists_next
// reports.
[[nodiscard]] int merge_postings_write(warm_merge_t* merge, int fd, uint64_t lists_offset, const bmap_array_t& holders,
                                       merge_postings_t* out, warm_rc_t* rc);

}  // namespace veldar
