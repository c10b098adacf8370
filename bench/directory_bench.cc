// Opening a directory of many slices and answering a query from it: what the number of slices costs.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench/succeed.h"
#include "searchthing/st.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

constexpr int64_t EVENTS = 200000;

void put_event(THING* thing, int64_t i) {
    st_txn_start(thing, static_cast<st_time_t>(1700000000 + i), static_cast<st_addr_t>(i), 0, 0, 0);
    const std::string terms[] = {"all", "status::" + std::to_string(i % 7), "host::web" + std::to_string(i % 50),
                                 "user::" + std::to_string(i * 7919 % 20011), "request::" + std::to_string(i)};
    for (const std::string& term : terms) st_txn_put(thing, term.data(), term.size());
    succeed(st_txn_close(thing));
}

// A directory of so many slices, 200,000 events in all, in time order.
struct directory {
    std::string path;
    explicit directory(int64_t slices) {
        std::string pattern = (fs::temp_directory_path() / "veldar-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        path = pattern;
        TSWRITEOPTS opts;
        st_tsidx_write_opts_set_defaults(&opts);
        THING* thing = st_open_for_write(path.c_str(), 0, TSIDX_ORDINARY_WRITER, &opts);
        st_tsidx_set_durable(st_directory(thing), 0);
        st_set_params(thing, 1 << 21, 1 << 26, 1 << 22, 1 << 20, 1 << 10, 1 << 10);
        for (int64_t i = 0; i < EVENTS; i++) {
            put_event(thing, i);
            if ((i + 1) % (EVENTS / slices) == 0) succeed(st_sync(thing));
        }
        if (st_close(thing) != 0) std::abort();
    }
    ~directory() { fs::remove_all(path); }
    directory(const directory&) = delete;
    directory& operator=(const directory&) = delete;
};

const directory& directory_of(int64_t slices) {
    static directory one(1), ten(10), hundred(100), thousand(1000);
    return slices == 1 ? one : slices == 10 ? ten : slices == 100 ? hundred : thousand;
}

int query(THING* thing, const char* text) {
    QUERY query;
    st_query_init(&query);
    query.latest = {INT32_MAX, 0};
    query.lispy = text;
    static st_tsval answers[100];
    return st_query(thing, &query, answers, 100, 1);
}

// A frequent term ends in the newest slice; a rare one is looked for in all of them.
void open_and_query(benchmark::State& state, const char* text) {
    const std::string& path = directory_of(state.range(0)).path;
    for (auto _ : state) {
        THING* thing = st_open_for_read(path.c_str());
        if (query(thing, text) <= 0) std::abort();
        succeed(st_close(thing));
    }
}
void BM_open_newest_100(benchmark::State& state) {
    open_and_query(state, "[AND status::3]");
}
void BM_open_rare_term(benchmark::State& state) {
    open_and_query(state, "[AND request::77]");
}

// The same with slices that are open already, up to 256 of them.
void BM_query_rare_term(benchmark::State& state) {
    THING* thing = st_open_for_read(directory_of(state.range(0)).path.c_str());
    for (auto _ : state) {
        if (query(thing, "[AND request::77]") != 1) std::abort();
    }
    succeed(st_close(thing));
}
void BM_distinct_terms(benchmark::State& state) {
    THING* thing = st_open_for_read(directory_of(state.range(0)).path.c_str());
    for (auto _ : state) {
        if (st_distinct_term_count(thing) < 0) std::abort();
    }
    succeed(st_close(thing));
}

BENCHMARK(BM_open_newest_100)->RangeMultiplier(10)->Range(1, 1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_open_rare_term)->RangeMultiplier(10)->Range(1, 1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_query_rare_term)->RangeMultiplier(10)->Range(1, 1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_distinct_terms)->RangeMultiplier(10)->Range(1, 1000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace veldar

BENCHMARK_MAIN();
