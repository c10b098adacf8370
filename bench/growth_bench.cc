// How cost grows with the index: the same questions to directories of one, five and twenty million events, written in
// slabs that fit the memory and merged as far as they go. Processor time; `./growth_bench [MILLIONS...]`.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "bench/corpus.h"
#include "bench/scratch_dir.h"
#include "bench/stopwatch.h"
#include "bench/succeed.h"
#include "searchthing/st.h"
#include "searchthing/st_optimize.h"

namespace veldar {
namespace {

constexpr uint32_t SLAB = 250000;  // events
constexpr int32_t SLAB_SECONDS = 65000;
constexpr double LEAST_SECONDS = 0.05;  // of a measured stretch

double megabytes_at_most() {
    rusage usage;
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024;
}

double seconds_of(const std::function<void()>& work) {
    return processor_seconds_of(work, LEAST_SECONDS);
}

// Tells the processor time of the puts alone.
double put_slab(THING* thing, uint32_t number) {
    const corpus slab = corpus_generate(SLAB, number + 1);
    const double begin = processor_seconds();
    std::vector<std::string_view> terms(CORPUS_TERMS_PER_EVENT);
    for (uint32_t i = 0; i < slab.events.size(); i++) {
        const corpus_event& event = slab.events[i];
        for (uint32_t n = 0; n < CORPUS_TERMS_PER_EVENT; n++) terms[n] = slab.term(event.first_term + n);
        const st_txn txn = {.time = event.time + static_cast<int32_t>(number) * SLAB_SECONDS,
                            .address = number * SLAB + i};
        succeed(st_put_event(thing, &txn, terms));
    }
    return processor_seconds() - begin;
}

double fill(const std::string& directory, uint32_t slabs) {
    TSWRITEOPTS options;
    st_tsidx_write_opts_set_defaults(&options);
    THING* const thing = st_open_for_write(directory.c_str(), 0, TSIDX_ORDINARY_WRITER, &options);
    if (thing == nullptr) std::abort();
    double seconds = 0;
    for (uint32_t i = 0; i < slabs; i++) seconds += put_slab(thing, i);
    const double begin = processor_seconds();
    succeed(st_close(thing));
    return seconds + processor_seconds() - begin;
}

void print(const char* what, double figure, const char* unit) {
    std::printf("  %-40s %12.2f %s\n", what, figure, unit);
    std::fflush(stdout);
}

void ask(THING* thing, const char* text, int32_t from, int32_t to) {
    st_query_spec query;
    st_query_init(&query);
    query.earliest = {from, 0};
    query.latest = {to, 0};
    query.lispy = text;
    uint64_t events = 0;
    std::vector<st_tsval> answers(100);
    const double count = seconds_of([&] { succeed(st_event_count(thing, &query, &events)); });
    const double newest = seconds_of([&] {
        if (st_query(thing, &query, answers.data(), 100, 1) < 0) std::abort();
    });
    std::printf("  %-40s %12.2f us counted (%llu), %.2f us newest 100\n", text, 1e6 * count,
                static_cast<unsigned long long>(events), 1e6 * newest);
    std::fflush(stdout);
}

void measure(uint32_t millions) {
    const scratch_dir dir;
    const uint32_t slabs = millions * 4;
    const double events = 1e6 * millions;
    std::printf("%u million events\n", millions);
    print("put, an event", 1e6 * fill(dir.path(), slabs) / events, "us");
    const double begin = processor_seconds();
    warm_rc_t rc;
    succeed(st_optimize_directory(dir.path().c_str(), {.mode = TSIDX_OPTIMIZE_ALL}, &rc));
    print("merge to the end, an event", 1e6 * (processor_seconds() - begin) / events, "us");
    uint64_t bytes = 0, slices = 0;
    for (const auto& file : std::filesystem::directory_iterator(dir.path())) {
        bytes += file.file_size();
        slices += file.path().extension() == ".tsidx" ? 1 : 0;
    }
    print("index, an event", static_cast<double>(bytes) / events, "bytes");
    print("slices", static_cast<double>(slices), "");
    print("memory at most so far", megabytes_at_most(), "MiB");
    THING* const thing = st_open_for_read(dir.path().c_str());
    if (thing == nullptr) std::abort();
    ::sleep(3);  // until a new slice's time stamps say that nothing can have changed
    // A tenth of a million's time, whatever the size of the index.
    const int32_t begin_time = 1700000000 + SLAB_SECONDS, end_time = begin_time + 25000;
    for (const char* text :
         {"[AND get]", "[AND get status::200]", "[AND get andoresro]", "[AND get [NOT status::200]]"}) {
        ask(thing, text, INT32_MIN, INT32_MAX);
        ask(thing, text, begin_time, end_time);
    }
    const double walk = seconds_of([&] {
        if (st_lex_query(
                thing, "*mid*", [](const char*, size_t, uint64_t, void*) { return 1; }, nullptr) < 0)
            std::abort();
    });
    print("terms *mid*", 1e3 * walk, "ms");
    succeed(st_close(thing));
}

}  // namespace
}  // namespace veldar

// Options, which `./dev bench` hands to every program, are for others.
int main(int argc, char** argv) {
    std::vector<uint32_t> sizes;
    for (int i = 1; i < argc; i++) {
        if (argv[i][0] == '-') continue;
        const unsigned long millions = std::strtoul(argv[i], nullptr, 10);
        if (millions == 0 || millions > 200) {
            std::fprintf(stderr, "usage: growth_bench [MILLIONS...]\n");
            return 2;
        }
        sizes.push_back(static_cast<uint32_t>(millions));
    }
    if (sizes.empty()) sizes = {1, 5};
    for (const uint32_t millions : sizes) veldar::measure(millions);
    return 0;
}
