// Open slices of a directory, kept between reads: for tsidx*.cc only.
#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>

#include "searchthing/directory/tsidx_list.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

// A slice that `open` has handed out stays open until `release` has been called as often. Of those that nobody uses,
// the 256 released last stay open as well.
class tsidx_cache {
  public:
    tsidx_cache() = default;
    ~tsidx_cache();
    tsidx_cache(const tsidx_cache&) = delete;
    tsidx_cache& operator=(const tsidx_cache&) = delete;

    // The open slice, or null: WARM_RC_OPEN with ENOENT when the file is gone, or another failure of the open. When the
    // process has no descriptor left, slices not in use are closed first. May throw std::bad_alloc, and then nothing
    // has changed.
    WARM* open(const std::string& directory, const tsidx_slice_name_t& slice, warm_rc_t* rc);
    void release(const std::string& name);
    // Closes what is not in use and not in the listing: files that are gone still take their disk space while open.
    void keep_only(const tsidx_listing_t& listing);
    void close_unused();
    size_t size() const { return by_name_.size(); }

  private:
    struct entry {
        std::string name;
        WARM* warm = nullptr;  // owned
        uint32_t users = 0;
    };
    using entries = std::list<entry>;

    entries::iterator close(entries::iterator slice);

    entries in_use_;
    entries unused_;  // the last one released first
    std::unordered_map<std::string, entries::iterator> by_name_;
};

}  // namespace veldar
