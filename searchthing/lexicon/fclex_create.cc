// Writing a lexicon body in memory from sorted terms.
#include <algorithm>
#include <cstring>

#include "searchthing/lexicon/fclex.h"
#include "searchthing/lexicon/fclex_internal.h"

namespace veldar {

namespace {

// The terms of a slice lie in the order in which they came, so each is a cache miss of its own unless asked for early.
constexpr uint32_t PREFETCH_DISTANCE = 12;

}  // namespace

// A term of up to 16383 bytes needs at most two numbers of two bytes; a longer one at most six bytes more.
uint64_t fclex_body_bound(uint64_t num_terms, uint64_t total_length, uint32_t tperb) {
    const uint64_t block_count = tperb == 0 ? 0 : (num_terms + tperb - 1) / tperb;
    return FCLEX_HEADER_SIZE + 4 * block_count + total_length + 4 * num_terms + 6 * (total_length / 0x4000) + 1;
}

FCLEX* st_fclex_create(void* body, uint64_t size, const char* const* sorted_terms, uint32_t num_terms, uint32_t tperb,
                       uint32_t uncompressed_size) {
    ST_ASSERT(body != nullptr && sorted_terms != nullptr);
    if (num_terms == 0 || tperb == 0 || uncompressed_size == 0) return nullptr;
    const uint64_t blocks_offset = fclex_shape(num_terms, tperb).blocks_offset();
    ST_ASSERT(blocks_offset <= size);
    auto* bytes = static_cast<uint8_t*>(body);
    auto* header = reinterpret_cast<st_fclex_body*>(bytes);
    header->terms.set(num_terms);
    header->tperb.set(tperb);
    header->uncompressed_size.set(uncompressed_size);

    uint8_t* block_end = bytes + FCLEX_HEADER_SIZE;
    uint8_t* const blocks = bytes + blocks_offset;
    uint64_t used = 0;
    std::span<const uint8_t> previous;
    uint32_t position = 0;
    for (uint32_t i = 0; i < num_terms; i++) {
        if (num_terms - i > PREFETCH_DISTANCE) __builtin_prefetch(sorted_terms[i + PREFETCH_DISTANCE]);
        const std::span<const uint8_t> term = fclex_bytes(sorted_terms[i], std::strlen(sorted_terms[i]));
        const uint32_t common = _lcp(previous, term);
        if (i != 0 && !fclex_ascends(previous, term, common)) return nullptr;
        if (position == tperb) {
            store_be32(block_end, static_cast<uint32_t>(used));
            block_end += 4;
            position = 0;
        }
        const std::span<const uint8_t> rest = term.subspan(position == 0 ? 0 : common);
        const uint64_t room = size - blocks_offset - used;
        uint8_t aside[FCLEX_MAX_NUMBERS];
        uint8_t* const numbers = room < sizeof aside ? aside : blocks + used;
        const uint32_t coded =
            fclex_encode_numbers(numbers, position++, tperb - 1, common, static_cast<uint32_t>(rest.size()));
        ST_ASSERT(coded + rest.size() <= room);
        if (numbers == aside) std::memcpy(blocks + used, aside, coded);
        if (!rest.empty()) std::memcpy(blocks + used + coded, rest.data(), rest.size());
        used += coded + rest.size();
        if (used > UINT32_MAX) return nullptr;
        previous = term;
    }
    store_be32(block_end, static_cast<uint32_t>(used));
    ST_ASSERT(block_end + 4 == blocks);
    return _fclex_open_bounded({bytes, blocks_offset + used});
}

}  // namespace veldar
