// Writing one hot slice as a warm slice: preparing and creating, apart from filling it.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/corpus.h"
#include "bench/scratch_dir.h"
#include "searchthing/hot/warmslice_create.h"

namespace veldar {
namespace {

void fill(HOT* hot, const corpus& events, size_t count) {
    std::vector<hot_keyword_t> keywords(CORPUS_TERMS_PER_EVENT);
    st_txn txn;
    for (size_t e = 0; e < count; e++) {
        txn.time = events.events[e].time;
        txn.address = events.events[e].address;
        for (uint32_t i = 0; i < CORPUS_TERMS_PER_EVENT; i++) {
            const std::string_view term = events.term(events.events[e].first_term + i);
            keywords[i] = {term.data(), static_cast<uint32_t>(term.size()), hot_slice_hash(term.data(), term.size())};
        }
        hot_slice_put_all(hot, &txn, keywords);
    }
}

// Argument: events.
void slice_create(benchmark::State& state) {
    const corpus& events = corpus_million();
    const auto count = static_cast<size_t>(state.range(0));
    TSWRITEOPTS opts;
    st_tsidx_write_opts_set_defaults(&opts);
    warm_rc_t rc;
    HOT* hot = st_hot_slice_create(16 << 20, 1 << 19, CORPUS_TERMS_PER_EVENT * count + 1, count + 1, 0, 0, 0, false,
                                   false, &opts, &rc);
    if (hot == nullptr) {
        state.SkipWithError(rc.message);
        return;
    }
    for (auto _ : state) {
        state.PauseTiming();
        const scratch_dir dir;
        st_hot_slice_reset(hot);
        fill(hot, events, count);
        state.ResumeTiming();
        ospath_buf filename;
        WARM* warm = st_warm_slice_create(hot, &filename, dir.path().c_str(), TSIDX_SUFFIX, &opts, &rc);
        if (warm == nullptr) {
            state.SkipWithError(rc.message);
            break;
        }
        state.counters["bytes_an_event"] = static_cast<double>(warm->file_size) / static_cast<double>(count);
        st_warm_slice_close(warm);
    }
    st_hot_slice_close(hot);
    state.counters["cpu_an_event"] = benchmark::Counter(
        static_cast<double>(count), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(slice_create)
    ->ArgName("events")
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(400000)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();

}  // namespace
}  // namespace veldar

BENCHMARK_MAIN();
