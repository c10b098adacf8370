#include "searchthing/format/write_options.h"

#include <algorithm>

namespace veldar {

namespace {

constexpr uint64_t MIB = 1048576;
constexpr uint64_t MAX_SIZE_MIB = 4096;
static_assert(MAX_SIZE_MIB * MIB - 1 == UINT32_MAX);
constexpr uint32_t MAX_MERGE_BUFFER_BYTES = 1073741824;
constexpr uint32_t MIN_MERGE_READER_SPAN = 128;

}  // namespace

void st_tsidx_write_opts_init_with_byte_sizes(TSWRITEOPTS* opts, uint32_t level, uint64_t byte_size, uint32_t third,
                                              uint32_t fourth, uint32_t fifth, uint32_t sixth) {
    opts->write_level = level;
    opts->byte_size = byte_size;
    opts->merge_terms_per_block = third;
    opts->merge_buffer_bytes = std::min(fourth, MAX_MERGE_BUFFER_BYTES);
    opts->advanced_postings = fifth;
    opts->merge_reader_span = std::max(sixth, MIN_MERGE_READER_SPAN);
    opts->millisecond_mode = 0;
    opts->seal = 1;
}

void st_tsidx_write_opts_init(TSWRITEOPTS* opts, uint32_t level, uint64_t size_mib, uint32_t fifth, uint32_t sixth) {
    const uint64_t byte_size = size_mib < MAX_SIZE_MIB ? size_mib * MIB : MAX_SIZE_MIB * MIB - 1;
    st_tsidx_write_opts_init_with_byte_sizes(opts, level, byte_size, 64, 8388608, fifth, sixth);
}

void st_tsidx_write_opts_init_write_level(TSWRITEOPTS* opts, uint32_t level) {
    st_tsidx_write_opts_init(opts, level, 1500, 1, 1024);
}

void st_tsidx_write_opts_set_defaults(TSWRITEOPTS* opts) {
    st_tsidx_write_opts_init_write_level(opts, 4);
}

void st_tsidx_write_opts_copy(TSWRITEOPTS* dst, const TSWRITEOPTS* src) {
    if (dst != nullptr && src != nullptr) *dst = *src;
}

bool st_tswriteopts_support_millisecond(const TSWRITEOPTS* opts) {
    return opts != nullptr && opts->millisecond_mode == 1 && opts->write_level > 3;
}

bool st_write_level_is_valid(uint32_t level) {
    return level >= 1 && level <= 4;
}

}  // namespace veldar
