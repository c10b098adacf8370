#include "tools/libveldar/load/merging.h"

#include <fmt/format.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <utility>

#include "searchthing/directory/tsidx_list.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

namespace {

constexpr uint64_t LARGE = uint64_t{32} << 20;  // bytes of slices whose space is worth sparing
// Slices as they are first written take two to three times the bytes that they are merged into, so few of them wait.
constexpr uint32_t SOURCES_WHILE_LOADING = 3;
constexpr uint64_t LEAST_WHILE_LOADING = uint64_t{16} << 20;
// Of those of a few seconds each, as each merge writes again what the ones before it have written.
constexpr uint32_t SOURCES_WHILE_FOLLOWING = 16;

// What the threads share.
struct crew {
    const std::vector<std::string>* directories = nullptr;
    merge_settings settings;
    observer stops;  // which each thread serves
    std::atomic<size_t> next = 0;
    std::atomic<uint64_t> done = 0, planned = 0;  // bytes of the merges begun so far
    std::mutex mutex;                             // of what follows
    std::condition_variable ended;
    size_t working = 0;
    bool out_of_memory = false;  // in a directory whose totals are not among these
    merge_totals totals;
};

// How far the merge of one thread is.
struct merge_watch {
    crew* all = nullptr;
    uint64_t seen = 0;

    static void report(uint64_t done, uint64_t, void* context) {
        auto* const watch = static_cast<merge_watch*>(context);
        watch->all->done += done - std::min(done, watch->seen);
        watch->seen = done;
    }
};

struct live_slices_t {
    uint64_t count = 0, bytes = 0;
};

// Throws failure_t.
live_slices_t count_slices(const std::string& directory) {
    live_slices_t found;
    tsidx_listing_t listing;
    warm_rc_t rc;
    if (tsidx_list(directory.c_str(), &listing, &rc) != 0) fail_io("cannot list", directory, rc.saved_errno);
    for (const tsidx_slice_name_t& slice : listing) {
        struct stat status;
        const std::string path = directory + "/" + slice.name;
        if (::stat(path.c_str(), &status) != 0) {
            if (errno != ENOENT) fail_io("cannot read", path, errno);
            continue;
        }
        found.count++;
        found.bytes += static_cast<uint64_t>(status.st_size);
    }
    return found;
}

// How much one merge may take of a directory when space is to be spared, as what is merged lies there twice; 0 for any.
uint64_t spared_target(const std::string& directory, uint64_t planned) {
    const uint64_t most = count_slices(directory).bytes / 8 * 5;
    return planned > std::max(most, LARGE) ? most : 0;
}

// Merges until nothing is left to merge or the command is interrupted: the status of the former, or a failure.
int merge_directory(crew* all, TSIDX* tsidx, const std::string& directory, uint64_t* merges) {
    const merge_settings& settings = all->settings;
    const int mode = settings.everything ? TSIDX_OPTIMIZE_ALL : TSIDX_OPTIMIZE_TIERED;
    uint64_t target = settings.target_size;
    uint32_t min_sources = settings.min_sources != 0 ? settings.min_sources : TSIDX_OPTIMIZE_MIN_SOURCES;
    int status = 0;
    while (status == 0 && !work_stops()) {
        tsidx_optimize_plan_t plan;
        const auto make_plan = [&] {
            return st_tsidx_optimize_plan(tsidx, mode, min_sources, target, settings.is_final, &plan);
        };
        status = make_plan();
        const uint64_t spared = status == 0 && settings.spares_space ? spared_target(directory, plan.bytes) : 0;
        if (spared != 0) {
            target = spared;
            if (settings.min_sources == 0) min_sources = 2;  // what one merge leaves over, too
            status = make_plan();
        }
        if (status != 0 || plan.bytes < settings.least_bytes) break;
        all->planned += plan.bytes;
        merge_watch watch{all};
        st_tsidx_set_merge_progress(tsidx, merge_watch::report, &watch);
        st_tsidx_set_merge_stop(
            tsidx, [](void*) { return work_stops(); }, nullptr);
        status = st_tsidx_optimize_n(tsidx, mode, min_sources, 0, target, nullptr, 0, 0, settings.is_final);
        all->done += plan.bytes - std::min(plan.bytes, watch.seen);
        *merges += status == 0 ? 1 : 0;
    }
    return status == WARM_RC_CANCELLED ? WARM_RC_FEW_SOURCES : status;
}

void work_on(crew* all, const std::string& directory) {
    live_slices_t before, after;
    uint64_t merges = 0;
    std::string failure;
    bool out_of_space = false;
    try {
        before = after = count_slices(directory);
        const tsidx_ptr tsidx = index_handle_open(directory, MERGE_WRITE_LEVEL);
        static_cast<void>(st_tsidx_clear_need_optimize(tsidx.get()));
        st_tsidx_set_merge_drops_deleted(tsidx.get(), all->settings.drops_deleted);
        const int status = merge_directory(all, tsidx.get(), directory, &merges);
        if (status != 0 && status != WARM_RC_FEW_SLICES && status != WARM_RC_FEW_SOURCES) {
            failure = directory + ": " + index_failure_text(tsidx.get());
            out_of_space = status == WARM_RC_WRITE || status == WARM_RC_NO_MEMORY;
        }
        if (merges != 0) after = count_slices(directory);
    } catch (const failure_t& cannot_read) {
        failure += (failure.empty() ? "" : "; ") + cannot_read.message;
    }
    const std::lock_guard guard(all->mutex);
    all->totals.merges += merges;
    all->totals.slices_before += before.count;
    all->totals.slices_after += after.count;
    all->totals.bytes_before += before.bytes;
    all->totals.bytes_after += after.bytes;
    if (!failure.empty()) all->totals.failures.push_back(failure);
    all->totals.out_of_space = all->totals.out_of_space || out_of_space;
}

void work(crew* all) {
    const observer_scope observed(&all->stops);
    bool out_of_memory = false;
    for (size_t i = all->next++; i < all->directories->size() && !work_stops(); i = all->next++) {
        try {
            work_on(all, (*all->directories)[i]);
        } catch (const std::bad_alloc&) {
            out_of_memory = true;
        }
    }
    const std::lock_guard guard(all->mutex);
    all->out_of_memory = all->out_of_memory || out_of_memory;
    all->working--;
    all->ended.notify_all();
}

// As many threads as the system gives, down to this one alone, which then works before it returns.
void start_threads(crew* all, size_t jobs, std::vector<std::jthread>* threads) {
    threads->reserve(jobs);
    for (size_t i = 0; i < jobs; i++) {
        {
            const std::lock_guard guard(all->mutex);
            all->working++;
        }
        try {
            threads->emplace_back(work, all);
        } catch (const std::exception&) {  // no memory or no thread to be had
            if (threads->empty()) return work(all);
            const std::lock_guard guard(all->mutex);
            all->working--;
            return;
        }
    }
}

void watch_progress(crew* all) {
    progress shown = progress_begin(0);
    std::unique_lock guard(all->mutex);
    while (!all->ended.wait_for(guard, std::chrono::milliseconds(100), [all] { return all->working == 0; })) {
        static_cast<void>(work_stops());  // the threads learn what this one is told
        shown.total = all->planned;
        if (shown.total != 0 && all->settings.shows_progress) progress_show_merge(&shown, all->done);
    }
    if (all->settings.shows_progress) progress_end();
}

}  // namespace

merge_totals merge_directories(const std::vector<std::string>& directories, const merge_settings& settings) {
    crew all;
    all.directories = &directories;
    all.settings = settings;
    all.stops = observer_of_threads();
    {
        std::vector<std::jthread> threads;
        start_threads(&all, std::clamp<size_t>(settings.jobs, 1, std::max<size_t>(directories.size(), 1)), &threads);
        watch_progress(&all);
    }
    if (all.out_of_memory) {
        all.totals.failures.emplace_back("out of memory");
        all.totals.out_of_space = true;
    }
    return all.totals;
}

namespace {

// Of the calling thread and of those that it begins.
void lower_priority() {
    constexpr int LOWEST = 19;
    constexpr sched_param NONE = {};
    static_cast<void>(::sched_setscheduler(0, SCHED_BATCH, &NONE));
    static_cast<void>(::setpriority(PRIO_PROCESS, 0, LOWEST));
}

}  // namespace

void merge_aside_begin(merge_aside* aside, const std::string& directory) try {
    if (aside->at_work) return;
    aside->at_work = true;
    // One that has ended gives its place up at once.
    aside->thread = std::jthread([aside, directory, stops = observer_of_threads()] {
        const observer_scope observed(&stops);
        try {
            merge_settings settings = {.min_sources = SOURCES_WHILE_LOADING,
                                       .least_bytes = LEAST_WHILE_LOADING,
                                       .target_size = 2 * LARGE,
                                       .shows_progress = false};
            if (aside->follows) {
                settings = {.min_sources = SOURCES_WHILE_FOLLOWING, .shows_progress = false};
                lower_priority();
            }
            aside->merges += merge_directories({directory}, settings).merges;
        } catch (const std::bad_alloc&) {  // the load ends better without
        }
        aside->at_work = false;
    });
} catch (const std::exception&) {  // no memory or no thread to be had
    aside->at_work = false;
}

uint64_t merge_aside_wait(merge_aside* aside) {
    if (aside->thread.joinable()) aside->thread.join();
    return std::exchange(aside->merges, 0);
}

void merge_after_load(const std::vector<std::string>& directories, uint64_t merges_before) try {
    const auto begun = std::chrono::steady_clock::now();
    merge_totals totals = merge_directories(directories, {.spares_space = true});
    if (merges_before != 0) {
        // Those that a large load has left over; larger ones are for `veldar optimize`.
        const merge_totals rest =
            merge_directories(directories, {.is_final = true, .least_bytes = LARGE, .target_size = 2 * LARGE});
        totals.merges += rest.merges;
        totals.slices_after = rest.slices_after;
        totals.bytes_after = rest.bytes_after;
        totals.failures.insert(totals.failures.end(), rest.failures.begin(), rest.failures.end());
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begun;
    if (totals.merges != 0) say_summary(merge_totals_text(totals, seconds.count()));
    for (const std::string& failure : totals.failures) {
        say_trouble("slices were not merged: " + failure);
    }
} catch (const std::bad_alloc&) {
    say_trouble("slices were not merged: out of memory");
}

std::string merge_totals_text(const merge_totals& totals, double seconds) {
    if (totals.merges == 0) {
        return fmt::format("nothing to merge: {} slice{}, {}", totals.slices_after, totals.slices_after == 1 ? "" : "s",
                           bytes_text(totals.bytes_after));
    }
    return fmt::format("{} slice{} merged into {}, {} into {}, {:.1f} s", totals.slices_before,
                       totals.slices_before == 1 ? "" : "s", totals.slices_after, bytes_text(totals.bytes_before),
                       bytes_text(totals.bytes_after), seconds);
}

}  // namespace veldar::tool
