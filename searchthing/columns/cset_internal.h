// What the writer and the reader of column sets share.
#pragma once

#include <xxhash.h>

#include <cstddef>
#include <cstdint>

#include "searchthing/base/bitpack.h"
#include "searchthing/columns/cset.h"

namespace veldar {

inline constexpr char CSET_MAGIC[] = {'C', 'S', 'T', '1'};
inline constexpr uint8_t CSET_ELEMENT_DOUBLE = 1;

struct cset_head_t {  // the first bytes of a column set (cset.h), as they lie in the file
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
static_assert(sizeof(cset_head_t) == 32 && offsetof(cset_head_t, checksum) == 28);

inline uint64_t cset_packed_words(uint64_t count, uint32_t nbits) {
    return (count * nbits + 63) / 64;
}

// Of the head without its last field and the tables that follow it.
inline uint32_t cset_head_checksum(const cset_head_t* head, const uint8_t* tables, size_t size) {
    return XXH32(tables, size, XXH32(head, offsetof(cset_head_t, checksum), 0));
}

}  // namespace veldar
