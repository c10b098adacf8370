// Posting lists: the offset entries, the four encodings, the writer of a section and the reader of one list.
//
// (the owner of this file draws the byte table here)
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "libzero/resource.h"
#include "searchthing/bitmap.h"
#include "searchthing/query_info.h"
#include "searchthing/warm_rc.h"
#include "searchthing/warmslice_header.h"
#include "searchthing/warmslice_util.h"

namespace veldar {

struct st_warm_slice;

inline constexpr uint32_t PLIST_END = 0xFFFFFFFF;   // "no further event"
inline constexpr uint32_t PLIST_BUFFER = 8192;

enum plo_type_t : uint32_t { PLO_RLE = 0, PLO_BMAP = 1, PLO_SPO = 2, PLO_DEDUP = 3 };
const char* pl_type_as_str(uint32_t type);

struct plist_writer_t {
    int fd = -1;
    uint64_t offset = 0;
    uint8_t buf[PLIST_BUFFER] = {};
    uint64_t buffered = 0;
    uint64_t total = 0;  // bytes of all terms so far
    uint32_t count_forterm = 0;
    uint32_t first_value = 0;
    uint32_t last_value = 0;
    uint32_t run = 0;
    uint64_t term_start = 0;
    bool flushed_during_term = false;
    std::span<const uint32_t> tsval_id_to_dimset_map;
    uint32_t tsval_id_to_dimset_map_cap = 0;
    uint32_t last_skipped_value = PLIST_END;
    uint32_t plo_type = PLO_RLE;  // set by the caller before _plist_writer_start_term
    bitmap_writer_t bitmap;
    warm_rc_t rc;
};
void _plist_writer_open(plist_writer_t* plw, int fd, uint64_t offset, std::span<const uint32_t> map);
int _plist_writer_start_term(plist_writer_t* plw);
int _plist_writer_put(plist_writer_t* plw, uint32_t value);
int _plist_writer_end_term(plist_writer_t* plw);
int _plist_writer_close(plist_writer_t* plw);

struct plo_term_context_t {
    int64_t start = -1;
    int64_t end = -1;
    uint32_t type = PLO_RLE;
    uint32_t memory_position = 0;
};

// Reusable: one reader serves any number of terms of its slice, one after another.
struct plist_reader {
    int fd = -1;
    const st_warm_slice_body* whdr = nullptr;
    array_reader_t plo_reader;
    uint64_t postings_base = 0;
    uint64_t plo_last = ~uint64_t{0};
    uint32_t plo_type = PLO_RLE;
    uint32_t num_values = 0;
    // RLE
    uint64_t list_position = 0;   // section offset of buf[0]
    uint64_t list_end = 0;        // section offset of the list's end
    buffer<uint8_t> buf;
    uint64_t buf_pos = 0, buf_fill = 0;
    uint32_t last = 0;
    uint32_t returned = 0;
    uint32_t run = 0;
    // BMAP, SPO
    bitmap_reader_t bitmap;
    uint32_t single = 0;
    bool single_done = false;
    st_query_info_t* stats = nullptr;
    warm_rc_t rc;
};

int _init_reader(plist_reader* reader, st_warm_slice* warm, uint64_t span, st_query_info_t* stats, warm_rc_t* rc);
int64_t _pl_offset_reader(plist_reader* reader, int64_t index, uint32_t* type, warm_rc_t* rc);
int plist_term_offset_reader(plist_reader* reader, plo_term_context_t* context, uint32_t term, warm_rc_t* rc);
int _seek_reader(plist_reader* reader, uint32_t term, warm_rc_t* rc);
int _next(plist_reader* reader, uint32_t* id, warm_rc_t* rc);
// First event at or after `target`, or PLIST_END. Never goes back.
int _seek(plist_reader* reader, uint32_t target, uint32_t* id, warm_rc_t* rc);
void close_plist_reader(plist_reader* reader);

}  // namespace veldar
