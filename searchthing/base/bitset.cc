#include "searchthing/base/bitset.h"

#include <bit>

#include "libzero/assertions.h"
#include "libzero/endian.h"

namespace veldar {

namespace {

inline __attribute__((always_inline)) uint64_t count_words(const uint8_t* bytes, size_t size) {
    uint64_t count = 0;
    size_t i = 0;
    for (; i + 8 <= size; i += 8) count += static_cast<uint64_t>(__builtin_popcountll(load_le64(bytes + i)));
    for (; i < size; i++) count += static_cast<uint64_t>(__builtin_popcount(bytes[i]));
    return count;
}

#ifdef __x86_64__
__attribute__((target("popcnt"))) uint64_t count_by_instruction(const uint8_t* bytes, size_t size) {
    return count_words(bytes, size);
}
#endif

}  // namespace

void bmap32_set(bmap32_t* set, uint32_t bit) {
    ST_ASSERT(bit < (sizeof(bmap32_t) * 8));
    *set |= uint32_t{1} << bit;
}

void bmap64_set(bmap64_t* set, uint32_t bit) {
    ST_ASSERT(bit < (sizeof(bmap64_t) * 8));
    *set |= uint64_t{1} << bit;
}

int bmap32_is_set(bmap32_t set, uint32_t bit) {
    ST_ASSERT(bit < (sizeof(bmap32_t) * 8));
    return set >> bit & 1;
}

int bmap64_is_set(bmap64_t set, uint32_t bit) {
    ST_ASSERT(bit < (sizeof(bmap64_t) * 8));
    return set >> bit & 1;
}

int bmap_array_alloc(bmap_array_t* array, bool narrow, uint64_t count) {
    *array = {};
    array->narrow = narrow;
    return narrow ? array->entries32.alloc(count) : array->entries64.alloc(count);
}

void bmap_array_set(bmap_array_t* array, uint64_t entry, uint32_t bit) {
    if (array->narrow) {
        bmap32_set(&array->entries32[entry], bit);
    } else {
        bmap64_set(&array->entries64[entry], bit);
    }
}

int bmap_array_is_set(const bmap_array_t* array, uint64_t entry, uint32_t bit) {
    return array->narrow ? bmap32_is_set(array->entries32[entry], bit) : bmap64_is_set(array->entries64[entry], bit);
}

void bmap_array_entry_as_bmap64(const bmap_array_t* array, uint64_t entry, bmap64_t* out) {
    *out = array->narrow ? array->entries32[entry] : array->entries64[entry];
}

void bmap_array_free(bmap_array_t* array) {
    *array = {};
}

uint64_t _calc_bitmap_size(uint32_t begin, uint32_t end) {
    ST_ASSERT(end >= begin);
    return (uint64_t{end} - begin + 1 + 7) / 8;
}

uint32_t st_get_num_bits_set(uint32_t word) {
    return static_cast<uint32_t>(std::popcount(word));
}

uint64_t bits_count(std::span<const uint8_t> bytes) {
#ifdef __x86_64__
    static const bool has_instruction = __builtin_cpu_supports("popcnt");
    if (has_instruction) return count_by_instruction(bytes.data(), bytes.size());
#endif
    return count_words(bytes.data(), bytes.size());
}

}  // namespace veldar
