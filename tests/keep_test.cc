// Old events that go from a store beside others that change it.
#include <gtest/gtest.h>

#include <filesystem>

#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/directory.h"
#include "tests/support/faults.h"
#include "tests/support/hot_events.h"
#include "tests/support/metric_events.h"
#include "tools/libveldar/load/retention.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

struct Retain : directory_test {
    temp_dir dir;
};

// A source of a merge goes while the merge is at work: its events do not come back with the target.
TEST_F(Retain, BesideAMerge) {
    const std::string events = dir.file("events"), metrics = dir.file("metrics");
    fs::create_directories(events);
    fs::create_directories(metrics);
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, 4);
    {
        const directory_ptr writer = open_directory(events);
        const directory_ptr samples(st_tsidx_open(metrics.c_str(), 0, 1, &opts, TSIDX_ORDINARY_WRITER));
        for (int32_t i = 1; i <= 3; i++) {
            for (int32_t n = 0; n < 5; n++) {
                const forge_event event = {
                    .time = 10 * i + n, .address = static_cast<uint32_t>(10 * i + n), .terms = {"a"}};
                ASSERT_EQ(put_event(writer.get(), event), 0);
            }
            for (const metric_event& event : random_metric_events(static_cast<uint64_t>(i), 20)) {
                ASSERT_EQ(put_metric_event(samples.get(), event, 1), 0);
            }
            ASSERT_EQ(st_tsidx_sync(writer.get()) + st_tsidx_sync(samples.get()), 0);
        }
    }
    struct dropper {
        std::string directory, name;
        int status = 1;
        tsidx_dropped_t dropped;
    };
    for (const std::string& directory : {events, metrics}) {
        dropper drop;
        drop.directory = directory;
        drop.name = fs::path(files_in(directory, TSIDX_SUFFIX)[1]).filename();
        const directory_ptr merger = open_directory(directory);
        const auto act = [](uint64_t, uint64_t, void* context) {
            dropper* const d = static_cast<dropper*>(context);
            const directory_ptr other = open_directory(d->directory);
            st_tsidx_set_lock_timeout(other.get(), 0);
            if (d->status == 1) d->status = st_tsidx_drop_slices(other.get(), {d->name, "none"}, &d->dropped);
        };
        st_tsidx_set_merge_progress(merger.get(), act, &drop);
        ASSERT_EQ(st_tsidx_optimize_n(merger.get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, nullptr, 0, 0, false), 0);
        EXPECT_EQ(files_in(directory, TSIDX_SUFFIX).size(), 1u);
        EXPECT_EQ(drop.status, directory == events ? 0 : WARM_RC_MANIFEST_EXISTS);
        EXPECT_EQ(drop.dropped.events, directory == events ? 5u : 0u);
        EXPECT_EQ(drop.dropped.slices, directory == events ? 1u : 0u);
    }
    const directory_ptr left = open_directory(events);
    EXPECT_EQ(query_keys(left.get(), "[AND a]").size(), 10u);
}

}  // namespace
}  // namespace veldar
