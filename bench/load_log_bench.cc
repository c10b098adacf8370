// A million generated lines of a web server's access log through the loader of the tool, and the corpus as tokenised
// lines through the writer behind `veldar put`: processor time an event, MB of text a second, bytes of index an event.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "bench/corpus.h"
#include "bench/scratch_dir.h"
#include "tools/libveldar/load/index_writer.h"
#include "tools/libveldar/load/loader.h"
#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/load/put_line.h"
#include "tools/veldar/commands/command.h"

namespace veldar {

using namespace tool;
namespace {

void report(benchmark::State& state, uint64_t events, uint64_t bytes_in, uint64_t index_bytes) {
    using benchmark::Counter;
    state.counters["cpu_an_event"] =
        Counter(static_cast<double>(events), Counter::kIsIterationInvariantRate | Counter::kInvert);
    state.counters["text"] =
        Counter(static_cast<double>(bytes_in), Counter::kIsIterationInvariantRate, Counter::kIs1000);
    state.counters["index_bytes_an_event"] = static_cast<double>(index_bytes) / static_cast<double>(events);
}

// Times that ascend, 20 events a second, with words of the corpus as path, client and agent.
void write_access_log(const corpus& events, const std::string& path) {
    std::FILE* out = std::fopen(path.c_str(), "w");
    for (uint32_t i = 0; i < events.events.size(); i++) {
        const uint32_t first = events.events[i].first_term, second = i / 20;
        const auto term = [&](uint32_t n) { return std::string(events.term(first + n)); };
        std::fprintf(out,
                     "10.%u.%u.%u - - [%02u/May/2024:%02u:%02u:%02u +0000] \"GET /%s/%s?id=%s HTTP/1.1\" %u %u "
                     "\"-\" \"Mozilla/5.0 (%s; %s)\"\n",
                     i % 7, i * 31 % 251, i % 241, 1 + second / 86400, second / 3600 % 24, second / 60 % 60,
                     second % 60, term(0).c_str(), term(1).c_str(), term(2).c_str(), i % 9 == 0 ? 404u : 200u,
                     i * 977 % 50000, term(3).c_str(), term(4).c_str());
    }
    std::fclose(out);
}

void load_log(benchmark::State& state) {
    const scratch_dir logs;
    write_access_log(corpus_million(), logs.path() + "/access.log");
    load_totals totals;
    for (auto _ : state) {
        const scratch_dir dir;
        load_options options;
        options.no_fsync = state.range(0) == 0;
        loader load;
        std::string error;
        loader_open(&load, dir.path() + "/store", options);
        if (!loader_load(&load, logs.path() + "/access.log", &error)) state.SkipWithError(error.c_str());
        loader_close(&load);
        totals = load.totals;
    }
    report(state, totals.events, totals.bytes_in, totals.index_bytes);
}

void put_lines(benchmark::State& state) {
    const corpus& events = corpus_million();
    std::string text;
    for (const corpus_event& event : events.events) {
        text += std::to_string(event.time) + "\t" + std::to_string(event.address) + "\t1\t1\t1\t0\t";
        for (uint32_t i = 0; i < CORPUS_TERMS_PER_EVENT; i++) {
            text += i == 0 ? "" : " ";
            text += events.term(event.first_term + i);
        }
        text += '\n';
    }
    load_totals totals;
    for (auto _ : state) {
        const scratch_dir dir;
        index_writer writer;
        put_event event;
        index_writer_open(&writer, dir.path(), 4, false, index_limits(), state.range(0) != 0);
        for (size_t at = 0, end; at < text.size(); at = end + 1) {
            end = text.find('\n', at);
            if (put_line_parse({text.data() + at, end - at}, &event) != nullptr) state.SkipWithError("bad line");
            index_writer_put(&writer, event.txn, event.terms);
        }
        index_writer_close(&writer);
        totals = {};
        totals_add_slices(&totals, dir.path(), {});
    }
    report(state, events.events.size(), text.size(), totals.index_bytes);
}

BENCHMARK(load_log)->ArgName("durable")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK(put_lines)->ArgName("durable")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

}  // namespace
}  // namespace veldar

BENCHMARK_MAIN();
