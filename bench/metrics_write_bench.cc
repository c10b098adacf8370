// A million samples of a thousand series, one a minute, through a fresh metric directory: put, sync and merge to one
// slice; processor time and bytes a sample, and where the bytes are.
//
// usage: metrics_write_bench [BENCHMARK ARGUMENT...] [FILE.csv...]
//
// With CSV files, whose last column is taken (header line skipped), the series are stretches of those.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench/scratch_dir.h"
#include "bench/succeed.h"
#include "searchthing/columns/cstore.h"
#include "searchthing/directory/tsidx.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {
namespace {

constexpr uint32_t SERIES = 1000;
constexpr uint32_t MINUTES = 1000;
constexpr st_time_t BEGIN = 1'700'000'000;

// samples[minute * SERIES + series]
std::vector<double>& samples() {
    static std::vector<double> all(size_t{SERIES} * MINUTES);
    return all;
}

// Percentages of three decimals that were added up, some of them off by a unit in the last place.
void generate_samples() {
    std::mt19937_64 random(1);
    std::normal_distribution<double> noise(0, 2);
    for (uint32_t s = 0; s < SERIES; s++) {
        const double level = 10 + s % 60;
        for (uint32_t minute = 0; minute < MINUTES; minute++) {
            const double v = std::fabs(level + 5 * std::sin(minute / 200.0) + noise(random));
            samples()[size_t{minute} * SERIES + s] = std::floor(v) + std::round((v - std::floor(v)) * 1000) / 1000;
        }
    }
}

bool read_samples(const std::vector<std::string>& paths) {
    std::vector<std::vector<double>> columns;
    for (const std::string& path : paths) {
        std::ifstream in(path);
        std::string line;
        std::getline(in, line);
        std::vector<double>& column = columns.emplace_back();
        while (std::getline(in, line)) column.push_back(std::strtod(line.c_str() + line.rfind(',') + 1, nullptr));
        if (column.empty()) return false;
    }
    for (uint32_t s = 0; s < SERIES; s++) {
        const std::vector<double>& column = columns[s % columns.size()];
        for (uint32_t minute = 0; minute < MINUTES; minute++) {
            samples()[size_t{minute} * SERIES + s] = column[(s * 7919 + minute) % column.size()];
        }
    }
    return true;
}

struct directory_size {
    uint64_t bytes = 0;
    uint64_t measures = 0;  // bytes of the column stores
    uint64_t times = 0;     // and of the values sections
    uint64_t slices = 0;
};

directory_size measure(const std::string& directory) {
    directory_size size;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().extension() != TSIDX_SUFFIX) continue;
        warm_rc_t rc;
        WARM* warm = st_warm_slice_open_rdonly(entry.path().c_str(), &rc);
        const cs_reader_t* store = warm == nullptr ? nullptr : st_warm_slice_cstore(warm, &rc);
        if (store == nullptr) std::abort();
        size.bytes += entry.file_size();
        size.measures += store->section_size;
        size.times += warm_header_tsval_encoded_array_size(warm->body);
        size.slices++;
        st_warm_slice_close(warm);
    }
    return size;
}

// `measures` series of one host at one minute are one event.
bool put_all(TSIDX* tsidx, uint32_t measures) {
    std::vector<std::string> hosts, names;
    for (uint32_t i = 0; i < SERIES / measures; i++) hosts.push_back(" host::web" + std::to_string(i));
    for (uint32_t i = 0; i < measures; i++) names.push_back(" metric_name::cpu.load" + std::to_string(i));
    st_txn txn;
    size_t at = 0;
    for (uint32_t minute = 0; minute < MINUTES; minute++) {
        txn.time = BEGIN + static_cast<st_time_t>(minute * 60);
        for (const std::string& host : hosts) {
            st_tsidx_txn_start(tsidx, &txn);
            st_tsidx_txn_put(tsidx, host.data(), host.size(), &txn);
            for (const std::string& name : names) {
                txn.measure = samples()[at++];
                st_tsidx_txn_put(tsidx, name.data(), name.size(), &txn);
            }
            if (st_tsidx_txn_close(tsidx, &txn) != 0) return false;
        }
    }
    return st_tsidx_sync(tsidx) == 0;
}

void report(benchmark::State& state, const directory_size& size) {
    const auto count = static_cast<double>(samples().size());
    state.counters["slices"] = static_cast<double>(size.slices);
    state.counters["bytes"] = static_cast<double>(size.bytes) / count;
    state.counters["measure_bytes"] = static_cast<double>(size.measures) / count;
    state.counters["time_bytes"] = static_cast<double>(size.times) / count;
    state.counters["cpu_a_sample"] =
        benchmark::Counter(count, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

TSIDX* open_directory(const std::string& path) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_set_defaults(&opts);
    return st_tsidx_open(path.c_str(), 0, 1, &opts, TSIDX_ORDINARY_WRITER);
}

void metrics_put(benchmark::State& state) {
    directory_size size;
    for (auto _ : state) {
        const scratch_dir dir;
        TSIDX* tsidx = open_directory(dir.path());
        if (!put_all(tsidx, static_cast<uint32_t>(state.range(0)))) state.SkipWithError("put failed");
        succeed(st_tsidx_close(tsidx));
        size = measure(dir.path());
    }
    report(state, size);
}

void metrics_optimize(benchmark::State& state) {
    directory_size size;
    for (auto _ : state) {
        state.PauseTiming();
        const scratch_dir dir;
        TSIDX* tsidx = open_directory(dir.path());
        if (!put_all(tsidx, static_cast<uint32_t>(state.range(0)))) state.SkipWithError("put failed");
        state.ResumeTiming();
        warm_rc_t rc;
        int status = 0;
        while (status == 0) {
            status = st_tsidx_optimize_n(tsidx, TSIDX_OPTIMIZE_ALL, 2, 0, 0, &rc, 0, 0, true);
        }
        if (status != WARM_RC_FEW_SLICES && status != WARM_RC_FEW_SOURCES) state.SkipWithError(rc.message);
        succeed(st_tsidx_close(tsidx));
        size = measure(dir.path());
    }
    report(state, size);
}

BENCHMARK(metrics_put)->ArgName("measures")->Arg(1)->Arg(10)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK(metrics_optimize)
    ->ArgName("measures")
    ->Arg(1)
    ->Arg(10)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();

}  // namespace
}  // namespace veldar

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc == 1) veldar::generate_samples();
    if (argc > 1 && !veldar::read_samples({argv + 1, argv + argc})) {
        std::fprintf(stderr, "cannot read the series\n");
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
}
