// Packed arrays and bit packing over positioned reads and writes: the four mechanisms that every section is made of.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libzero/resource.h"
#include "searchthing/query_info.h"
#include "searchthing/warm_rc.h"

namespace veldar {

// --- checked reads and writes -------------------------------------------------------------------------------------
int st_file_write(int fd, const void* data, int64_t length);
int64_t st_timed_pread_msg(int fd, void* out, size_t length, uint64_t offset, st_query_info_t* stats, bool verbose);
int _pread_verify(int fd, void* out, size_t length, uint64_t offset, const char* label);
// pread and pwrite that retry EINTR and nothing else.
int64_t st_pread(int fd, void* out, size_t length, uint64_t offset);
int64_t st_pwrite(int fd, const void* data, size_t length, uint64_t offset);

// --- array writer -------------------------------------------------------------------------------------------------
struct array_writer_t {
    int fd = -1;
    uint64_t offset = 0;
    buffer<uint8_t> data;
    uint32_t buffered = 0;
    uint32_t written = 0;
    uint32_t capacity = 0;
    uint64_t _obj_sz = 0;
};
int _aw_open(array_writer_t* aw, int fd, uint64_t offset, uint64_t object_size, uint32_t capacity);
int _aw_write(array_writer_t* aw, const void* element, uint64_t object_size);
int _aw_close(array_writer_t* aw);

// --- array reader -------------------------------------------------------------------------------------------------
struct array_reader_t {
    buffer<uint8_t> owned;          // file mode: span * _obj_sz bytes
    const uint8_t* data = nullptr;  // the cache span, or the caller's whole array
    bool in_memory = false;
    uint32_t cursor = 0;
    uint32_t count = 0;
    int fd = -1;
    uint64_t base = 0;
    uint64_t _obj_sz = 0;
    uint64_t span = 0;  // elements read by a refill; may be lowered below what was allocated and raised again
    uint64_t cache_start = 0;
    uint64_t cache_count = 0;
    st_query_info_t* stats = nullptr;
};
using ar_compare_fn = int (*)(const void* element, const void* key);

int _ar_open(array_reader_t* ar, int fd, uint64_t base, uint64_t object_size, uint32_t count, uint64_t span,
             st_query_info_t* stats, const void* memory);
const uint8_t* _ar_get(array_reader_t* ar, bool cache_only, uint64_t hint, warm_rc_t* rc);
const uint8_t* _ar_get_i(array_reader_t* ar, uint64_t index, bool cache_only, uint64_t hint, warm_rc_t* rc);
const uint8_t* _ar_find_atleast(array_reader_t* ar, uint32_t first, uint32_t number, const void* key,
                                ar_compare_fn compare, uint32_t* index, warm_rc_t* rc);
bool _ar_idx_out_of_bounds(const array_reader_t* ar, uint64_t index);
void _ar_close(array_reader_t* ar);

// --- bit-pack writer and unpacker ---------------------------------------------------------------------------------
struct bitpack_writer_t {
    int fd = -1;
    uint64_t* words = nullptr;  // owned by the caller
    uint64_t capacity = 0;      // in words
    uint64_t bit_cursor = 0;
    uint64_t word_offset = 0;   // file position of words[0] in 8-byte units
};
void bp_writer_open(bitpack_writer_t* bp, int fd, uint64_t* words, uint64_t capacity, uint64_t word_offset);
int bp_writer_append(bitpack_writer_t* bp, uint32_t value, uint32_t nbits, warm_rc_t* rc);
int bp_writer_pad64(bitpack_writer_t* bp, warm_rc_t* rc);
int bp_writer_flush_buffer(bitpack_writer_t* bp, warm_rc_t* rc);
int bp_writer_close(bitpack_writer_t* bp, warm_rc_t* rc);
int bitunpack_word32(array_reader_t* words, uint32_t nbits, uint64_t bit, bool cache_only, uint64_t hint_bit,
                     uint32_t* out, warm_rc_t* rc);

}  // namespace veldar
