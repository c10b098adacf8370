// What the writer and the reader of column sets share.
#pragma once

#include <xxhash.h>

#include <cstddef>
#include <cstdint>

#include "searchthing/base/bitpack.h"
#include "searchthing/columns/cset.h"
#include "searchthing/columns/cset_block1.h"

namespace veldar {

inline constexpr char CSET_MAGIC[] = {'C', 'S', 'T', '2'};
inline constexpr char CSET_MAGIC1[] = {'C', 'S', 'T', '1'};
inline constexpr uint8_t CSET_ELEMENT_DOUBLE = 1;

struct cset_head_t {  // the first bytes of a column set (cset.h), as they lie in the file
    char magic[4];
    uint8_t element_type;
    uint8_t value_nbits;
    uint8_t ordinal_nbits;
    uint8_t zero7;
    uint32_t elements;
    uint32_t blocks;
    uint32_t runs;
    uint32_t heads_size;
    uint32_t zero24;
    uint32_t checksum;
};
static_assert(sizeof(cset_head_t) == 32 && offsetof(cset_head_t, checksum) == 28);

struct cset_head1_t {  // of version 1
    char magic[4];
    uint8_t element_type;
    uint8_t zero5[3];
    uint32_t elements;
    uint32_t blocks;
    uint32_t runs;
    uint8_t value_nbits;
    uint8_t ordinal_nbits;
    uint8_t zero22[2];
    uint32_t data_units;
    uint32_t checksum;
};
static_assert(sizeof(cset_head1_t) == 32 && offsetof(cset_head1_t, checksum) == 28);

inline uint64_t cset_packed_words(uint64_t count, uint32_t nbits) {
    return (count * nbits + 63) / 64;
}

// Of the head without its last field and the tables that follow it.
inline uint32_t cset_head_checksum(const void* head, const uint8_t* tables, size_t size) {
    return XXH32(tables, size, XXH32(head, offsetof(cset_head_t, checksum), 0));
}

// Opening (cset_open.cc) and reading. 0 or the status of the read.
int cset_read_at(const cset_reader_t* reader, void* out, uint64_t size, uint64_t offset);
// The tables of a set, for a reader that knows its section and what accounts its reads: a failure of cset_reader_open.
[[nodiscard]] int cset_open_tables(const cset_reader_t* reader, uint32_t term_id,
                                   std::shared_ptr<const cset_tables_t>* out, warm_rc_t* rc);

// What the head of a version 1 block said.
inline cset_block1_t cset_block1_of(const cset_place_t& place) {
    cset_block1_t block = {};
    block.count = place.block.count;
    block.codec = place.block.codec;
    block.exponent = place.block.exponent;
    block.width = place.width;
    block.residual_bits = place.block.residual_bits;
    block.exceptions = place.exceptions;
    return block;
}

}  // namespace veldar
