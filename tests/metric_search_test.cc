// Metric slices against the forge: their runs, their counts, and searches against brute force.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>

#include "searchthing/warmslice_meta.h"
#include "searchthing/warmslice_runs.h"
#include "tests/support/forge_metric.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

struct warm_closer {
    void operator()(WARM* warm) const { EXPECT_EQ(st_warm_slice_close(warm), 0); }
};
using warm_ptr = std::unique_ptr<WARM, warm_closer>;

struct metric_slice {
    temp_dir dir;
    forge_metric_picture picture;
    warm_ptr warm;

    metric_slice(const std::vector<forge_metric_event>& events, const forge_metric_options& options) {
        warm_rc_t rc;
        const std::string path = forge_metric_file(dir.path(), events, options, 1, &picture);
        warm.reset(st_warm_slice_open_rdonly(path.c_str(), &rc));
        EXPECT_NE(warm, nullptr) << options.name() << ": " << rc.warm_rc << " " << rc.message;
    }
};

// With and without milliseconds, with every encoding of posting lists.
std::vector<forge_metric_options> metric_kinds() {
    std::vector<forge_metric_options> kinds;
    for (const uint64_t wflags : {uint64_t{0}, FORGE_TAG1, FORGE_TAG2, FORGE_TAG2 | FORGE_PLO32}) {
        for (const bool milliseconds : {false, true}) {
            forge_metric_options options;
            options.milliseconds = milliseconds;
            options.terms.wflags = wflags;
            options.terms.seed = kinds.size() + 1;
            options.terms.tperb = kinds.size() % 2 == 0 ? 8 : 3;
            kinds.push_back(options);
        }
    }
    return kinds;
}

TEST(MetricSlice, RunsValuesAndCountsAreThoseOfTheForge) {
    uint64_t seed = 0;
    for (const forge_metric_options& options : metric_kinds()) {
        for (const uint32_t size : {1u, 7u, 60u, 3000u}) {
            SCOPED_TRACE(options.name() + " events " + std::to_string(size));
            const metric_slice slice(forge_random_metrics(++seed, size), options);
            ASSERT_NE(slice.warm, nullptr);
            WARM* const warm = slice.warm.get();
            warm_rc_t rc;
            ASSERT_EQ(st_warm_slice_dimsets_offset(warm, &rc), static_cast<int64_t>(slice.picture.at.dimsets));
            ASSERT_EQ(warm_slice_runs(warm), slice.picture.runs.size());
            // Backwards, so that the first piece of the cache is not the first one filled.
            for (auto p = static_cast<uint32_t>(slice.picture.runs.size()); p-- > 0;) {
                warm_run_t run;
                ASSERT_EQ(warm_slice_run(warm, p, &run, &rc), 0) << rc.message;
                ASSERT_EQ(run.count, slice.picture.runs[p].size());
                for (uint32_t i = 0; i < run.count; i++) {
                    const forge_metric_event& event = slice.picture.runs[p][i];
                    st_tsval value;
                    ASSERT_EQ(tsval_reader_decode(&warm->tsval_reader, run.first + i, &value, false, 0, &rc), 0);
                    ASSERT_EQ(value.time, event.time);
                    ASSERT_EQ(value.subsecond, options.milliseconds ? event.milliseconds * 1000000u : 0u);
                    ASSERT_EQ(value.s, event.s);
                    ASSERT_EQ(value.h, event.h);
                }
            }
            for (uint32_t term = 0; term < st_warm_slice_terms(warm); term++) {
                st_term_metadata stored = {}, computed = {};
                ASSERT_EQ(warm_slice_term_metadata(warm, term, nullptr, &stored, &rc), 0);
                ASSERT_EQ(warm_slice_recomputed_metadata(warm, term, nullptr, &computed, &rc), 0) << rc.message;
                ASSERT_EQ(computed.count, stored.count);
                ASSERT_EQ(computed.earliest, stored.earliest);
                ASSERT_EQ(computed.latest, stored.latest);
            }
        }
    }
}

}  // namespace
}  // namespace veldar
