// What the files of a slice merge share: the merge, its sources, and how numbers of values move.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/merge/merge_metric.h"
#include "searchthing/merge/warmslice_merge.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/values/tsval.h"

namespace veldar {

// One source. The merge sees the deleted marks of the moment in which it was opened; the mapping shows later ones.
struct merge_source_t {
    std::string path;
    warm_ptr warm;  // its values reader reads `deleted`
    buffer<uint8_t> deleted;
    uint32_t num_values = 0, num_kept = 0;
    // Value numbers kept, in the order of the target; empty when they are all kept and in that order already.
    std::vector<uint32_t> order;
    // The new number of each value, in a metric slice of each run: what posting lists hold. Empty when number i becomes
    // base + i. MERGE_DROPPED for values that are not kept.
    buffer<uint32_t> map;
    uint32_t base = 0;
    st_time_t latest = 0;          // of its values
    bool repeats = false;          // some of its own values have become one
    std::vector<bool> dead_terms;  // those of dropped values alone; empty when there are none
};

inline constexpr uint32_t MERGE_DROPPED = UINT32_MAX;

inline uint32_t merge_new_number(const merge_source_t& source, uint32_t old_number) {
    return source.map.empty() ? source.base + old_number : source.map[old_number];
}

// Limits that only a test has reason to change.
inline constexpr uint32_t MERGE_MIN_TERMS_A_BLOCK = 2;

struct merge_seams_t {
    uint64_t hash_mask = ~uint64_t{0};       // of the hashes that find equal lists
    uint64_t narrow_entry_max = 0xFFFFFFFF;  // the largest posting-list offset entry of 4 bytes
    uint64_t packed_bits_max = 0xFFFFFFFF;   // bits of a packed values section that readers find the end of
    uint64_t lists_in_memory = 64 << 10;     // bytes of a source's lists that are read at once
    uint32_t dense_divisor = 16;             // a list of more than 1 / dense_divisor of all values is kept as a bitmap
};

struct warm_merge_t {
    warm_merge_options_t options;
    std::vector<merge_source_t> sources;  // newest first
    st_warm_slice_body header;            // the target's, in the making
    warm_merge_totals_t totals;
    bool values_planned = false;
    buffer<st_time_t> times;  // of the target's values, once they are planned
    bool written = false;
    std::unique_ptr<merge_metric_t> metric;  // null for event slices
    merge_seams_t seams;
    uint64_t done_bytes = 0;  // told to the progress function
    stop_check stop;
};

// Tells the progress function that `bytes` more of the sources have been merged.
void merge_progress(warm_merge_t* merge, uint64_t bytes);

// A record of a source's value, with its new address.
[[nodiscard]] int merge_decode_value(const warm_merge_t* merge, merge_source_t* source, uint32_t number, st_tsval* out,
                                     warm_rc_t* rc);

}  // namespace veldar
