// The column store over series of several natures: bytes a sample, and the time to build, walk, look up and add up.
//
// usage: cstore_bench [BENCHMARK ARGUMENT...] [FILE.csv...]
//
// The last column of a CSV file, header line skipped, is one more series.
#include <benchmark/benchmark.h>
#include <sys/mman.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench/succeed.h"
#include "searchthing/columns/cstore.h"

namespace veldar {
namespace {

constexpr uint32_t SERIES = 1000;   // of one measure, one dimension set each
constexpr uint32_t SAMPLES = 1000;  // of a series

using series = std::vector<double>;

// Random walks of SERIES series, one after the other; `step` makes a sample of the walk's position.
series generate(double spread, double (*sample)(double position)) {
    std::mt19937_64 random(1);
    std::normal_distribution<double> move(0, spread);
    series out;
    out.reserve(size_t{SERIES} * SAMPLES);
    for (uint32_t s = 0; s < SERIES; s++) {
        double position = 50 + static_cast<double>(s % 40);
        for (uint32_t i = 0; i < SAMPLES; i++) {
            position += move(random);
            out.push_back(sample(position));
        }
    }
    return out;
}

series generate_counter() {
    std::mt19937_64 random(1);
    series out;
    out.reserve(size_t{SERIES} * SAMPLES);
    for (uint32_t s = 0; s < SERIES; s++) {
        double count = static_cast<double>(random() % 1000000);
        for (uint32_t i = 0; i < SAMPLES; i++) out.push_back(count += static_cast<double>(random() % 600));
    }
    return out;
}

series read_csv(const std::string& path) {
    std::ifstream in(path);
    series out;
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) out.push_back(std::strtod(line.c_str() + line.rfind(',') + 1, nullptr));
    return out;
}

// Writes the section of one measure, with a new dimension set every SAMPLES values; returns its bytes.
uint64_t build(const series& samples, int fd, int64_t* ref) {
    cs_builder_t builder;
    warm_rc_t rc;
    succeed(cs_builder_open(&builder, 1, &rc));
    succeed(cs_add_columnset(&builder, 0, &rc));
    for (uint32_t i = 0; i < samples.size(); i++) {
        succeed(cs_add_element(&builder, 0, i, i % SAMPLES == 0, samples[i], &rc));
    }
    succeed(cs_finalize_offsets(&builder, static_cast<uint32_t>(samples.size()), 0, ref, &rc));
    succeed(cs_sync_cstore(&builder, fd, 0, &rc));
    return builder.footer_offset;
}

void report(benchmark::State& state, size_t samples) {
    state.counters["per_sample"] = benchmark::Counter(
        static_cast<double>(samples), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void run_build(benchmark::State& state, const series& samples) {
    const unique_fd fd(::memfd_create("cstore", MFD_CLOEXEC));
    int64_t ref = 0;
    uint64_t size = 0;
    for (auto _ : state) size = build(samples, fd.get(), &ref);
    report(state, samples.size());
    state.counters["bytes"] = static_cast<double>(size) / static_cast<double>(samples.size());
}

// Opens the section that `build` writes and hands its one column set to `use`.
template <typename Use>
void with_set(const series& samples, Use use) {
    const unique_fd fd(::memfd_create("cstore", MFD_CLOEXEC));
    int64_t ref = 0;
    build(samples, fd.get(), &ref);
    cs_reader_t section;
    cset_reader_t set;
    warm_rc_t rc;
    if (cs_reader_open(&section, fd.get(), 0, ref, &rc) != 0) std::abort();
    use([&] {
        if (cset_reader_open(&set, &section, 0, nullptr, &rc) != 0) std::abort();
        return &set;
    });
}

void run_walk(benchmark::State& state, const series& samples) {
    with_set(samples, [&](auto open) {
        warm_rc_t rc;
        for (auto _ : state) {
            cset_reader_t* set = open();
            uint32_t value_no = 0;
            double v = 0, total = 0;
            while (cset_reader_next(set, &value_no, &v, &rc) == 0 && value_no != CSET_END) total += v;
            benchmark::DoNotOptimize(total);
        }
    });
    report(state, samples.size());
}

void run_range(benchmark::State& state, const series& samples) {
    const auto count = static_cast<uint32_t>(samples.size());
    with_set(samples, [&](auto open) {
        warm_rc_t rc;
        std::vector<double> out(SAMPLES);
        std::vector<uint8_t> present(SAMPLES);
        for (auto _ : state) {
            cset_reader_t* set = open();
            for (uint32_t first = 0; first < count; first += SAMPLES) {
                succeed(
                    cset_reader_range(set, first, std::min(SAMPLES, count - first), out.data(), present.data(), &rc));
            }
        }
    });
    report(state, samples.size());
}

void run_get(benchmark::State& state, const series& samples) {
    with_set(samples, [&](auto open) {
        warm_rc_t rc;
        std::mt19937_64 random(3);
        cset_reader_t* set = open();
        double v = 0;
        bool present = false;
        for (auto _ : state) {
            succeed(cset_reader_get(set, static_cast<uint32_t>(random() % samples.size()), &v, &present, &rc));
            benchmark::DoNotOptimize(v);
        }
    });
}

// The numbers of nine tenths of the values.
void run_stats(benchmark::State& state, const series& samples) {
    const auto count = static_cast<uint32_t>(samples.size());
    with_set(samples, [&](auto open) {
        warm_rc_t rc;
        cs_stats_t stats;
        cset_reader_t* set = open();
        for (auto _ : state) {
            succeed(cset_reader_stats(set, count / 20, count / 10 * 9, &stats, &rc));
            benchmark::DoNotOptimize(stats.sum);
        }
    });
    report(state, samples.size());
}

void add_series(const std::string& name, const series& samples) {
    using runner = void (*)(benchmark::State&, const series&);
    const std::pair<const char*, runner> runs[] = {
        {"build/", run_build}, {"walk/", run_walk}, {"range/", run_range}, {"get/", run_get}, {"stats/", run_stats}};
    for (const auto& [what, run] : runs) {
        benchmark::RegisterBenchmark((what + name).c_str(),
                                     [run = run, &samples](benchmark::State& state) { run(state, samples); });
    }
}

}  // namespace
}  // namespace veldar

int main(int argc, char** argv) {
    using namespace veldar;
    benchmark::Initialize(&argc, argv);
    std::vector<std::pair<std::string, series>> all;
    all.emplace_back("constant", generate(0.5, [](double) { return 0.1; }));
    all.emplace_back("counter", generate_counter());
    all.emplace_back("gauge_2_decimals", generate(0.5, [](double x) { return std::round(x * 100) / 100; }));
    all.emplace_back("gauge_sum", generate(0.5, [](double x) { return std::floor(x) + std::round(x * 1000) / 1000; }));
    all.emplace_back("noise", generate(0.5, [](double x) { return x; }));
    for (int i = 1; i < argc; i++) all.emplace_back(std::filesystem::path(argv[i]).stem().string(), read_csv(argv[i]));
    for (const auto& [name, samples] : all) add_series(name, samples);
    benchmark::RunSpecifiedBenchmarks();
}
