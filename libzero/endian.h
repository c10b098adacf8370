// The one place that knows byte order. Loads and stores go through memcpy, so they are legal at any alignment; be32 and
// be64 are header fields of alignment 1 that hold file byte order and convert on each access.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "libzero/assertions.h"

namespace veldar {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "bit-packed sections are little-endian words in host order");

// Unchecked loads and stores: the caller has proved that the bytes are there.
inline uint32_t load_be32(const void* at) {
    uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return __builtin_bswap32(word);
}

inline uint64_t load_be64(const void* at) {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return __builtin_bswap64(word);
}

inline uint32_t load_le32(const void* at) {
    uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

inline uint64_t load_le64(const void* at) {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

inline void store_be32(void* at, uint32_t value) {
    value = __builtin_bswap32(value);
    std::memcpy(at, &value, sizeof value);
}

inline void store_be64(void* at, uint64_t value) {
    value = __builtin_bswap64(value);
    std::memcpy(at, &value, sizeof value);
}

inline void store_le32(void* at, uint32_t value) {
    std::memcpy(at, &value, sizeof value);
}
inline void store_le64(void* at, uint64_t value) {
    std::memcpy(at, &value, sizeof value);
}

// An offset outside the span is a broken invariant of the caller, which must have compared sizes before.
inline uint32_t be32_at(std::span<const uint8_t> bytes, size_t offset) {
    ST_ASSERT(offset <= bytes.size() && bytes.size() - offset >= sizeof(uint32_t));
    return load_be32(bytes.data() + offset);
}

// A big-endian field of a record that lies in a file or a mapping.
struct be32 {
    uint8_t bytes[4];
    uint32_t get() const { return load_be32(bytes); }
    void set(uint32_t value) { store_be32(bytes, value); }
};

struct be64 {
    uint8_t bytes[8];
    uint64_t get() const { return load_be64(bytes); }
    void set(uint64_t value) { store_be64(bytes, value); }
};

static_assert(sizeof(be32) == 4 && alignof(be32) == 1);
static_assert(sizeof(be64) == 8 && alignof(be64) == 1);

}  // namespace veldar
