#include "searchthing/base/bitpack.h"

#include <cstring>

#include "libzero/assertions.h"
#include "searchthing/base/timed_read.h"

namespace veldar {

void bp_writer_open(bitpack_writer_t* bp, int fd, uint64_t* words, uint64_t capacity, uint64_t word_offset) {
    if (capacity != 0) std::memset(words, 0, capacity * sizeof(uint64_t));  // no words: no pointer either
    *bp = {.fd = fd, .words = words, .capacity = capacity, .bit_cursor = 0, .word_offset = word_offset};
}

int _bp_writer_append_checked(bitpack_writer_t* bp, uint32_t value, uint32_t nbits, warm_rc_t* rc) {
    if (nbits > 32) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "val_nbits invalid");
    if (bp->bit_cursor + nbits > 64 * bp->capacity) ST_TRY(bp_writer_flush_buffer(bp, rc));
    if (nbits == 0) return _set_rc(rc, WARM_RC_OK);
    if (bp->bit_cursor / 64 >= bp->capacity) {
        return _set_rc_msg(rc, WARM_RC_CAPACITY, "meta writer buffer insufficient");
    }
    if (bp->bit_cursor + nbits > 64 * bp->capacity) {
        return _set_rc_msg(rc, WARM_RC_CAPACITY, "meta writer buffer insufficient(2)");
    }
    return bp_writer_append(bp, value, nbits, rc);
}

int bp_writer_pad64(bitpack_writer_t* bp, warm_rc_t* rc) {
    const uint32_t padding = static_cast<uint32_t>(-bp->bit_cursor % 64);
    ST_TRY(bp_writer_append(bp, 0, padding, rc));
    ST_ASSERT(bp->bit_cursor % 64 == 0);
    return 0;
}

int bp_writer_flush_buffer(bitpack_writer_t* bp, warm_rc_t* rc) {
    _set_rc(rc, WARM_RC_OK);
    if (bp->fd < 0 || bp->bit_cursor == 0) return 0;
    const uint64_t used = (bp->bit_cursor + 63) / 64;
    ST_ASSERT(used <= bp->capacity);
    const size_t size = used * sizeof(uint64_t);
    if (st_pwrite(bp->fd, bp->words, size, bp->word_offset * sizeof(uint64_t)) != static_cast<int64_t>(size)) {
        return _set_rc_msg(rc, WARM_RC_WRITE, "bp_writer_flush failed");
    }
    const uint64_t partial_bits = bp->bit_cursor % 64;
    const uint64_t partial = partial_bits == 0 ? 0 : bp->words[used - 1];
    ST_ASSERT(partial >> partial_bits == 0);  // no value was wider than its field
    std::memset(bp->words, 0, size);
    bp->words[0] = partial;
    bp->bit_cursor = partial_bits;
    bp->word_offset += partial_bits == 0 ? used : used - 1;
    return 0;
}

int bp_writer_close(bitpack_writer_t* bp, warm_rc_t* rc) {
    const int status = bp_writer_flush_buffer(bp, rc);
    *bp = {};
    return status;
}

int _bitunpack_fetch(array_reader_t* words, uint32_t nbits, uint64_t bit, bool cache_only, uint64_t hint_bit,
                     uint32_t* out, warm_rc_t* rc) {
    ST_ASSERT(words->_obj_sz == sizeof(uint64_t));
    if (nbits == 0) {
        *out = 0;
        return _set_rc(rc, WARM_RC_OK);
    }
    const uint8_t* element = _ar_get_i(words, bit / 64, cache_only, hint_bit / 64, rc);
    if (element == nullptr) return rc->warm_rc;
    const uint32_t shift = bit % 64;
    uint64_t value = load_le64(element) >> shift;
    if (64 - shift < nbits) {
        element = _ar_get(words, cache_only, hint_bit / 64, rc);
        if (element == nullptr) return rc->warm_rc;
        value |= load_le64(element) << (64 - shift);
    }
    *out = static_cast<uint32_t>(value & ((uint64_t{1} << nbits) - 1));
    return 0;
}

}  // namespace veldar
