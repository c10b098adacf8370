// Bit sets, bitmap posting lists and the bitmap iterator.
//
// (the owner of this file draws the byte table here)
#pragma once

#include <cstddef>
#include <cstdint>

#include "libzero/resource.h"
#include "searchthing/st_timeval.h"
#include "searchthing/warm_rc.h"

namespace veldar {

using bmap32_t = uint32_t;
using bmap64_t = uint64_t;
struct bmap_array_t {
    bool narrow = false;  // 32-bit entries when set, 64-bit otherwise
    buffer<uint32_t> entries32;
    buffer<uint64_t> entries64;
};
void bmap32_set(bmap32_t* set, uint32_t bit);
void bmap64_set(bmap64_t* set, uint32_t bit);
int bmap32_is_set(bmap32_t set, uint32_t bit);
int bmap64_is_set(bmap64_t set, uint32_t bit);
int bmap_array_alloc(bmap_array_t* array, bool narrow, uint64_t count);
void bmap_array_set(bmap_array_t* array, uint64_t entry, uint32_t bit);
int bmap_array_is_set(const bmap_array_t* array, uint64_t entry, uint32_t bit);
void bmap_array_entry_as_bmap64(const bmap_array_t* array, uint64_t entry, bmap64_t* out);
void bmap_array_free(bmap_array_t* array);

struct bitmap_writer_t {
    uint32_t first_id = 0;
    uint8_t* buf = nullptr;  // the caller's
    uint64_t vbe_length = 0;
    uint64_t buf_start_pos = 0;
    uint64_t buf_size = 0;
    uint64_t buf_pos = 0;
    uint64_t flushed = 0;
    int fd = -1;
    uint64_t offset = 0;
};
void bitmap_writer_init(bitmap_writer_t* bw, uint8_t* buf, uint64_t start, uint64_t size, int fd, uint64_t offset);
int bitmap_writer_append(bitmap_writer_t* bw, uint32_t id, warm_rc_t* rc);
int bitmap_writer_flush(bitmap_writer_t* bw, warm_rc_t* rc);
int bitmap_writer_close(bitmap_writer_t* bw, uint64_t* size, bool flush);

struct bitmap_iterator_t {
    uint8_t* bytes = nullptr;
    uint64_t bitmap_size = 0;  // bytes, a multiple of 4
    uint64_t position = 0;     // bytes, a multiple of 4
};
void _bitmap_itr_init(bitmap_iterator_t* itr, uint8_t* bytes, uint64_t bitmap_size);
uint32_t _bitmap_itr_next(bitmap_iterator_t* itr);
uint32_t _bitmap_itr_seek(bitmap_iterator_t* itr, uint32_t bit);

inline constexpr uint32_t BITMAP_CHUNK = 8192;
struct bitmap_reader_t {
    uint32_t first_id = 0;
    uint32_t vbe_length = 0;
    uint8_t chunk[BITMAP_CHUNK + 4] = {};
    bitmap_iterator_t itr;
    uint32_t consumed = 0;
    uint32_t chunk_base = 0;  // event number of bit 0 of the current chunk
    int fd = -1;
    uint64_t offset = 0;
    uint64_t bsize = 0;
    const uint8_t* src = nullptr;
};
int bitmap_reader_init(bitmap_reader_t* br, int fd, uint64_t offset, uint64_t size, const uint8_t* src, warm_rc_t* rc);
int bitmap_reader_next(bitmap_reader_t* br, uint32_t* id, warm_rc_t* rc);
// First event at or after `target`: chunks before it are skipped without being read.
int bitmap_reader_seek(bitmap_reader_t* br, uint32_t target, uint32_t* id, warm_rc_t* rc);
void bitmap_reader_close(bitmap_reader_t* br);

uint64_t _calc_bitmap_size(uint32_t begin, uint32_t end);
uint32_t st_get_num_bits_set(uint32_t word);

struct bitmap_and_bounds_s {
    st_timeval_t et;
    st_timeval_t lt;
    uint32_t begin = 0;
    uint32_t begin_preamble = 0;
    uint32_t end = 0;          // exclusive; bits from end on are 0
    buffer<uint8_t> bm;        // bits of [begin, end)
    uint8_t* ogbm = nullptr;   // not owned
};
using bitmap_and_bounds_t = bitmap_and_bounds_s;
bool bnb_tsval_passes_filter(const bitmap_and_bounds_t* bnb, uint32_t id);
void free_bitmap_and_bounds(bitmap_and_bounds_t* bnb);

}  // namespace veldar
