// Merging several slices into one new file.
//
// The sources are mapped and read, never written. A merge keeps every event with its companions, every term and every
// posting; two events whose time, address and companions are all equal become one. Deleted events stay, marked,
// unless they are to be dropped. What comes out:
//
//   magic     that of the first source; "Veldar6" for "Veldar3" to "Veldar5"
//   values    newest first; packed where the write level asks for it and readers can find the end of the section
//   lexicon   front-coded anew, with more terms a block than creation takes
//   lists     the shortest of the encodings that the target's flags can tell apart
//
// Metric slices keep every value, with milliseconds when any source has them; their dimension sets and column stores
// become one each.
//
// Memory: the merged lexicon, about 28 bytes a merged term, 8 to 16 bytes a value, and the largest list.
//
// One merge belongs to one thread. Other processes may read the sources and mark events in them as deleted while it
// runs: it works on the marks it found at the beginning and takes over later ones when it is told to.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "searchthing/base/st_timeval.h"
#include "searchthing/base/stop_check.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/format/warmslice_header.h"
#include "searchthing/format/write_options.h"

namespace veldar {

struct warm_merge_t;

inline constexpr uint32_t MERGE_MAX_SOURCES = 64;

struct warm_merge_options_t {
    TSWRITEOPTS write_options;  // the write level, merge_buffer_bytes, advanced_postings
    uint32_t lexicon_tpb = 0;   // terms per lexicon block; 0: merge_terms_per_block of the write options
    st_merge_mapper_t mapper = nullptr;
    void* mapper_context = nullptr;
    warm_merge_progress_fn progress = nullptr;
    void* progress_context = nullptr;
    // Asked about every ten thousand terms or values, and whenever some MiB have been flushed: true ends the merge, that
    // is its opening or writing, with WARM_RC_CANCELLED.
    warm_stop_fn stop = nullptr;
    void* stop_context = nullptr;
    // Events that are deleted when the slices are opened go, and so do terms that no other event has; one slice is
    // enough then. When nothing would be left, everything stays.
    bool drop_deleted = false;
};

struct warm_merge_totals_t {
    st_time_t earliest = 0, latest = 0;            // of the events; known from opening on
    uint32_t values = 0, terms = 0, postings = 0;  // of the target, once it is written
    uint64_t source_bytes = 0;                     // of all source files
    uint64_t target_bytes = 0;                     // of the target, once it is written
};

// Opens 2 to 64 slices (1 to 64 with drop_deleted) read-only and prepares the target's header; no file is made. The
// paths and the options are copied, the mapper's and the other functions' contexts stay the caller's. Null:
// WARM_RC_INVALID_ARGUMENT for another number of slices, for slices that cannot be merged with each other
// (st_warm_slice_merge_kind) or for a mini slice; WARM_RC_DOES_NOT_FIT when a total would pass 32 bits; WARM_RC_READ
// for offsets of postings that cannot be read; WARM_RC_CANCELLED; what st_warm_slice_open_rdonly reports. The detail is the index of the
// slice where one is to blame.
warm_merge_t* st_warm_slice_merge_open(std::span<const char* const> paths, const warm_merge_options_t* options,
                                       warm_rc_t* rc);

// Writes the target, which is created exclusively with mode 0600, reads it back to verify it, and with `durable` has it
// flushed to the disk (its directory is the caller's business). 0; on failure the file that it made is gone again:
// WARM_RC_OPEN, WARM_RC_WRITE or WARM_RC_CLOSE of it, WARM_RC_DOES_NOT_FIT for what the format cannot hold,
// WARM_RC_TIME_MISMATCH for a term whose events lie outside its slice's times, WARM_RC_CORRUPT for damage in a source,
// WARM_RC_CANCELLED when it was stopped.
[[nodiscard]] int st_warm_slice_merge_write(warm_merge_t* merge, const char* path, bool durable, warm_rc_t* rc);

// Marks in the finished target what has been marked as deleted in the sources by now, and flushes it. May be repeated.
// 0, WARM_RC_INVALID_ARGUMENT before a write has succeeded, -1 when the flush failed, or what st_warm_slice_open_rdwr
// reports.
[[nodiscard]] int st_warm_slice_merge_carry_deletes(warm_merge_t* merge, const char* target_path, warm_rc_t* rc);

// Valid until the merge is closed.
const warm_merge_totals_t* st_warm_slice_merge_totals(const warm_merge_t* merge);

// Closes the sources and frees everything. Null is allowed.
void st_warm_slice_merge_close(warm_merge_t* merge);
struct merge_closer {
    void operator()(warm_merge_t* handle) const { st_warm_slice_merge_close(handle); }
};
using merge_ptr = std::unique_ptr<warm_merge_t, merge_closer>;

// How many of these slices, from the first on, one merge may take: their totals fit the format, what the merge has to
// keep in memory is estimated at no more than 1 GiB, and they are no more than 64. The spans have the same length.
uint32_t st_warm_slice_merge_fitting(std::span<const st_warm_slice_body> headers, std::span<const uint64_t> file_sizes);

// Slices merge with slices of the same kind, a small number; -1 for slices that are not merged: metric slices
// of older generations, without a column store.
int st_warm_slice_merge_kind(const st_warm_slice_body* header);

}  // namespace veldar
