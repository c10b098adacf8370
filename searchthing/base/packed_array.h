// Arrays of fixed-size elements at a file offset: a writer that appends through a buffer, and a reader that keeps a
// span of elements cached, or looks into an array that is in memory already. Elements are plain bytes; the caller knows
// their byte order.
#pragma once

#include <cstdint>

#include "libzero/resource.h"
#include "searchthing/base/query_info.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

struct array_writer_t {
    int fd = -1;          // not owned; -1 after close
    uint64_t offset = 0;  // where the buffered elements will be written
    buffer<uint8_t> data;
    uint32_t buffered = 0;  // elements in the buffer
    uint32_t written = 0;   // elements already in the file
    uint32_t capacity = 0;  // of the buffer, in elements
    uint64_t _obj_sz = 0;   // bytes of an element
};
// Starts appending at a file offset; 0 or WARM_RC_NO_MEMORY. A capacity of 0 counts as 1.
[[nodiscard]] int _aw_open(array_writer_t* aw, int fd, uint64_t offset, uint64_t object_size, uint32_t capacity);
// Appends one element of the size given at open (asserted). WARM_RC_WRITE when the full buffer could not be written: it
// stays as it was, the element is not in it.
[[nodiscard]] int _aw_write(array_writer_t* aw, const void* element, uint64_t osz);
// Writes what is buffered, 0 or WARM_RC_WRITE, and resets the writer in either case.
[[nodiscard]] int _aw_close(array_writer_t* aw);

struct array_reader_t {
    buffer<uint8_t> owned;          // file mode: the cache
    const uint8_t* data = nullptr;  // the cache, or the caller's whole array
    bool in_memory = false;
    uint32_t cursor = 0;  // the element that _ar_get returns next
    uint32_t count = 0;   // elements of the array
    int fd = -1;          // not owned; -1 in memory mode
    uint64_t base = 0;    // file offset of element 0
    uint64_t _obj_sz = 0;
    uint64_t span = 0;  // elements read by a refill; may be lowered below what was allocated and raised again
    uint64_t cache_start = 0;
    uint64_t cache_count = 0;  // [cache_start, cache_start + cache_count) is cached and lies inside the array
    st_query_info_t* stats = nullptr;
};
// Negative when the element lies below the key, as in a search for the first element that does not.
using ar_compare_fn = int (*)(const void* element, const void* key);

// Opens over `count` elements: over `memory` (not owned, outlives the reader) when it is not null, else over the file
// with a cache of `span` elements (0 counts as 1). 0 or WARM_RC_NO_MEMORY.
[[nodiscard]] int _ar_open(array_reader_t* ar, int fd, uint64_t base, uint64_t object_size, uint32_t count,
                           uint64_t span, st_query_info_t* stats, const void* memory);
bool _ar_idx_out_of_bounds(const array_reader_t* ar, uint64_t index);
// Frees the cache and resets all fields; fd -1.
void _ar_close(array_reader_t* ar);

// What _ar_get does on a miss: reads elements from the cursor on.
const uint8_t* _ar_refill(array_reader_t* ar, bool cache_only, uint64_t hint, warm_rc_t* rc);

// The element at the cursor, which advances; the bytes are valid until the next call. A miss reads `span` elements from
// there, or at most 4 when a non-zero `hint`, the index that the caller wants next, lies outside that span; with
// `cache_only` (and in memory) it fails instead. Null: -1 past the last element, WARM_RC_NOT_FOUND "use_cache_only but
// not in cache", or the status of the read.
inline const uint8_t* _ar_get(array_reader_t* ar, bool cache_only, uint64_t hint, warm_rc_t* rc) {
    const uint64_t slot = ar->cursor - ar->cache_start;
    if (slot >= ar->cache_count) return _ar_refill(ar, cache_only, hint, rc);
    ar->cursor++;
    rc->warm_rc = WARM_RC_OK;
    return ar->data + slot * ar->_obj_sz;
}

// Element `index`, as _ar_get with the cursor there; on failure the cursor stays. WARM_RC_CAPACITY when the index is
// not below the count.
const uint8_t* _ar_get_i(array_reader_t* ar, uint64_t index, bool cache_only, uint64_t hint, warm_rc_t* rc);

// Binary search for the first of the elements first .. first + number - 1 that is not below the key; they must ascend.
// Null: WARM_RC_NOT_FOUND when all are below (`index` is then the last one) or number is 0, WARM_RC_UNSUPPORTED when
// the range leaves the array, or the failure of a read.
const uint8_t* _ar_find_atleast(array_reader_t* ar, uint32_t first, uint32_t number, const void* key,
                                ar_compare_fn compare, uint32_t* index, warm_rc_t* rc);

}  // namespace veldar
