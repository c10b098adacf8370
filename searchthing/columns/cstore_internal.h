// What the builder and the reader of the column store share.
#pragma once

#include <cstdint>

namespace veldar {

inline constexpr char CSTORE_MAGIC[] = {'C', 'S', 'T', 'O', 'R', 'E', '0', '1'};
inline constexpr uint32_t CSTORE_VERSION = 2;         // written
inline constexpr uint32_t CSTORE_OLDEST_VERSION = 1;  // read

struct cstore_head_t {  // the first bytes of the section (cstore.h), as they lie in the file
    char magic[8];
    uint32_t version;
    uint32_t sets;
    uint32_t num_values;
    uint32_t num_preambles;
    uint64_t footer_offset;
};
static_assert(sizeof(cstore_head_t) == 32);

struct cstore_footer_t {  // what precedes the entries
    uint32_t sets;
    uint32_t checksum;
    uint64_t section_size;
};
static_assert(sizeof(cstore_footer_t) == 16);

}  // namespace veldar
