// Term metadata: per term the event count and the earliest and latest time, in three encodings.
//
// (the owner of this file draws the byte table here)
#pragma once

#include <cstddef>
#include <cstdint>

#include "libzero/resource.h"
#include "searchthing/query_info.h"
#include "searchthing/warm_rc.h"
#include "searchthing/warmslice_header.h"
#include "searchthing/warmslice_util.h"

namespace veldar {

struct st_term_metadata {
    uint32_t count;
    uint32_t earliest;  // seconds, compared as signed
    uint32_t latest;
};

struct term_meta_reader_t {
    uint32_t _mtype = 0;
    array_reader_t ar;
    const uint8_t* entries = nullptr;  // in-memory 12-byte big-endian entries (type 1)
    uint32_t num_terms = 0;
    uint32_t count_nbits = 0, time_nbits = 0;
    uint32_t time_offset = 0;
    uint32_t next = 0;
    st_term_metadata current = {};
    bool opened = false;
};
int term_meta_reader_open(term_meta_reader_t* reader, int fd, const uint8_t* entries, const st_warm_slice_body* header,
                          bool sequential, st_query_info_t* stats, warm_rc_t* rc);
const st_term_metadata* term_meta_reader_next(term_meta_reader_t* reader, warm_rc_t* rc);
int term_meta_reader_close(term_meta_reader_t* reader);

struct term_meta_writer_t {
    uint32_t mtype = 0;
    uint32_t count_nbits = 0, time_nbits = 0;
    uint32_t time_offset = 0;
    bool buffer_mode = false;
    int fd = -1;
    bitpack_writer_t bp;
    buffer<uint64_t> words;
    array_writer_t aw;
    uint8_t* out = nullptr;  // buffer mode: the caller's
    uint64_t capacity = 0;
    uint64_t cursor = 0;
};
int term_meta_writer_open(term_meta_writer_t* writer, int fd, const st_warm_slice_body* header, warm_rc_t* rc);
void term_meta_writer_open_buffer_mode(term_meta_writer_t* writer, const st_warm_slice_body* header, void* out,
                                       uint64_t size);
int term_meta_writer_append(term_meta_writer_t* writer, const st_term_metadata* record, warm_rc_t* rc);
int term_meta_writer_close(term_meta_writer_t* writer, warm_rc_t* rc);

}  // namespace veldar
