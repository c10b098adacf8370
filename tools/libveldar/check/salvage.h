// What can be saved of a damaged slice of events.
//
// First its bits: where a seal says what a piece was, the one bit is looked for that makes it so again. Then its parts:
//
//   damaged                         lost
//   header, or what keeps the       everything
//   slice from being opened
//   values, m, s, st, h             these events
//   lexicon                         the terms of the blocks
//   offsets                         the terms whose lists begin or end there
//   lists                           the terms whose lists are there
//   metadata                        without a seal, the terms that it contradicts; else nothing: it can be counted
//   d                               the events that are marked: nobody knows which of them were deleted
//
// A seal proves blocks of 64 KiB. In one that differs the checker (fsck_slice.h) says more: where it blames something,
// that is lost and what lies within a sector of it, and the rest of the block is taken for sound; where it blames nothing
// the whole block is lost, and so it is when only what is proved is to be saved. Without a seal there are no blocks: what
// the checker does not blame is taken for sound. Slices of metrics are repaired bit by bit only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "searchthing/seal/slice_seal.h"
#include "tools/libveldar/check/fsck_slice.h"

namespace veldar::tool {

struct salvage_report {
    bool is_sound = false;     // there was nothing to do
    bool is_repaired = false;  // the new slice is the old one as it was sealed
    bool is_hopeless = false;  // nothing can be saved: `error` says why
    bool is_metric = false;
    std::string error;
    uint64_t repaired_bits = 0;
    uint64_t events = 0, events_lost = 0;  // without those that are deleted
    uint64_t terms = 0, terms_lost = 0;
    std::vector<std::string> lost_terms;  // some of those whose text is known
    st_time_t earliest = 0, latest = 0;   // of the lost events; of the whole slice when terms or everything are lost
    std::string file;                     // the new slice, in the directory given; empty when there is none
};

// Looks at the slice, and unless it is sound writes what can be saved as a new slice into the directory, which is empty
// and in the file system of the slice. `proved_only`: nothing of a block that differs is saved. Throws failure_t when something cannot be read or written, std::bad_alloc.
salvage_report salvage_slice(const std::string& slice, const std::string& directory, bool proved_only = false);

}  // namespace veldar::tool
