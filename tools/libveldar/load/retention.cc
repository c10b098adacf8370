#include "tools/libveldar/load/retention.h"

#include <algorithm>
#include <tuple>

#include "searchthing/directory/tsidx_list.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/store.h"

namespace veldar::tool {

namespace {

constexpr uint32_t WRITE_LEVEL = 4;  // of the handle; no slice is written
constexpr int ROUNDS_MAX = 16;       // when slices are merged as fast as they are chosen

struct live_slice {
    size_t directory = 0;
    std::string name;
    st_filename_metadata_t meta;
    tsidx_slice_facts_t facts;
};

// Adds the live slices of a directory. False when one of them has gone meanwhile: its events may be in a slice that was
// not listed.
bool add_slices(const std::string& directory, size_t number, const retention& rule, std::vector<live_slice>* slices) {
    const tsidx_ptr tsidx = index_handle_open(directory, 0);
    tsidx_listing_t listing;
    warm_rc_t rc;
    if (tsidx_list(directory.c_str(), &listing, &rc) != 0) fail_io("cannot list", directory, rc.saved_errno);
    const size_t before = slices->size();
    for (const tsidx_slice_name_t& live : listing) {
        const tsidx_slice_facts_t facts = st_tsidx_slice_facts(tsidx.get(), live.name, rule.before.value_or(INT32_MIN));
        if (!facts.exists) {
            slices->resize(before);
            return false;
        }
        slices->push_back({number, live.name, live.meta, facts});
    }
    return true;
}

// The live slices of all directories, the oldest first.
std::vector<live_slice> list_slices(const std::vector<std::string>& directories, const retention& rule) {
    std::vector<live_slice> slices;
    for (size_t i = 0; i < directories.size(); i++) {
        for (int round = 0; !add_slices(directories[i], i, rule, &slices); round++) {
            if (round == ROUNDS_MAX) {
                throw failure_t{OUTCOME_IO, directories[i] + ": slices are merged faster than they can be listed"};
            }
        }
    }
    std::sort(slices.begin(), slices.end(), [](const live_slice& a, const live_slice& b) {
        return std::tie(a.meta.latest, a.meta.earliest, a.meta.id) <
               std::tie(b.meta.latest, b.meta.earliest, b.meta.id);
    });
    return slices;
}

// How many of the oldest go as a whole.
size_t choose(const std::vector<live_slice>& slices, const retention& rule) {
    uint64_t left = 0;
    for (const live_slice& slice : slices) left += slice.facts.bytes;
    const auto goes = [&](const live_slice& slice) {
        const bool is_old = rule.before && slice.meta.latest < *rule.before;
        const bool is_too_much = rule.max_size && left > *rule.max_size;
        if (is_old || is_too_much) left -= slice.facts.bytes;
        return is_old || is_too_much;
    };
    return static_cast<size_t>(std::find_if_not(slices.begin(), slices.end(), goes) - slices.begin());
}

// Says in a bucket that what the slices of this number of them hold counts as loaded.
void note_loaded(const std::string& directory, size_t number, const std::vector<live_slice>& slices) {
    if (!disk_exists(directory + "/source.map")) return;
    uint64_t greatest = 0;
    for (const live_slice& slice : slices) {
        if (slice.directory == number) greatest = std::max(greatest, slice.facts.address_max);
    }
    store_note_deleted(directory, greatest);
}

[[noreturn]] void fail(const std::string& directory, const TSIDX* tsidx) {
    throw failure_t{OUTCOME_IO, directory + ": " + index_failure_text(tsidx)};
}

void drop(const std::string& directory, size_t number, const std::vector<live_slice>& going, retained* done) {
    std::vector<std::string> names;
    for (const live_slice& slice : going) {
        if (slice.directory == number) names.push_back(slice.name);
    }
    if (names.empty()) return;
    note_loaded(directory, number, going);
    const tsidx_ptr tsidx = index_handle_open(directory, WRITE_LEVEL);
    tsidx_dropped_t dropped;
    const int status = st_tsidx_drop_slices(tsidx.get(), names, &dropped);
    done->slices += dropped.slices;
    done->slice_events += dropped.events;
    done->uncounted += dropped.uncounted;
    done->bytes += dropped.bytes;
    if (status != 0) fail(directory, tsidx.get());
}

bool begins_before(const live_slice& slice, const retention& rule) {
    return rule.before && slice.meta.earliest < *rule.before;
}

// In the slices of this directory that stay and begin before the time.
void delete_rest(const std::string& directory, size_t number, const std::vector<live_slice>& staying,
                 const retention& rule, bool dry_run, retained* done) {
    std::vector<live_slice> cut;
    for (const live_slice& slice : staying) {
        if (slice.directory == number && !slice.facts.is_metric && begins_before(slice, rule)) cut.push_back(slice);
    }
    if (cut.empty()) return;
    for (size_t i = 0; dry_run && i < cut.size(); i++) done->events += cut[i].facts.older;
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
    std::vector<live_slice> slices = list_slices(directories, rule);
    size_t going = choose(slices, rule);
    for (int round = 0; going != 0 && !dry_run && round < ROUNDS_MAX; round++) {
        slices.resize(going);
        for (size_t i = 0; i < directories.size(); i++) drop(directories[i], i, slices, &done);
        slices = list_slices(directories, rule);
        going = choose(slices, rule);
    }
    for (size_t i = 0; i < going; i++) {
        if (!dry_run) throw failure_t{OUTCOME_IO, "slices are merged faster than they can be removed"};
        done.slices++;
        done.slice_events += slices[i].facts.events;
        done.uncounted += slices[i].facts.is_read ? 0 : 1;
        done.bytes += slices[i].facts.bytes;
    }
    slices.erase(slices.begin(), slices.begin() + static_cast<ptrdiff_t>(going));
    for (const live_slice& slice : slices) done.metric_slices += slice.facts.is_metric && begins_before(slice, rule);
    for (size_t i = 0; i < directories.size(); i++) delete_rest(directories[i], i, slices, rule, dry_run, &done);
    return done;
}

}  // namespace veldar::tool
