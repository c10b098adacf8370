// Merging lexicons, from files into a file, beside `sort -m -u` of the same terms.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <fstream>

#include "bench/lexicon_terms.h"
#include "bench/scratch_dir.h"
#include "searchthing/lexicon/fclex_io.h"

namespace veldar {
namespace {

constexpr size_t TERMS = 380000;

// Parts of one log: a tenth of the terms occurs in every second part, the rest in one or two.
struct parts {
    explicit parts(size_t count) : text_files(scratch.path()) {
        std::mt19937 rng(3);
        std::vector<std::vector<std::string>> lists(count);
        for (const std::string& term : lexicon_terms(TERMS)) {
            if (rng() % 10 == 0) {
                for (std::vector<std::string>& list : lists) {
                    if (rng() % 2 == 0) list.push_back(term);
                }
                continue;
            }
            const size_t first = rng() % count;
            const size_t second = rng() % 2 == 0 ? first : rng() % count;
            lists[first].push_back(term);
            if (second != first) lists[second].push_back(term);
        }
        for (size_t i = 0; i < count; i++) {
            source_terms += lists[i].size();
            bodies.push_back(std::make_unique<lexicon_in_file>(lists[i]));
            fds.push_back(bodies.back()->fd.get());
            std::ofstream out(text_files + "/" + std::to_string(i));
            for (const std::string& term : lists[i]) out << term << '\n';
            maps.emplace_back(lists[i].size());
            old2new.push_back(maps.back().data());
        }
        offsets.assign(count, 0);
        ends.assign(count, 0);
    }

    scratch_dir scratch;
    std::string text_files;
    std::vector<std::unique_ptr<lexicon_in_file>> bodies;
    std::vector<int> fds;
    std::vector<int64_t> offsets;
    std::vector<uint64_t> ends;
    std::vector<std::vector<uint32_t>> maps;
    std::vector<uint32_t*> old2new;
    size_t source_terms = 0;
};

void BM_merge(benchmark::State& state) {
    parts all(static_cast<size_t>(state.range(0)));
    const unique_fd out(::memfd_create("merged", MFD_CLOEXEC));
    for (auto _ : state) {
        lex_writer_t writer;
        uint32_t merged = 0;
        bmap_array_t bitmaps;
        warm_rc_t rc;
        uint64_t end;
        const auto count = static_cast<uint32_t>(all.fds.size());
        if (st_fclex_merge_n(false, all.fds.data(), all.offsets.data(), count, 64, 0, &writer, &merged, &bitmaps,
                             all.ends.data(), all.old2new.data(), &rc) != 0 ||
            _lex_writer_close(false, &writer, out.get(), 0, &end) != 0) {
            state.SkipWithError(rc.message);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(all.source_terms));
    state.counters["s_per_term"] =
        benchmark::Counter(static_cast<double>(all.source_terms),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Processor time of the commands run so far.
double children_seconds() {
    rusage usage;
    ::getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void BM_sort_m(benchmark::State& state) {
    parts all(static_cast<size_t>(state.range(0)));
    const std::string command = "LC_ALL=C sort -m -u " + all.text_files + "/* > /dev/null";
    for (auto _ : state) {
        const double before = children_seconds();
        if (std::system(command.c_str()) != 0) state.SkipWithError("sort failed");
        state.SetIterationTime(children_seconds() - before);
    }
    state.counters["s_per_term"] =
        benchmark::Counter(static_cast<double>(all.source_terms),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK(BM_merge)->Arg(2)->Arg(8)->Arg(64)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_sort_m)->Arg(2)->Arg(8)->Arg(64)->Unit(benchmark::kMillisecond)->UseManualTime();

}  // namespace
}  // namespace veldar

BENCHMARK_MAIN();
