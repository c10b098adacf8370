#include "tools/veldar/load/retention.h"

#include <sys/stat.h>

#include <algorithm>
#include <span>
#include <tuple>

#include "searchthing/directory/tsidx_list.h"
#include "searchthing/reading/tsidx_query_walk.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/slice/warmslice_runs.h"
#include "searchthing/slice/warmslice_values.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tools/veldar/store/index_handle.h"
#include "tools/veldar/store/store.h"
#include "tools/veldar/store/tool_failure.h"
#include "tools/veldar/store/tool_file.h"

namespace veldar::tool {

namespace {

constexpr uint32_t WRITE_LEVEL = 4;  // of the handle; no slice is written
constexpr int ROUNDS_MAX = 16;       // when slices are merged as fast as they are chosen

struct slice_facts {
    size_t directory = 0;
    std::string name;
    st_filename_metadata_t meta;
    uint64_t bytes = 0, events = 0, address_max = 0;
    bool is_metric = false;
};

// False when the slice is gone.
bool read_facts(const std::string& path, slice_facts* slice) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) return false;
    slice->bytes = static_cast<uint64_t>(status.st_size);
    warm_rc_t rc;
    const warm_ptr warm(st_warm_slice_open_rdonly(path.c_str(), &rc));
    if (warm == nullptr) return !(rc.warm_rc == WARM_RC_OPEN && rc.saved_errno == ENOENT);
    slice->is_metric = st_warm_slice_is_msidx(warm->body);
    slice->events = st_warm_slice_values(warm.get()) -
                    (slice->is_metric ? warm_slice_runs(warm.get()) : warm_slice_count_deleted(warm.get()));
    slice->address_max = warm_header_is_rev1(warm->body) ? warm->body->seek_addr_max.get() : UINT32_MAX;
    return true;
}

// The live slices of all directories, the oldest first.
std::vector<slice_facts> list_slices(const std::vector<std::string>& directories) {
    std::vector<slice_facts> slices;
    for (size_t i = 0; i < directories.size(); i++) {
        tsidx_listing_t listing;
        warm_rc_t rc;
        if (tsidx_list(directories[i].c_str(), &listing, &rc) != 0) {
            fail_io("cannot list " + directories[i], rc.saved_errno);
        }
        for (const tsidx_slice_name_t& live : listing) {
            slice_facts slice = {.directory = i, .name = live.name, .meta = live.meta};
            if (read_facts(directories[i] + "/" + live.name, &slice)) slices.push_back(std::move(slice));
        }
    }
    std::sort(slices.begin(), slices.end(), [](const slice_facts& a, const slice_facts& b) {
        return std::tie(a.meta.latest, a.meta.earliest, a.meta.id) <
               std::tie(b.meta.latest, b.meta.earliest, b.meta.id);
    });
    return slices;
}

// Moves what goes as a whole to the front; how many.
size_t choose(std::vector<slice_facts>* slices, const retention& rule) {
    uint64_t left = 0;
    for (const slice_facts& slice : *slices) left += slice.bytes;
    const auto goes = [&](const slice_facts& slice) {
        const bool is_old = rule.before && slice.meta.latest < *rule.before;
        const bool is_too_much = rule.max_size && left > *rule.max_size;
        if (is_old || is_too_much) left -= slice.bytes;
        return is_old || is_too_much;
    };
    return static_cast<size_t>(std::find_if_not(slices->begin(), slices->end(), goes) - slices->begin());
}

// Says in a bucket that what the slices of this number of them hold counts as loaded.
void note_loaded(const std::string& directory, size_t number, const std::vector<slice_facts>& slices) {
    if (!tool_exists(directory + "/source.map")) return;
    uint64_t greatest = 0;
    for (const slice_facts& slice : slices) {
        if (slice.directory == number) greatest = std::max(greatest, slice.address_max);
    }
    store_note_deleted(directory, greatest);
}

[[noreturn]] void fail(const std::string& directory, const TSIDX* tsidx) {
    throw tool_failure{EXIT_IO, directory + ": " + index_failure_text(tsidx)};
}

void drop(const std::string& directory, size_t number, const std::vector<slice_facts>& going, retained* done) {
    std::vector<std::string> names;
    for (const slice_facts& slice : going) {
        if (slice.directory == number) names.push_back(slice.name);
    }
    if (names.empty()) return;
    note_loaded(directory, number, going);
    const tsidx_ptr tsidx = index_handle_open(directory, WRITE_LEVEL);
    tsidx_dropped_t dropped;
    const int status = st_tsidx_drop_slices(tsidx.get(), names, &dropped);
    done->slices += dropped.slices;
    done->slice_events += dropped.events;
    done->bytes += dropped.bytes;
    if (status != 0) fail(directory, tsidx.get());
}

bool begins_before(const slice_facts& slice, const retention& rule) {
    return rule.before && slice.meta.earliest < *rule.before;
}

// How many events of a slice are of times before this one, and not deleted.
uint64_t count_before(const std::string& path, st_time_t time) {
    warm_rc_t rc;
    const warm_ptr warm(st_warm_slice_open_rdonly(path.c_str(), &rc));
    uint32_t id = 0;
    if (warm == nullptr || tsidx_first_not_later(warm.get(), 0, time - 1, &id, &rc) != 0) return 0;
    const std::span<const uint8_t> marks = warm->tsval_reader.d.bytes;
    uint64_t count = 0;
    for (; id < st_warm_slice_values(warm.get()); id++) {
        const bool marked = id / 8 < marks.size() && (marks[id / 8] >> (id % 8) & 1) != 0;
        count += marked ? 0 : 1;
    }
    return count;
}

// In the slices of this directory that stay and begin before the time.
void delete_rest(const std::string& directory, size_t number, const std::vector<slice_facts>& staying,
                 const retention& rule, bool dry_run, retained* done) {
    std::vector<slice_facts> cut;
    for (const slice_facts& slice : staying) {
        if (slice.directory == number && !slice.is_metric && begins_before(slice, rule)) cut.push_back(slice);
    }
    if (cut.empty()) return;
    for (size_t i = 0; dry_run && i < cut.size(); i++) {
        done->events += count_before(directory + "/" + cut[i].name, *rule.before);
    }
    if (dry_run) return;
    note_loaded(directory, number, cut);
    const tsidx_ptr tsidx = index_handle_open(directory, WRITE_LEVEL);
    const int64_t deleted = st_tsidx_delete_before(tsidx.get(), *rule.before);
    if (deleted < 0) fail(directory, tsidx.get());
    done->events += static_cast<uint64_t>(deleted);
}

}  // namespace

retained retain_in(const std::vector<std::string>& directories, const retention& rule, bool dry_run) {
    retained done;
    std::vector<slice_facts> slices = list_slices(directories);
    size_t going = choose(&slices, rule);
    for (int round = 0; going != 0 && !dry_run && round < ROUNDS_MAX; round++) {
        slices.resize(going);
        for (size_t i = 0; i < directories.size(); i++) drop(directories[i], i, slices, &done);
        slices = list_slices(directories);
        going = choose(&slices, rule);
    }
    for (size_t i = 0; i < going; i++) {
        if (!dry_run) throw tool_failure{EXIT_IO, "slices are merged faster than they can be removed"};
        done.slices++;
        done.slice_events += slices[i].events;
        done.bytes += slices[i].bytes;
    }
    slices.erase(slices.begin(), slices.begin() + static_cast<ptrdiff_t>(going));
    for (const slice_facts& slice : slices) done.metric_slices += slice.is_metric && begins_before(slice, rule);
    for (size_t i = 0; i < directories.size(); i++) delete_rest(directories[i], i, slices, rule, dry_run, &done);
    return done;
}

}  // namespace veldar::tool
