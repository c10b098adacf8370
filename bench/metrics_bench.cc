// Reading a million samples of a thousand series, one a minute each, from the slice that merging leaves. The counter
// "samples" is what an iteration read or counted.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "bench/scratch_dir.h"
#include "bench/succeed.h"
#include "searchthing/st.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {
namespace {

constexpr uint32_t SERIES = 1000, SAMPLES = 1000;
constexpr st_time_t FIRST = 1700000000;
constexpr st_time_t LAST = FIRST + 60 * static_cast<st_time_t>(SAMPLES - 1);

// Percentages as an agent reports them: one or two decimals, some of them sums that are off by a unit in the last
// place.
double sample_of(uint32_t series, double* position, std::mt19937_64* random) {
    *position += std::normal_distribution<double>(0, 1.5)(*random);
    const double rounded = std::round(*position * 10) / 10;
    return series % 2 == 0 ? rounded : rounded + 0.046;
}

void put_all(const std::string& path) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, 4);
    THING* const thing = st_open_for_write(path.c_str(), ST_OPEN_METRICS, TSIDX_ORDINARY_WRITER, &opts);
    if (thing == nullptr) std::abort();
    std::mt19937_64 random(1);
    std::vector<double> positions(SERIES, 50);
    std::vector<std::string> hosts;
    for (uint32_t s = 0; s < SERIES; s++) hosts.push_back(" host::web" + std::to_string(s));
    const std::string metric = " metric_name::cpu.load", source = " source::agent", zone = " zone::eu-";
    for (uint32_t i = 0; i < SAMPLES; i++) {
        for (uint32_t s = 0; s < SERIES; s++) {
            const double value = sample_of(s, &positions[s], &random);
            const std::string zone_of = zone + static_cast<char>('a' + s % 5);
            st_txn_start(thing, FIRST + 60 * static_cast<st_time_t>(i), 0, 0, 0, 0);
            st_txn_put_measure(thing, metric.data(), metric.size(), value);
            st_txn_put(thing, hosts[s].data(), hosts[s].size());
            st_txn_put(thing, source.data(), source.size());
            st_txn_put(thing, zone_of.data(), zone_of.size());
            if (st_txn_close(thing) != 0) std::abort();
        }
    }
    if (st_close(thing) != 0) std::abort();
}

void merge_all(const std::string& path) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, 4);
    TSIDX* const tsidx = st_tsidx_open(path.c_str(), 0, 1, &opts, TSIDX_ORDINARY_WRITER);
    warm_rc_t rc;
    if (st_tsidx_optimize_n(tsidx, TSIDX_OPTIMIZE_ALL, 2, 0, 0, &rc, 0, 0, true) != 0) std::abort();
    succeed(st_tsidx_close(tsidx));
}

const std::string& shared() {
    static scratch_dir dir;
    static const bool filled = [] {
        put_all(dir.path());
        merge_all(dir.path());
        return true;
    }();
    static_cast<void>(filled);
    return dir.path();
}

struct reading {
    const char* name;
    const char* text;
    st_time_t earliest, latest;
    int64_t limit;  // samples after which the walk stops
};
constexpr reading READINGS[] = {
    {"all", "[AND]", FIRST, LAST, INT64_MAX},
    {"one_series", "[AND \\ host::web123]", FIRST, LAST, INT64_MAX},
    {"one_series_last_hour", "[AND \\ host::web123]", LAST - 3600, LAST, INT64_MAX},
    {"one_zone_last_hour", "[AND \\ zone::eu-b]", LAST - 3600, LAST, INT64_MAX},
    {"newest_100", "[AND \\ zone::eu-b]", FIRST, LAST, 100},
};

st_query_spec query_of(const reading& one) {
    st_query_spec query;
    st_query_init(&query);
    query.earliest = {one.earliest, 0};
    query.latest = {one.latest, 0};
    query.lispy = one.text;
    return query;
}

void read_samples(benchmark::State& state, const reading& one) {
    THING* const thing = st_open_for_read(shared().c_str());
    const st_query_spec query = query_of(one);
    struct totals {
        int64_t samples, limit;
        double sum;
    } read = {};
    for (auto _ : state) {
        read = {0, one.limit, 0};
        const int64_t total = st_apply_metric_events(
            thing, &query,
            [](const st_metric_event_t* event, void* opaque) {
                auto* const out = static_cast<totals*>(opaque);
                out->sum += event->measures[0].value;
                return ++out->samples == out->limit ? -1 : 0;
            },
            &read);
        if (read.samples != one.limit) succeed(total);  // one that is stopped ends with the callback's -1
        benchmark::DoNotOptimize(read.sum);
    }
    state.counters["samples"] = static_cast<double>(read.samples);
    succeed(st_close(thing));
}

void count_samples(benchmark::State& state, const reading& one) {
    THING* const thing = st_open_for_read(shared().c_str());
    const st_query_spec query = query_of(one);
    uint64_t count = 0;
    for (auto _ : state) {
        if (st_event_count(thing, &query, &count) != 0) state.SkipWithError("count");
    }
    state.counters["samples"] = static_cast<double>(count);
    succeed(st_close(thing));
}

}  // namespace
}  // namespace veldar

int main(int argc, char** argv) {
    ::setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", "1", 1);
    for (const veldar::reading& one : veldar::READINGS) {
        const std::string name = one.name;
        benchmark::RegisterBenchmark(("read/" + name).c_str(), veldar::read_samples, one)
            ->Unit(benchmark::kMicrosecond);
        if (one.limit == INT64_MAX) {
            benchmark::RegisterBenchmark(("count/" + name).c_str(), veldar::count_samples, one)
                ->Unit(benchmark::kMicrosecond);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
