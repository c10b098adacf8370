// Event values: the record, the three encodings of the values section and the companion arrays.
//
// (the owner of this file draws the byte tables here)
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "libzero/resource.h"
#include "searchthing/query_info.h"
#include "searchthing/st_timeval.h"
#include "searchthing/warm_rc.h"
#include "searchthing/warmslice_header.h"
#include "searchthing/warmslice_util.h"

namespace veldar {

using st_addr_t = uint32_t;
using st_multikv_seek_addr_t = double;
using st_measure_t = double;
using st_source_t = uint32_t;
using st_src_type_t = uint32_t;
using st_host_t = uint32_t;

inline constexpr uint32_t ST_DELETED_SOURCE = 0xFFFFFFFF;  // s of a deleted event

struct st_tsval {
    st_time_t time;
    st_addr_t address;
    union {
        double measure;
        struct {
            uint32_t measures;
            uint32_t first_measure;
        };
    };
    st_source_t s;
    st_src_type_t st;
    st_host_t h;
    uint32_t pad;
    uint64_t subsecond;
};
static_assert(sizeof(st_tsval) == 40 && offsetof(st_tsval, s) == 16 && offsetof(st_tsval, subsecond) == 32);

struct tsval_reader_t {
    const st_warm_slice_body* header = nullptr;
    int fd = -1;
    uint64_t values_offset = 0;
    std::span<const uint8_t> m, s, st, h, d;  // companion arrays; null data = absent
    bool packed = false;
    bool has_preambles = false;               // encoding 3
    bool has_subsecond = false;
    uint32_t time_nbits = 0, addr_nbits = 0;
    uint32_t num_values = 0, num_preambles = 0;
    array_reader_t words;                     // packed: the section as 8-byte words
    array_reader_t preambles;
    const uint8_t* plain = nullptr;           // plain encoding in memory
    buffer<uint8_t> cache;                    // plain encoding from the file
    uint64_t cache_entries = 0, cache_first = 0, cache_count = 0;
    st_query_info_t* stats = nullptr;
};

int tsval_reader_open_partial(tsval_reader_t* reader, int fd, const st_warm_slice_body* header, uint64_t cache_bytes,
                              st_query_info_t* stats, const uint8_t* values_in_memory, warm_rc_t* rc);
// Gives the reader the five companion arrays of a mapping that begins with the header and is known to hold them all.
void tsval_reader_set_companions(tsval_reader_t* reader, const uint8_t* mapping);
int tsval_reader_decode(tsval_reader_t* reader, uint32_t id, st_tsval* out, bool cache_only, uint32_t hint, warm_rc_t* rc);
// The time alone: what binary searches over the values need.
int tsval_reader_decode_time(tsval_reader_t* reader, uint32_t id, st_time_t* seconds, uint64_t* nanoseconds, warm_rc_t* rc);
int tsval_reader_decode_preamble(tsval_reader_t* reader, uint32_t id, st_tsval* out, warm_rc_t* rc);
void tsval_reader_close(tsval_reader_t* reader);

// Packed writing.
struct tsval_preamble_writer_t {
    int fd = -1;
    uint64_t word_offset = 0;
    buffer<uint64_t> buf;
    uint32_t count = 0;
};
int tsval_preamble_writer_open(tsval_preamble_writer_t* writer, int fd, const st_warm_slice_body* header, warm_rc_t* rc);
int tsval_preamble_writer_put_preamble(tsval_preamble_writer_t* writer, uint32_t time, uint32_t address, warm_rc_t* rc);
int tsval_preamble_writer_flush_buffer(tsval_preamble_writer_t* writer, warm_rc_t* rc);
void tsval_preamble_writer_clear(tsval_preamble_writer_t* writer);
int tsval_preamble_writer_close(tsval_preamble_writer_t* writer, warm_rc_t* rc);

struct tsval_writer_t {
    const st_warm_slice_body* header = nullptr;
    uint32_t time_nbits = 0, addr_nbits = 0;
    buffer<uint64_t> words;
    bitpack_writer_t bp;
    tsval_preamble_writer_t preambles;
};
int tsval_writer_open(int fd, tsval_writer_t* writer, const st_warm_slice_body* header, warm_rc_t* rc);
int tsval_writer_put(tsval_writer_t* writer, const st_tsval* value, warm_rc_t* rc);
int tsval_writer_put_preamble(tsval_writer_t* writer, uint32_t time, uint32_t address, warm_rc_t* rc);
int tsval_writer_close(tsval_writer_t* writer, warm_rc_t* rc);

uint32_t tsval_decode_subsecond_to_millisecond(st_encoded_subsecond_t encoded);
// A measure as the integer that the m array holds: NaN and negatives 0, at most 2^31 - 1.
uint32_t tsval_clamp_measure(double measure);

}  // namespace veldar
