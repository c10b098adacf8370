// The walk over a whole lexicon: decoding alone, with a matcher, from memory; the writing of one; and the tool's
// formatting is measured by running the tool itself.
#include <benchmark/benchmark.h>

#include "bench/lexicon_terms.h"
#include "searchthing/lexicon/matcher.h"

namespace veldar {
namespace {

constexpr size_t TERMS = 380000;

const std::vector<std::string>& terms() {
    static const std::vector<std::string> all = lexicon_terms(TERMS);
    return all;
}

lexicon_in_file& shared() {
    static lexicon_in_file lexicon(terms());
    return lexicon;
}

int count_one(int32_t, const char*, size_t, void*) {
    return 1;
}
int count_match(int32_t, const char* term, size_t, void* matcher) {
    return isMatch(term, static_cast<OpaqueMatcher_T*>(matcher));
}

void walk(benchmark::State& state, FCLEX* lex, const char* needle) {
    OpaqueMatcher_T* matcher = needle == nullptr ? nullptr : createMatcher(needle);
    const std::string_view piece = matcher == nullptr ? std::string_view() : getLongestPiece(matcher);
    st_query_info_t stats;
    for (auto _ : state) {
        stats = {};
        benchmark::DoNotOptimize(
            fclex_apply_holding(lex, nullptr, piece, matcher ? count_match : count_one, matcher, &stats));
    }
    freeOpaqueMatcher(matcher);
    state.counters["terms"] = benchmark::Counter(TERMS, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["reads"] = static_cast<double>(stats.reads);
    state.counters["MB"] = static_cast<double>(shared().body.size()) / 1e6;
}

void BM_walk_file(benchmark::State& state) {
    walk(state, shared().lex, nullptr);
}
void BM_walk_file_match(benchmark::State& state) {
    walk(state, shared().lex, "*mid*");
}
void BM_walk_memory(benchmark::State& state) {
    FCLEX* lex = _fclex_open_bounded(shared().body);
    walk(state, lex, nullptr);
    st_fclex_close(lex);
}

void BM_create(benchmark::State& state) {
    std::vector<const char*> pointers;
    for (const std::string& term : terms()) pointers.push_back(term.c_str());
    std::vector<uint8_t> body(shared().body.size() + 1);
    for (auto _ : state) {
        st_fclex_close(st_fclex_create(body.data(), body.size(), pointers.data(), TERMS, 8, 1));
    }
    state.counters["terms"] = benchmark::Counter(TERMS, benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(BM_walk_file)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_walk_file_match)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_walk_memory)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_create)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace veldar

BENCHMARK_MAIN();
