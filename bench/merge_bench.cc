// Merging slices of a million events together: processor time and bytes an event, memory, and searching before and
// after. The sources follow one another in time, or (/mixed) hold every n-th event each.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/corpus.h"
#include "bench/scratch_dir.h"
#include "searchthing/hot/warmslice_create.h"
#include "searchthing/merge/warmslice_merge.h"
#include "searchthing/search/warmslice_search.h"

namespace veldar {
namespace {

warm_ptr open_slice(const std::string& path) {
    warm_rc_t rc;
    warm_ptr warm(st_warm_slice_open_rdonly(path.c_str(), &rc));
    if (warm == nullptr) throw std::runtime_error(rc.message);
    return warm;
}

TSWRITEOPTS options() {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_set_defaults(&opts);
    return opts;
}

std::string merge(const std::vector<std::string>& sources, const std::string& target) {
    std::vector<const char*> paths;
    for (const std::string& path : sources) paths.push_back(path.c_str());
    warm_merge_options_t merge_options;
    merge_options.write_options = options();
    warm_rc_t rc;
    warm_merge_t* handle = st_warm_slice_merge_open(paths, &merge_options, &rc);
    if (handle == nullptr) return rc.message;
    const int status = st_warm_slice_merge_write(handle, target.c_str(), false, &rc);
    st_warm_slice_merge_close(handle);
    return status == 0 ? "" : rc.message;
}

// The corpus as `parts` freshly created slices.
struct parts_t {
    scratch_dir dir;
    std::vector<std::string> paths;
    uint64_t bytes = 0;

    parts_t(size_t parts, bool mixed) {
        const corpus& events = corpus_million();
        const size_t a_part = events.events.size() / parts + 1;
        for (size_t part = 0; part < parts; part++) {
            std::vector<size_t> chosen;
            for (size_t i = 0; i < a_part; i++) {
                const size_t event = mixed ? i * parts + part : part * a_part + i;
                if (event < events.events.size()) chosen.push_back(event);
            }
            create(events, chosen);
        }
    }

  private:
    void create(const corpus& events, const std::vector<size_t>& chosen) {
        const TSWRITEOPTS opts = options();
        warm_rc_t rc;
        const auto count = static_cast<uint32_t>(chosen.size());
        HOT* hot = st_hot_slice_create(64 << 20, 1 << 20, (CORPUS_TERMS_PER_EVENT + 2) * count + 1000, count + 1000, 0,
                                       0, 0, false, false, &opts, &rc);
        if (hot == nullptr) throw std::runtime_error(rc.message);
        std::vector<hot_keyword_t> keywords(CORPUS_TERMS_PER_EVENT);
        for (const size_t e : chosen) {
            st_txn txn;
            txn.time = events.events[e].time;
            txn.address = events.events[e].address;
            for (uint32_t i = 0; i < CORPUS_TERMS_PER_EVENT; i++) {
                const std::string_view term = events.term(events.events[e].first_term + i);
                keywords[i] = {term.data(), static_cast<uint32_t>(term.size()),
                               hot_slice_hash(term.data(), term.size())};
            }
            hot_slice_put_all(hot, &txn, keywords);
        }
        ospath_buf filename;
        WARM* warm = st_warm_slice_create(hot, &filename, dir.path().c_str(), TSIDX_SUFFIX, &opts, &rc);
        st_hot_slice_close(hot);
        if (warm == nullptr) throw std::runtime_error(rc.message);
        st_warm_slice_close(warm);
        paths.emplace_back(filename.val);
        bytes += std::filesystem::file_size(paths.back());
    }
};

parts_t& shared_parts(size_t parts, bool mixed) {
    static std::map<std::pair<size_t, bool>, std::unique_ptr<parts_t>> all;
    std::unique_ptr<parts_t>& one = all[{parts, mixed}];
    if (one == nullptr) one = std::make_unique<parts_t>(parts, mixed);
    return *one;
}

// Resident memory of this process in bytes, now (VmRSS) or at most since the last reset (VmHWM).
double resident(const char* field) {
    double kilobytes = 0;
    if (std::FILE* status = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, status) != nullptr) {
            if (std::string_view(line).starts_with(field))
                std::sscanf(line + std::string_view(field).size() + 1, "%lf", &kilobytes);
        }
        std::fclose(status);
    }
    return kilobytes * 1024;
}
void reset_peak() {
    if (std::FILE* clear = std::fopen("/proc/self/clear_refs", "w")) {
        std::fputs("5", clear);
        std::fclose(clear);
    }
}

void merge_slices(benchmark::State& state, size_t parts, bool mixed, bool merged_before) {
    parts_t& sources = shared_parts(parts, mixed);
    const std::string target = sources.dir.path() + "/target";
    std::vector<std::string> paths = sources.paths;
    uint64_t bytes = sources.bytes;
    if (merged_before) {  // the sources are themselves merges, of eight each
        std::vector<std::string> halves;
        bytes = 0;
        for (size_t i = 0; i < paths.size(); i += 8) {
            halves.push_back(sources.dir.path() + "/half" + std::to_string(i));
            const std::string fault =
                merge({paths.begin() + static_cast<ptrdiff_t>(i), paths.begin() + static_cast<ptrdiff_t>(i + 8)},
                      halves.back());
            if (!fault.empty()) state.SkipWithError(fault.c_str());
            bytes += std::filesystem::file_size(halves.back());
        }
        paths = halves;
    }
    double peak = 0;
    for (auto _ : state) {
        reset_peak();
        const double before = resident("VmRSS");
        const std::string fault = merge(paths, target);
        peak = std::max(peak, resident("VmHWM") - before);
        if (!fault.empty()) state.SkipWithError(fault.c_str());
        state.PauseTiming();
        state.counters["bytes_an_event"] = static_cast<double>(std::filesystem::file_size(target)) / CORPUS_MILLION;
        std::filesystem::remove(target);
        state.ResumeTiming();
    }
    for (const std::string& path : merged_before ? paths : std::vector<std::string>()) std::filesystem::remove(path);
    state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
    state.counters["source_bytes_an_event"] = static_cast<double>(bytes) / CORPUS_MILLION;
    state.counters["peak_MB"] = peak / 1e6;
    state.counters["cpu_an_event"] =
        benchmark::Counter(CORPUS_MILLION, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// The same count over the parts and over their merge.
void search_slices(benchmark::State& state, const char* text, bool merged) {
    parts_t& sources = shared_parts(8, false);
    const std::string target = sources.dir.path() + "/searched";
    std::vector<warm_ptr> slices;
    if (merged) {
        if (!std::filesystem::exists(target)) merge(sources.paths, target);
        slices.push_back(open_slice(target));
    } else {
        for (const std::string& path : sources.paths) slices.push_back(open_slice(path));
    }
    st_query_spec query;
    st_query_init(&query);
    query.earliest = {INT_MIN, 0};
    query.latest = {INT_MAX, 0};
    query.lispy = text;
    uint64_t events = 0;
    for (auto _ : state) {
        events = 0;
        for (const warm_ptr& warm : slices) {
            warm_rc_t rc;
            uint64_t count = 0;
            if (warm_slice_count(warm.get(), &query, &count, nullptr, &rc) != 0) state.SkipWithError(rc.message);
            events += count;
        }
    }
    state.counters["events"] = static_cast<double>(events);
}

void register_all() {
    const auto add = [](const char* name, size_t parts, bool mixed, bool merged_before) {
        benchmark::RegisterBenchmark(name, merge_slices, parts, mixed, merged_before)->Unit(benchmark::kMillisecond);
    };
    add("merge/8", 8, false, false);
    add("merge/64", 64, false, false);
    add("merge/8/mixed", 8, true, false);
    add("merge/64_merged_by_8", 64, false, true);
    for (const bool merged : {false, true}) {
        const std::string suffix = merged ? "/merged" : "/parts";
        for (const auto& [name, text] : {std::pair{"and_frequent_frequent", "[AND get status::200]"},
                                         std::pair{"or_frequent", "[OR status::404 status::500]"},
                                         std::pair{"not", "[AND get [NOT status::200]]"}}) {
            benchmark::RegisterBenchmark((std::string("search/") + name + suffix).c_str(), search_slices, text, merged)
                ->Unit(benchmark::kMicrosecond);
        }
    }
}

}  // namespace
}  // namespace veldar

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    veldar::register_all();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
