#include "searchthing/base/packed_array.h"

#include <algorithm>
#include <cstring>

#include "libzero/assertions.h"
#include "searchthing/base/timed_read.h"

namespace veldar {

namespace {

int write_buffered(array_writer_t* aw) {
    ST_ASSERT(aw->buffered <= aw->capacity);
    const uint64_t size = aw->buffered * aw->_obj_sz;
    if (st_pwrite(aw->fd, aw->data.data(), size, aw->offset) != static_cast<int64_t>(size)) return WARM_RC_WRITE;
    aw->offset += size;
    aw->written += aw->buffered;
    aw->buffered = 0;
    return 0;
}

// Elements that a refill at the cursor reads. A caller about to jump away from here gets only a few.
uint64_t refill_count(const array_reader_t* ar, uint64_t hint) {
    constexpr uint64_t FEW = 4;
    const uint64_t cursor = ar->cursor;
    const bool leaving = hint != 0 && (cursor > hint || hint >= cursor + ar->span);
    const uint64_t wanted = leaving ? std::min(ar->span, FEW) : ar->span;
    const uint64_t room = ar->owned.size() / ar->_obj_sz;
    return std::min({wanted, room, ar->count - cursor});
}

}  // namespace

int _aw_open(array_writer_t* aw, int fd, uint64_t offset, uint64_t object_size, uint32_t capacity) {
    *aw = {};
    const uint32_t elements = std::max(capacity, 1u);
    uint64_t size = 0;
    if (__builtin_mul_overflow(object_size, elements, &size) || !aw->data.alloc(size)) return WARM_RC_NO_MEMORY;
    aw->fd = fd;
    aw->offset = offset;
    aw->capacity = elements;
    aw->_obj_sz = object_size;
    return 0;
}

int _aw_write(array_writer_t* aw, const void* element, uint64_t osz) {
    ST_ASSERT(osz == aw->_obj_sz);
    if (aw->buffered == aw->capacity) ST_TRY(write_buffered(aw));
    std::memcpy(aw->data.data() + aw->buffered * osz, element, osz);
    aw->buffered++;
    return 0;
}

int _aw_close(array_writer_t* aw) {
    const int status = write_buffered(aw);
    *aw = {};
    return status;
}

int _ar_open(array_reader_t* ar, int fd, uint64_t base, uint64_t object_size, uint32_t count, uint64_t span,
             st_query_info_t* stats, const void* memory) {
    ST_ASSERT(object_size > 0);
    *ar = {};
    if (memory == nullptr) {
        // A refill never reads past the array, so a short array needs no whole span.
        const uint64_t elements = std::min(std::max<uint64_t>(span, 1), std::max<uint64_t>(count, 1));
        uint64_t size = 0;
        if (__builtin_mul_overflow(object_size, elements, &size) || !ar->owned.alloc(size)) return WARM_RC_NO_MEMORY;
        ar->data = ar->owned.data();
        ar->fd = fd;
    } else {
        ar->data = static_cast<const uint8_t*>(memory);
        ar->in_memory = true;
        ar->cache_count = count;
    }
    ar->base = base;
    ar->_obj_sz = object_size;
    ar->count = count;
    ar->span = std::max<uint64_t>(span, 1);
    ar->stats = stats;
    return 0;
}

bool _ar_idx_out_of_bounds(const array_reader_t* ar, uint64_t index) {
    return index >= ar->count;
}

void _ar_close(array_reader_t* ar) {
    *ar = {};
}

const uint8_t* _ar_refill(array_reader_t* ar, bool cache_only, uint64_t hint, warm_rc_t* rc) {
    if (ar->cursor >= ar->count) {
        _set_rc(rc, WARM_RC_FAILED);
        return nullptr;
    }
    if (cache_only || ar->in_memory) {
        _set_rc_msg(rc, WARM_RC_NOT_FOUND, "use_cache_only but not in cache");
        return nullptr;
    }
    // The read overwrites the cache, so that nothing is cached until it has come whole.
    ar->cache_count = 0;
    const uint64_t elements = refill_count(ar, hint);
    ST_ASSERT(elements > 0 && ar->cursor + elements <= ar->count);
    const size_t size = elements * ar->_obj_sz;
    const int64_t got =
        st_timed_pread_msg(ar->fd, ar->owned.data(), size, ar->base + ar->cursor * ar->_obj_sz, ar->stats, true);
    if (got != static_cast<int64_t>(size)) {
        _set_rc(rc, read_status(got));
        return nullptr;
    }
    ar->cache_start = ar->cursor;
    ar->cache_count = elements;
    ar->cursor++;
    _set_rc(rc, WARM_RC_OK);
    return ar->data;
}

const uint8_t* _ar_get_i(array_reader_t* ar, uint64_t index, bool cache_only, uint64_t hint, warm_rc_t* rc) {
    if (_ar_idx_out_of_bounds(ar, index)) {
        _set_rc(rc, WARM_RC_CAPACITY);
        return nullptr;
    }
    const uint32_t previous = ar->cursor;
    ar->cursor = static_cast<uint32_t>(index);
    const uint8_t* element = _ar_get(ar, cache_only, hint, rc);
    if (element == nullptr) ar->cursor = previous;
    return element;
}

const uint8_t* _ar_find_atleast(array_reader_t* ar, uint32_t first, uint32_t number, const void* key,
                                ar_compare_fn compare, uint32_t* index, warm_rc_t* rc) {
    if (number == 0) {
        _set_rc(rc, WARM_RC_NOT_FOUND);
        return nullptr;
    }
    const uint64_t last = uint64_t{first} + number - 1;
    if (_ar_idx_out_of_bounds(ar, last)) {
        _set_rc(rc, WARM_RC_UNSUPPORTED);
        return nullptr;
    }
    uint64_t base = first;
    uint64_t bound = last;
    while (base < bound) {
        const uint64_t middle = base + (bound - base) / 2;
        // The bound as hint: read a whole span only when it decides the rest of the search.
        const uint8_t* element = _ar_get_i(ar, middle, false, bound, rc);
        if (element == nullptr) return nullptr;
        if (compare(element, key) < 0) {
            base = middle + 1;
        } else {
            bound = middle;
        }
    }
    ST_ASSERT(base == bound && first <= base && base <= last);
    const uint8_t* element = _ar_get_i(ar, base, false, 0, rc);
    if (element == nullptr) return nullptr;
    *index = static_cast<uint32_t>(base);
    if (compare(element, key) >= 0) return element;
    _set_rc(rc, WARM_RC_NOT_FOUND);
    return nullptr;
}

}  // namespace veldar
