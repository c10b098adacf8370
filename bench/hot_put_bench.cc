// A million events through the transactions of a fresh directory, syncs and autotune included: processor time an event.
#include <benchmark/benchmark.h>

#include "bench/corpus.h"
#include "bench/scratch_dir.h"
#include "bench/succeed.h"
#include "searchthing/directory/tsidx.h"

namespace veldar {
namespace {

// Arguments: streaming, durable.
void hot_put(benchmark::State& state) {
    const corpus& events = corpus_million();
    TSWRITEOPTS opts;
    st_tsidx_write_opts_set_defaults(&opts);
    uint64_t slices = 0;
    for (auto _ : state) {
        const scratch_dir dir;
        TSIDX* tsidx =
            st_tsidx_open(dir.path().c_str(), static_cast<int>(state.range(0)), 0, &opts, TSIDX_ORDINARY_WRITER);
        st_tsidx_set_durable(tsidx, static_cast<int>(state.range(1)));
        st_txn txn;
        for (const corpus_event& event : events.events) {
            txn.time = event.time;
            txn.address = event.address;
            st_tsidx_txn_start(tsidx, &txn);
            for (uint32_t i = 0; i < CORPUS_TERMS_PER_EVENT; i++) {
                const std::string_view term = events.term(event.first_term + i);
                st_tsidx_txn_put(tsidx, term.data(), term.size(), &txn);
            }
            if (st_tsidx_txn_close(tsidx, &txn) != 0) state.SkipWithError("transaction failed");
        }
        if (st_tsidx_sync(tsidx) != 0) state.SkipWithError("sync failed");
        slices = st_tsidx_slices_written(tsidx);
        succeed(st_tsidx_close(tsidx));
    }
    const auto count = static_cast<double>(events.events.size());
    state.counters["slices"] = static_cast<double>(slices);
    state.counters["cpu_an_event"] =
        benchmark::Counter(count, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(hot_put)
    ->ArgNames({"streaming", "durable"})
    ->Args({0, 1})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();

}  // namespace
}  // namespace veldar

BENCHMARK_MAIN();
