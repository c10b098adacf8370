#include "searchthing/upkeep/tsidx_merge_plan.h"

#include <algorithm>
#include <bit>
#include <map>
#include <span>

#include "libzero/assertions.h"
#include "searchthing/merge/warmslice_merge.h"

namespace veldar {

namespace {

constexpr int NEVER_MERGES = -1;
constexpr uint64_t MIB = 1048576;

// Slices that may merge with each other, in order of time.
struct candidates {
    std::vector<size_t> indexes;
    std::vector<st_warm_slice_body> headers;
    std::vector<uint64_t> sizes;

    void add(size_t index, const tsidx_merge_source_t& slice) {
        indexes.push_back(index);
        headers.push_back(slice.header);
        sizes.push_back(slice.bytes);
    }
};

struct stretch {
    size_t first = 0, count = 0;
    uint64_t bytes = 0;

    bool is_better_than(const stretch& other) const {
        return count != other.count ? count > other.count : bytes < other.bytes;
    }
};

// The longest stretch from `first` on that one merge may take.
stretch stretch_from(const candidates& all, size_t first, uint64_t target_size) {
    stretch found{first};
    for (size_t i = first; i < all.sizes.size() && found.count < MERGE_MAX_SOURCES; i++) {
        ST_ASSERT(found.bytes <= target_size);
        if (all.sizes[i] > target_size - found.bytes) break;
        found.bytes += all.sizes[i];
        found.count++;
    }
    return found;
}

void cut_to_fitting(const candidates& all, stretch* found) {
    const std::span<const st_warm_slice_body> headers(all.headers);
    const std::span<const uint64_t> sizes(all.sizes);
    const size_t fitting = st_warm_slice_merge_fitting(headers.subspan(found->first, found->count),
                                                       sizes.subspan(found->first, found->count));
    for (; found->count > fitting; found->count--) found->bytes -= all.sizes[found->first + found->count - 1];
}

// Of stretches of the same number of slices the smallest, of those the first. Its count is 0 when none has two.
stretch longest_stretch(const candidates& all, uint64_t target_size) {
    stretch best;
    for (size_t first = 0; first < all.sizes.size(); first++) {
        stretch found = stretch_from(all, first, target_size);
        if (found.count < 2 || !found.is_better_than(best)) continue;
        cut_to_fitting(all, &found);
        if (found.count >= 2 && found.is_better_than(best)) best = found;
    }
    return best;
}

}  // namespace

uint32_t tsidx_merge_tier(uint64_t bytes) {
    return bytes < MIB ? 0 : static_cast<uint32_t>(std::bit_width(bytes / MIB) - 1) / 2;
}

std::vector<size_t> tsidx_plan_merge(const std::vector<tsidx_merge_source_t>& slices,
                                     const tsidx_merge_rules_t& rules) {
    // By tier and kind, so that the lowest tier comes first.
    std::map<std::pair<uint32_t, int>, candidates> groups;
    for (size_t i = 0; i < slices.size(); i++) {
        const int kind = st_warm_slice_merge_kind(&slices[i].header);
        if (kind == NEVER_MERGES || (rules.parts_only && !slices[i].part)) continue;
        groups[{rules.tiered ? tsidx_merge_tier(slices[i].bytes) : 0, kind}].add(i, slices[i]);
    }
    const size_t enough = rules.tiered ? std::max<size_t>(rules.min_sources, 2) : 2;
    uint32_t best_tier = 0;
    stretch best;
    const candidates* best_group = nullptr;
    for (const auto& [key, group] : groups) {
        if (best_group != nullptr && key.first != best_tier) break;
        if (group.indexes.size() < enough) continue;
        const stretch found = longest_stretch(group, rules.target_size);
        if (found.count < 2 || !found.is_better_than(best)) continue;
        best = found;
        best_tier = key.first;
        best_group = &group;
    }
    if (best_group == nullptr) return {};
    ST_ASSERT(best.count <= MERGE_MAX_SOURCES && best.first + best.count <= best_group->indexes.size());
    const auto first = best_group->indexes.begin() + static_cast<ptrdiff_t>(best.first);
    return {first, first + static_cast<ptrdiff_t>(best.count)};
}

}  // namespace veldar
