// Which slices of a directory the next merge takes.
//
// Only slices that can merge with each other are taken together (st_warm_slice_merge_kind). What is taken is the
// longest stretch of them, at most 64 that are next to each other in time, whose files are together not larger than the
// target size. Tiered, slices of about the same size are merged, so that every event is copied once for each tier:
//
//   tier    bytes of a slice
//   0       below 4 MiB
//   n > 0   4^n MiB to below 4^(n+1) MiB
//
// and the lowest tier that has enough slices is taken.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "searchthing/format/warmslice_header.h"

namespace veldar {

struct tsidx_merge_source_t {
    std::string name;  // in the directory
    uint64_t bytes = 0;
    bool part = false;  // written in part mode
    st_warm_slice_body header;
};

struct tsidx_merge_rules_t {
    bool tiered = true;
    bool parts_only = false;
    uint32_t min_sources = 2;  // slices that a tier must have to be merged
    uint64_t target_size = 0;  // bytes of the sources together
    // A slice of which more than one in so many values is deleted is rewritten when nothing merges; 0: none is.
    uint32_t rewrite_fraction = 0;
};

uint32_t tsidx_merge_tier(uint64_t bytes);

// The slices of the next merge, as ascending indexes into `slices`, which are ordered by time. Empty when nothing
// qualifies, else at least two. May throw std::bad_alloc.
std::vector<size_t> tsidx_plan_merge(const std::vector<tsidx_merge_source_t>& slices, const tsidx_merge_rules_t& rules);

}  // namespace veldar
