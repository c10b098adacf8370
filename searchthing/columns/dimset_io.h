// Reading and writing the dimension-set section of a slice (bytes in dimset.h).
#pragma once

#include <cstdint>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/base/packed_array.h"
#include "searchthing/columns/dimset.h"
#include "searchthing/format/warmslice_header.h"

namespace veldar {

struct bitmap_and_bounds_s;
using bitmap_and_bounds_t = bitmap_and_bounds_s;

// Collects ordered sets in memory and writes them as one section.
struct ds_writer_t {
    buffer<uint32_t> ends;  // end of each set, in words of the body
    buffer<uint32_t> body;
    uint32_t num_dimsets = 0;
    uint32_t num_words = 0;
};
// Reserves room for the given totals: 0 or WARM_RC_NO_MEMORY "ds_writer_open".
[[nodiscard]] int ds_writer_open(ds_writer_t* w, uint32_t max_sets, uint32_t max_body_words, warm_rc_t* rc);
// Appends a set, which is copied. WARM_RC_CAPACITY "ds_writer_append offsets", WARM_RC_DIMSET_BUFFER "ds_writer_append
// buffer" when it does not fit.
[[nodiscard]] int ds_writer_append(ds_writer_t* w, const ds_dimset_t* ds, warm_rc_t* rc);
const ds_dimset_t* ds_writer_last_appended(const ds_writer_t* w);  // null when there is none
// Writes the section at file offset `start` and leaves `offset` just past it. WARM_RC_WRITE with the piece that failed.
[[nodiscard]] int ds_writer_flush(const ds_writer_t* w, int fd, uint64_t* offset, uint64_t start, warm_rc_t* rc);
void ds_writer_close(ds_writer_t* w);

struct ds_reader_s {
    int fd = -1;  // not owned
    uint64_t section_offset = 0;
    uint32_t num_dimsets = 0;
    uint32_t num_words = 0;
    array_reader_t ends;
    // Words [ahead_start, ahead_start + ahead_count) of the body, read ahead of a walk in id order.
    buffer<uint32_t> ahead;
    uint64_t ahead_start = 0;
    uint64_t ahead_count = 0;
    uint64_t walk_next = 0;  // where the set after the last one begins
};
using ds_reader_t = ds_reader_s;

// Reads and checks a section's header alone: 0, the status of a read "ds_header_read header", WARM_RC_BAD_MAGIC
// "ds_header_read magic".
[[nodiscard]] int ds_header_read(ds_header_t* header, int fd, uint64_t offset, warm_rc_t* rc);
// Opens the section at a file offset. The descriptor stays the caller's and outlives the reader. The status of a read
// "ds_reader_open header", WARM_RC_BAD_MAGIC "ds_reader_open magic", WARM_RC_NO_MEMORY "ds_reader_open ar_open".
[[nodiscard]] int ds_reader_open(ds_reader_t* r, int fd, uint64_t section_offset, warm_rc_t* rc);
// Reads set `id` into a buffer of `bufsz_words` words; DS_MAX_DIMSET_SIZE_WORDS always suffice. WARM_RC_CAPACITY for an
// id past the last set and for a word count above the maximum; WARM_RC_CORRUPT for a set of fewer than 6 words, of more
// than the buffer holds, past the body, or whose own counts contradict its size; the status of a read "ds_reader_read
// dimset". Reads in id order read ahead.
[[nodiscard]] int ds_reader_read(ds_reader_t* r, uint32_t id, ds_dimset_t* buf, uint32_t bufsz_words, warm_rc_t* rc);
// A reader that was never opened may be closed.
void ds_reader_close(ds_reader_t* r);

// What a walk checks, by the version of the section's format: sections that accompany a column store have version 3.
enum ds_verify_t : int {
    DS_VERIFY_NONE = 0,
    DS_VERIFY_V2 = 2,  // the optional fields of a set ascend
    DS_VERIFY_V3 = 3,  // so do its dimensions and its columns, each by themselves, and the sets
};
ds_verify_t ds_verify_version(const st_warm_slice_body* header);
// A result other than 0 stops the walk and is returned. The set lives until the callback returns.
using ds_apply_fn = int (*)(uint32_t id, const ds_dimset_t* ds, void* ctx, warm_rc_t* rc);
// Calls back for every set in id order. What verifying finds is WARM_RC_CORRUPT with the set's id; else the status of
// the read, or WARM_RC_NO_MEMORY "calloc DS_MAX_DIMSET_SIZE_WORDS".
[[nodiscard]] int ds_reader_apply(ds_reader_t* r, ds_verify_t verify, ds_apply_fn callback, void* ctx, warm_rc_t* rc);
// The same for the sets first to end - 1, and of those only the ones whose value preamble passes the filter, unless
// that is null. The preamble of set `id` has the number N - 1 - id.
[[nodiscard]] int ds_reader_apply_within_dimset_chunk(ds_reader_t* r, uint32_t first, uint32_t end,
                                                      const bitmap_and_bounds_t* filter, ds_verify_t verify,
                                                      ds_apply_fn callback, void* ctx, warm_rc_t* rc);

// What a merge of sections tells about itself.
struct ds_merge_info_t {
    uint32_t num_dimsets = 0;                              // merged sets
    std::vector<buffer<uint32_t>> dimset_old2new_id_maps;  // by source: old id -> new id
    // By source: old term id -> the sum of (old id + 1) squared over the sets that hold it, 0 for none: what tells two
    // lists of sets apart.
    std::vector<buffer<uint64_t>> sets_of_terms;
};
inline constexpr uint32_t DS_MERGE_MAX_SOURCES = 64;
// Merges the sections of `n` slices into an opened writer: every distinct set once, in order. `posting_offsets` are the
// file offsets of the slices' posting lists; `term_maps` give, by source, old term id -> new term id, and must be
// ascending; null stands for no maps at all: the terms stay. The writer is the caller's to close, whatever the result.
// WARM_RC_INVALID_ARGUMENT for more than 64 sources, WARM_RC_DOES_NOT_FIT when the sums pass 32 bits, WARM_RC_CORRUPT
// with the number of the source for one that has no readable section ("_offset_dimsets"), sets or terms out of order
// ("ordering violation"), or a section that its header or its file contradicts, else the status of reading, translating
// or appending. Never throws.
[[nodiscard]] int st_dimset_merge(uint32_t n, const int* fds, const st_warm_slice_body* const* bodies,
                                  const uint64_t* posting_offsets, const std::span<const uint32_t>* term_maps,
                                  ds_merge_info_t* info, ds_writer_t* writer, warm_rc_t* rc);

}  // namespace veldar
