// An open warm slice: opening, verifying, simple queries, closing, naming, minifying.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libzero/ospath-builder.h"
#include "libzero/resource.h"
#include "libzero/xorshift128plus.h"
#include "searchthing/fclex.h"
#include "searchthing/term_meta.h"
#include "searchthing/tsidx_names.h"
#include "searchthing/tsval.h"
#include "searchthing/warm_rc.h"
#include "searchthing/warmslice_header.h"

namespace veldar {

struct cs_reader_t;  // the column store of metric slices

struct st_warm_slice {
    unique_fd fd;
    file_map map;
    st_warm_slice_body* body = nullptr;
    tsval_reader_t tsval_reader;
    const uint8_t* m_array = nullptr;
    const uint8_t* s_array = nullptr;
    const uint8_t* st_array = nullptr;
    const uint8_t* h_array = nullptr;
    uint8_t* d_array = nullptr;        // written only through a read-write handle
    bool pl_wide = false;
    const uint8_t* plo = nullptr;      // null for a mini slice
    const uint8_t* metadata = nullptr; // read-write handles only
    term_meta_reader_t meta_reader;
    uint64_t postings_base = 0;
    FCLEX* lexicon = nullptr;          // null for a mini slice
    uint64_t plo_last = ~uint64_t{0};
    st_filename_metadata_t fname_meta;
    xorshift128plus_state rng;
    uint32_t slice_kind = 0;
    bool has_subseconds = false;
    bool ms_requested = false;
    // Appended to the fields that the handle has always had:
    bool writable = false;
    bool borrowed_fd = false;          // opened from the caller's descriptor: close does close it, a failed open does not
    uint64_t file_size = 0;
    uint64_t lexicon_size = 0;
    buffer<uint8_t> owned;             // creation: the whole slice in memory, body points into it
};
using WARM = st_warm_slice;

WARM* st_warm_slice_open_rdonly(const char* path, warm_rc_t* rc);
WARM* st_warm_slice_open_rdonly_from_fd(int fd, const st_filename_metadata_t* fname_meta, warm_rc_t* rc);
WARM* st_warm_slice_open_rdwr(const char* path, warm_rc_t* rc);
int st_warm_slice_close(WARM* handle);
int st_warm_slice_create_mini(const char* path, int out_fd);
int st_warm_slice_filename_from_time(ospath_buf* out, const char* prefix, const char* suffix, st_time_t t1, st_time_t t2,
                                     xorshift128plus_state* rng);
uint64_t st_warm_slice_unique_id(xorshift128plus_state* rng);

st_time_t st_warm_slice_latest(const WARM* warm);
st_time_t st_warm_slice_earliest(const WARM* warm);
uint64_t st_warm_slice_size(const WARM* warm, warm_rc_t* rc);
uint32_t st_warm_slice_terms(const WARM* warm);
uint32_t st_warm_slice_values(const WARM* warm);
uint32_t st_warm_slice_blocksize(const WARM* warm);
bool st_warm_slice_has_fclex(const WARM* warm);
bool st_warm_slice_has_postings(const WARM* warm);
bool st_warm_slice_has_deletes(const WARM* warm);
uint64_t size_without_vardata(const WARM* warm);
int64_t st_warm_slice_dimsets_offset(const WARM* warm, warm_rc_t* rc);

}  // namespace veldar
