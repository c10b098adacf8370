#include "searchthing/directory/tsidx_cache.h"

#include <cerrno>
#include <iterator>
#include <string_view>
#include <unordered_set>

#include "libzero/assertions.h"

namespace veldar {

namespace {

constexpr size_t MAX_UNUSED_SLICES = 256;

bool out_of_descriptors(const warm_rc_t& rc) {
    return rc.warm_rc == WARM_RC_OPEN && (rc.saved_errno == EMFILE || rc.saved_errno == ENFILE);
}

}  // namespace

tsidx_cache::~tsidx_cache() {
    ST_ASSERT(in_use_.empty());
    close_unused();
}

WARM* tsidx_cache::open(const std::string& directory, const tsidx_slice_name_t& slice, warm_rc_t* rc) {
    if (const auto known = by_name_.find(slice.name); known != by_name_.end()) {
        if (known->second->users++ == 0) in_use_.splice(in_use_.begin(), unused_, known->second);
        return known->second->warm;
    }
    // Everything that may throw comes before the slice is opened.
    const std::string path = directory + "/" + slice.name;
    entries fresh;
    fresh.push_back({slice.name, nullptr, 1});
    by_name_.emplace(slice.name, fresh.begin());
    WARM* warm = warm_slice_open_named(path.c_str(), slice.meta, rc);
    if (warm == nullptr && out_of_descriptors(*rc) && !unused_.empty()) {
        close_unused();
        warm = warm_slice_open_named(path.c_str(), slice.meta, rc);
    }
    if (warm == nullptr) {
        by_name_.erase(slice.name);
        return nullptr;
    }
    fresh.front().warm = warm;
    in_use_.splice(in_use_.begin(), fresh);
    ST_ASSERT(by_name_.size() == in_use_.size() + unused_.size());
    return warm;
}

void tsidx_cache::release(const std::string& name) {
    const auto known = by_name_.find(name);
    ST_ASSERT(known != by_name_.end() && known->second->users > 0);
    if (--known->second->users != 0) return;
    unused_.splice(unused_.begin(), in_use_, known->second);
    if (unused_.size() > MAX_UNUSED_SLICES) close(std::prev(unused_.end()));
}

tsidx_cache::entries::iterator tsidx_cache::close(entries::iterator slice) {
    ST_ASSERT(slice->users == 0);
    st_warm_slice_close(slice->warm);
    by_name_.erase(slice->name);
    return unused_.erase(slice);
}

void tsidx_cache::keep_only(const tsidx_listing_t& listing) {
    if (unused_.empty()) return;
    std::unordered_set<std::string_view> listed;
    for (const tsidx_slice_name_t& slice : listing) listed.insert(slice.name);
    for (auto it = unused_.begin(); it != unused_.end();) it = listed.contains(it->name) ? std::next(it) : close(it);
    ST_ASSERT(by_name_.size() == in_use_.size() + unused_.size());
}

void tsidx_cache::close_unused() {
    while (!unused_.empty()) close(unused_.begin());
}

}  // namespace veldar
