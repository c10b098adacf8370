// What a read sees: the live slices of directories at one moment (tsidx_list.h), and slice files.
//
// A slice that was listed may be gone when it is opened, because it was merged or deleted meanwhile; then what was read
// so far is dropped and the read begins again with a new listing. A read on a writing handle syncs the handle's own hot
// slice first, so that it sees what the handle has put.
//
//   tsidx_snapshot snapshot({{.tsidx = st_directory(thing)}}, nullptr);
//   const int64_t status = snapshot.hold([&]() -> int64_t {
//       count = 0;
//       return snapshot.each(earliest, latest, [&](size_t i, warm_rc_t*) {
//           count += st_warm_slice_values(snapshot.warm(i));
//           return 0;
//       }, &rc);
//   }, &rc);
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "searchthing/base/warm_rc.h"
#include "searchthing/directory/tsidx.h"
#include "searchthing/format/tsidx_names.h"
#include "searchthing/reading/cursors.h"

namespace veldar {

struct st_warm_slice;
using WARM = st_warm_slice;

inline constexpr st_time_t TSIDX_FIRST_TIME = std::numeric_limits<st_time_t>::min();
inline constexpr st_time_t TSIDX_LAST_TIME = std::numeric_limits<st_time_t>::max();

// The result of a step that found a listed slice gone; no status and no count.
inline constexpr int64_t TSIDX_VANISHED = std::numeric_limits<int64_t>::min();
// How often a read begins again when slices go before they are opened.
inline constexpr int TSIDX_MAX_SNAPSHOTS = 16;

// The slices of one moment, by latest time descending, and those of them that are open. The directories may be used for
// other reads meanwhile, by the same thread, but must not be moved with st_tsidx_cd. Every call but `hold` may throw
// std::bad_alloc.
class tsidx_snapshot {
  public:
    tsidx_snapshot(std::vector<cursor_source_t> sources,
                   cursor_failure_fn on_failure);  // null: a failure ends the read
    ~tsidx_snapshot() { close_all(); }
    tsidx_snapshot(const tsidx_snapshot&) = delete;
    tsidx_snapshot& operator=(const tsidx_snapshot&) = delete;

    // Syncs what the handles have put, and lists. 0, TSIDX_SYNC_FAILED, or as `take`.
    [[nodiscard]] int begin(warm_rc_t* rc);
    // Lists the sources, anew after the first time; what is open is closed. 0, or the failure of a directory, -4, -8 or
    // -35, recorded in its handle, unless somebody hears of it.
    [[nodiscard]] int take(warm_rc_t* rc);

    size_t size() const { return slices_.size(); }
    const tsidx_slice_name_t& slice(size_t i) const { return *slices_[i].name; }
    uint32_t source(size_t i) const { return slices_[i].source; }  // its number
    std::string path(size_t i) const;
    bool overlaps(size_t i, st_time_t earliest, st_time_t latest) const {
        return slice(i).meta.latest >= earliest && slice(i).meta.earliest <= latest;
    }

    // Opens a slice that is not open in this snapshot; it stays open until `close` or the snapshot's end. 0,
    // TSIDX_VANISHED, or the failure, in `rc`.
    int64_t open(size_t i, warm_rc_t* rc);
    WARM* warm(size_t i) const { return slices_[i].warm; }  // null while it is not open here
    void close(size_t i);
    void close_all();

    // After so many more events or terms of a slice: 0, or WARM_RC_CANCELLED when its handle's read is to end.
    [[nodiscard]] int go_on(size_t i, uint64_t steps, warm_rc_t* rc);
    // The failure of reading a slice: 0 when somebody hears of it, else its code, logged and recorded in the handle.
    int fail(size_t i, const warm_rc_t& why, warm_rc_t* rc) const;

    // Runs `work` over new listings until one of them holds: its result, which is not TSIDX_VANISHED; or a failure as of
    // `begin`; -35 when slices go faster than they can be opened; -2. The work begins afresh every time.
    int64_t hold(const std::function<int64_t()>& work, warm_rc_t* rc);
    // A step's result that ends the walk, which is no failure of the slice.
    static constexpr int END = 1;
    // Runs `step(i, why)` over the slices that overlap the bounds, each open while its step runs, until one fails or
    // yields END. 0, TSIDX_VANISHED, or a failure that nobody hears of.
    int64_t each(st_time_t earliest, st_time_t latest, const std::function<int(size_t, warm_rc_t*)>& step,
                 warm_rc_t* rc);
    // Opens every slice that overlaps the bounds, for walks that cannot begin again once a part has been seen. As `each`.
    int64_t open_all(st_time_t earliest, st_time_t latest, warm_rc_t* rc);

  private:
    struct entry {
        const tsidx_slice_name_t* name;  // in a listing; of a file its path
        uint32_t source = 0;
        WARM* warm = nullptr;
    };
    void add_listing(std::shared_ptr<const std::vector<tsidx_slice_name_t>> listing, uint32_t source);
    void add_file(uint32_t source);
    int add_directory(uint32_t source, warm_rc_t* rc);

    std::vector<cursor_source_t> sources_;
    cursor_failure_fn on_failure_;
    std::vector<std::shared_ptr<const std::vector<tsidx_slice_name_t>>> listings_;  // which may be the handles' too
    std::vector<entry> slices_;
};

// Gives a slice back to its snapshot.
struct snapshot_closer {
    tsidx_snapshot* snapshot = nullptr;
    size_t number = 0;
    void operator()(WARM*) const { snapshot->close(number); }
};
using snapshot_slice_ptr = std::unique_ptr<WARM, snapshot_closer>;

}  // namespace veldar
