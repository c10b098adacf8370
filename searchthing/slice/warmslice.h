// An open warm slice: opening, verifying, simple queries, closing, naming, minifying.
//
// What a handle maps and what it reads through the descriptor:
//
//   section                         read-only        read-write   mini slice
//   header, values, m s st h d      mapped           mapped       mapped
//   posting-list offsets            mapped           mapped       -
//   term metadata                   read             mapped       -
//   reverse term table, lexicon     read             mapped       -
//   posting lists and what follows  read             read         -
//
// A mini slice ends where the posting-list offsets would begin. No mapping reaches past the end of its file.
#pragma once

#include <cstdint>
#include <memory>

#include "libzero/change_stamp.h"
#include "libzero/resource.h"
#include "libzero/xorshift128plus.h"
#include "searchthing/base/stop_check.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/format/tsidx_names.h"
#include "searchthing/format/warmslice_header.h"
#include "searchthing/slice/kept_lists.h"
#include "searchthing/values/term_meta.h"
#include "searchthing/values/tsval.h"

namespace veldar {

struct ospath_buf;
struct st_fclex_handle;
using FCLEX = st_fclex_handle;

struct cs_reader_t;  // cstore.h
struct warm_cstore_closer {
    void operator()(cs_reader_t* cstore) const;
};
struct warm_metric_t;  // warmslice_runs.cc
struct warm_metric_closer {
    void operator()(warm_metric_t* metric) const;
};

// How many values were marked as deleted when the file had this stamp, as far as the stamp will tell of further marks.
struct warm_deletes_t {
    bool is_known = false;
    uint32_t count = 0;
    change_stamp stamp;
};

struct st_warm_slice {
    unique_fd fd;  // empty for a slice in memory
    file_map map;
    st_warm_slice_body* body = nullptr;  // the first bytes of `map`, or of `owned`
    tsval_reader_t tsval_reader;         // opened in memory, companions set
    uint8_t* m_array = nullptr;          // the five companion arrays; written only through a writable handle
    uint8_t* s_array = nullptr;
    uint8_t* st_array = nullptr;
    uint8_t* h_array = nullptr;
    uint8_t* d_array = nullptr;
    bool pl_wide = false;               // posting-list offset entries are 8 bytes
    const uint8_t* plo = nullptr;       // posting-list offset entries; null for a mini slice and a slice in memory
    const uint8_t* metadata = nullptr;  // read-write handles only
    term_meta_reader_t meta_reader;     // opened on first use
    uint64_t postings_base = 0;         // file offset of the posting lists
    FCLEX* lexicon = nullptr;           // owned; null for a mini slice
    uint64_t plo_last = ~uint64_t{0};   // bytes of all posting lists; all-ones when there are none or it is unknown
    st_filename_metadata_t fname_meta;
    xorshift128plus_state rng;
    uint32_t slice_kind = 0;                                  // 0 for metric slices without a column store, else 2
    std::unique_ptr<cs_reader_t, warm_cstore_closer> cstore;  // opened on first use
    bool has_subseconds = false;                              // WARM_FLAG_MS_PRESENT
    bool ms_requested = false;                                // WARM_FLAG_MS_REQUESTED
    bool writable = false;                                    // read-write handles and slices in memory
    warm_deletes_t deletes;                                   // of a read-only handle
    uint64_t file_size = 0;                                   // when it was opened
    uint64_t lexicon_size = 0;                                // bytes of the forward lexicon
    buffer<uint8_t> owned;                                    // a slice in memory: the whole slice
    kept_lists lists;
    stop_check* read_stop = nullptr;  // of the directory's handle that keeps the slice open; null: reads always go on
    // Metric slices with runs only, made on first use: what is remembered between reads.
    std::unique_ptr<warm_metric_t, warm_metric_closer> metric;
};
using WARM = st_warm_slice;

// After so many steps more of a read (stop_check.h): 0, or WARM_RC_CANCELLED when it is to end.
[[nodiscard]] inline int warm_slice_go_on(const WARM* warm, uint64_t steps, warm_rc_t* rc) {
    return warm->read_stop == nullptr ? 0 : warm->read_stop->after(steps, rc);
}

// All opens return null with the reason in `rc` and leave nothing open or allocated. A handle is used by one thread at
// a time; any number of processes may have the same file open.

// Opens the file read-only. A path that ends in ".tsidx" must have a name that parses (WARM_RC_FILE_NAME "parsing
// filename"), any other is taken to cover all time. WARM_RC_INVALID_ARGUMENT for a null path, WARM_RC_SHORT_READ or
// WARM_RC_END_OF_FILE for a file too short for a header, WARM_RC_NO_SECTION for posting-list offsets past the end,
// WARM_RC_NO_LEXICON for a lexicon that is missing or has another number of terms than the header, the status of a read
// "reading last plo entry", WARM_RC_CORRUPT for counts that contradict each other; WARM_RC_OPEN, WARM_RC_FILE_SIZE,
// WARM_RC_BAD_MAGIC, WARM_RC_MAP.
WARM* st_warm_slice_open_rdonly(const char* path, warm_rc_t* rc);
// The same for a name that has been parsed.
WARM* warm_slice_open_named(const char* path, const st_filename_metadata_t& fname_meta, warm_rc_t* rc);
// The same over an open descriptor, which the handle owns from success on and the caller keeps on failure. Without
// `fname_meta` the slice is taken to cover all time.
WARM* st_warm_slice_open_rdonly_from_fd(int fd, const st_filename_metadata_t* fname_meta, warm_rc_t* rc);
// Maps the whole file read-write, for setting d bits in place. As read-only, but WARM_RC_EMPTY_FILE for an empty file,
// and WARM_RC_CORRUPT "forward_body offset is beyond file size", "plo last term", "plo_last_term is beyond file size",
// "num terms mismatch" or "reverse num terms", WARM_RC_NO_MEMORY "forward idx" or "reverse idx" for the inconsistencies
// named.
WARM* st_warm_slice_open_rdwr(const char* path, warm_rc_t* rc);
// Flushes a writable mapping, closes and frees everything: 0, or -1. After a flush that failed the handle is still
// open, to be closed once more or to be discarded; when the descriptor alone could not be closed, the handle is gone,
// what was written is on the disk, and errno tells. `still_open`, if given, learns which of the two; only a handle
// opened read-write can stay open.
int st_warm_slice_close(WARM* handle, bool* still_open = nullptr);
struct warm_closer {
    void operator()(WARM* handle) const { st_warm_slice_close(handle); }
};
using warm_ptr = std::unique_ptr<WARM, warm_closer>;
// Closes and frees everything without a flush.
void st_warm_slice_discard(WARM* handle);

// Points the handle's body, companion arrays, values reader and flags at a whole slice in memory (a mapping, or the
// bytes that creation fills). The header must be complete and the memory must reach past the companion arrays. Fails
// with the status of the values reader and "_populate_warm_handle_common failed".
[[nodiscard]] int _populate_warm_handle_common(WARM* warm, uint8_t* slice, warm_rc_t* rc);

// Copies the header and the sections before the posting-list offsets of the slice at `path` into `out_fd`, at the same
// offsets. 0, or WARM_RC_INVALID_ARGUMENT for a negative descriptor, -1 when the sections do not lie inside the file,
// the header's status, WARM_RC_OPEN, WARM_RC_FILE_SIZE, WARM_RC_EMPTY_FILE, WARM_RC_WRITE.
[[nodiscard]] int st_warm_slice_create_mini(const char* path, int out_fd);

// The name of a slice with the events of `earliest` to `latest`: "<prefix>/<latest>-<earliest>-<unique id><suffix>".
// One "/" at the end of the prefix is dropped. Every call takes a fresh id. 0, WARM_RC_INVALID_ARGUMENT for an empty
// prefix, or WARM_RC_PATH_TOO_LONG when the name is longer than 4095 bytes.
[[nodiscard]] int st_warm_slice_filename_from_time(ospath_buf* out, const char* prefix, const char* suffix,
                                                   st_time_t earliest, st_time_t latest, xorshift128plus_state* rng);
// The same with a given id.
[[nodiscard]] int st_warm_slice_filename(ospath_buf* out, const char* prefix, const char* suffix, st_time_t earliest,
                                         st_time_t latest, uint64_t id);
// Microseconds since the epoch << 32 | (process id mod 65535) << 16 | 16 random bits, kept to 64 bits.
uint64_t st_warm_slice_unique_id(xorshift128plus_state* rng);

st_time_t st_warm_slice_latest(const WARM* warm);  // of the file name, as is the earliest
st_time_t st_warm_slice_earliest(const WARM* warm);
uint64_t st_warm_slice_size(const WARM* warm, warm_rc_t* rc);  // of the file now; 0 when it cannot be told
uint32_t st_warm_slice_terms(const WARM* warm);
uint32_t st_warm_slice_values(const WARM* warm);
uint32_t st_warm_slice_blocksize(const WARM* warm);  // terms per lexicon block; 0 for a mini slice
bool st_warm_slice_has_fclex(const WARM* warm);
bool st_warm_slice_has_postings(const WARM* warm);
bool st_warm_slice_has_deletes(WARM* warm);       // warm_slice_count_deleted
uint64_t size_without_vardata(const WARM* warm);  // the lexicon's offset
// File offset of the dimension sets: -1 with WARM_RC_UNSUPPORTED "not a msidx v2 tsidx", WARM_RC_NO_LEXICON "size is
// 0", or the read's status.
[[nodiscard]] int64_t st_warm_slice_dimsets_offset(const WARM* warm, warm_rc_t* rc);
// Where the column store begins. Negative with the reason in `rc`: WARM_RC_UNSUPPORTED "not a msidx cstore tsidx",
// WARM_RC_NO_DIMSETS "size is 0" for a slice whose dimension sets cannot be placed, or the status of reading their
// header (ds_header_read).
[[nodiscard]] int64_t st_warm_slice_cstore_offset(const WARM* warm, warm_rc_t* rc);
// The slice's column store, opened on first use; the handle owns it. Null with a failure of st_warm_slice_cstore_offset
// or cs_reader_open, or with WARM_RC_CORRUPT "cstore footer is corrupted" for one that was made for other values.
cs_reader_t* st_warm_slice_cstore(WARM* warm, warm_rc_t* rc);

}  // namespace veldar
