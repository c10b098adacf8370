// Lookups of present and absent terms, and a walk over the few terms of a prefix.
#include <benchmark/benchmark.h>

#include <algorithm>

#include "bench/lexicon_terms.h"

namespace veldar {
namespace {

constexpr size_t TERMS = 380000;

struct lookups {
    std::vector<std::string> terms = lexicon_terms(TERMS);
    lexicon_in_file lexicon{terms};
    lookups() { std::shuffle(terms.begin(), terms.end(), std::mt19937(2)); }
};

lookups& shared() {
    static lookups all;
    return all;
}

void get(benchmark::State& state, FCLEX* lex, const char* suffix) {
    size_t i = 0;
    st_query_info_t stats;
    for (auto _ : state) {
        const std::string key = shared().terms[i++ % TERMS] + suffix;
        benchmark::DoNotOptimize(st_fclex_get(lex, key.c_str(), &stats));
    }
    state.counters["reads"] = benchmark::Counter(static_cast<double>(stats.reads), benchmark::Counter::kAvgIterations);
}

void BM_get_present_file(benchmark::State& state) {
    get(state, shared().lexicon.lex, "");
}
void BM_get_absent_file(benchmark::State& state) {
    get(state, shared().lexicon.lex, "~");
}
void BM_get_present_memory(benchmark::State& state) {
    FCLEX* lex = _fclex_open_bounded(shared().lexicon.body);
    get(state, lex, "");
    st_fclex_close(lex);
}

int count_one(int32_t, const char*, size_t, void*) {
    return 1;
}
void BM_prefix_file(benchmark::State& state) {
    size_t i = 0;
    st_query_info_t stats;
    for (auto _ : state) {
        const std::string& term = shared().terms[i++ % TERMS];
        const std::string prefix = term.substr(0, term.size() - 1);
        benchmark::DoNotOptimize(st_fclex_apply(shared().lexicon.lex, prefix.c_str(), count_one, nullptr, &stats));
    }
    state.counters["reads"] = benchmark::Counter(static_cast<double>(stats.reads), benchmark::Counter::kAvgIterations);
}

BENCHMARK(BM_get_present_file);
BENCHMARK(BM_get_absent_file);
BENCHMARK(BM_get_present_memory);
BENCHMARK(BM_prefix_file);

}  // namespace
}  // namespace veldar

BENCHMARK_MAIN();
