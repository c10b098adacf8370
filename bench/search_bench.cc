// Queries over one slice of a million events: counts and the newest hundred, of all time and of a tenth of it, and
// `grep -c` over the same events as text for comparison. "first" is without anything that the handle remembers of
// posting lists. The counter "events" is what the query matches.
#include <benchmark/benchmark.h>
#include <sys/wait.h>

#include <climits>
#include <cstdlib>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/corpus.h"
#include "bench/scratch_dir.h"
#include "searchthing/search/warmslice_search.h"
#include "tools/libveldar/load/index_writer.h"
#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/store/slices.h"

namespace veldar {

using namespace tool;
namespace {

struct searched {
    scratch_dir dir;
    warm_ptr warm;
    std::string log;
    std::unordered_map<std::string, uint32_t> counts;  // events by term
    st_time_t first = 0, last = 0;

    searched() : log(dir.path() + "/log") {
        const corpus& events = corpus_million();
        corpus_write(events, log);
        index_writer writer;
        index_writer_open(&writer, dir.path(), 4, false,
                          {CORPUS_MILLION, uint64_t{256} << 20, uint64_t{CORPUS_TERMS_PER_EVENT + 1} * CORPUS_MILLION,
                           2 * CORPUS_MILLION},
                          false);
        std::vector<std::string_view> terms;
        for (const corpus_event& event : events.events) {
            terms.clear();
            for (uint32_t i = 0; i < CORPUS_TERMS_PER_EVENT; i++) terms.push_back(events.term(event.first_term + i));
            std::sort(terms.begin(), terms.end());
            terms.erase(std::unique(terms.begin(), terms.end()), terms.end());
            for (const std::string_view term : terms) counts[std::string(term)]++;
            st_txn txn;
            txn.time = event.time;
            txn.address = event.address;
            index_writer_put(&writer, txn, terms);
        }
        index_writer_close(&writer);
        first = events.events.front().time;
        last = events.events.back().time;
        const std::vector<std::string> names = slice_names(dir.path());
        warm_rc_t rc;
        if (names.size() == 1) warm.reset(st_warm_slice_open_rdonly((dir.path() + "/" + names[0]).c_str(), &rc));
        if (warm == nullptr) throw std::runtime_error("the events are not in one slice");
    }

    // The word that is in about this many events; the n-th such word.
    std::string word(uint32_t wanted, int n = 0) const {
        std::vector<std::pair<uint32_t, std::string>> near;
        for (const auto& [term, count] : counts) {
            if (term.find("::") != std::string::npos || std::isalpha(static_cast<unsigned char>(term[0])) == 0)
                continue;
            near.emplace_back(count > wanted ? count - wanted : wanted - count, term);
        }
        std::nth_element(near.begin(), near.begin() + n, near.end());
        return near[static_cast<size_t>(n)].second;
    }
};

searched& shared() {
    static searched all;
    return all;
}

constexpr uint32_t RARE = 100, MEDIUM = 10000;

// The queries; f, g: frequent terms, m, n: medium, r, q: rare.
std::vector<std::pair<std::string, std::string>> queries() {
    const searched& all = shared();
    const std::string f = "get", g = "status::200", h = "host::web0", m = all.word(MEDIUM), n = all.word(MEDIUM, 1),
                      r = all.word(RARE), q = all.word(RARE, 1);
    return {{"frequent", "[AND " + f + "]"},
            {"medium", "[AND " + m + "]"},
            {"rare", "[AND " + r + "]"},
            {"absent", "[AND nosuchterm]"},
            {"and_frequent_frequent", "[AND " + f + " " + g + "]"},
            {"and_frequent_medium", "[AND " + f + " " + m + "]"},
            {"and_medium_medium", "[AND " + m + " " + n + "]"},
            {"and_frequent_rare", "[AND " + f + " " + r + "]"},
            {"and_three", "[AND " + f + " " + g + " " + h + "]"},
            {"and_not", "[AND " + f + " [NOT " + g + "]]"},
            {"medium_and_not_frequent", "[AND " + m + " [NOT " + g + "]]"},
            {"or_five", "[OR " + m + " " + n + " " + r + " " + q + " status::500]"},
            {"prefix_wildcard", "[AND " + m.substr(0, 3) + "*]"},
            {"infix_wildcard", "[AND *" + m.substr(1, 4) + "*]"},
            {"comparison", "[AND [GT bytes 100000]]"},
            {"comparison_and_rare", "[AND [GT bytes 100000] " + r + "]"}};
}

st_query_spec make_query(const std::string& text, st_time_t earliest, st_time_t latest) {
    st_query_spec query;
    st_query_init(&query);
    query.earliest = {earliest, 0};
    query.latest = {latest, 0};
    query.opt_a = QUERY_WILDCARDS_SKIP_FIELDS;
    query.lispy = text.c_str();
    return query;
}

struct asking {
    std::string text;
    bool is_tenth, is_first;
};

st_query_spec query_of(const asking& one) {
    const searched& all = shared();
    const st_time_t tenth = (all.last - all.first) / 10;
    return one.is_tenth ? make_query(one.text, all.first + tenth, all.first + 2 * tenth)
                        : make_query(one.text, INT_MIN, INT_MAX);
}

// Ends what the slice's handle remembers of lists.
void forget_lists(benchmark::State& state) {
    state.PauseTiming();
    kept_lists* const lists = &shared().warm->lists;
    std::destroy_at(lists);
    std::construct_at(lists);
    state.ResumeTiming();
}

void count(benchmark::State& state, const asking& one) {
    const st_query_spec query = query_of(one);
    uint64_t events = 0;
    for (auto _ : state) {
        warm_rc_t rc;
        if (one.is_first) forget_lists(state);
        if (warm_slice_count(shared().warm.get(), &query, &events, nullptr, &rc) != 0) state.SkipWithError(rc.message);
    }
    state.counters["events"] = static_cast<double>(events);
}

void newest(benchmark::State& state, const asking& one) {
    const st_query_spec query = query_of(one);
    std::vector<st_tsval> answers(100);
    int found = 0;
    for (auto _ : state) {
        if (one.is_first) forget_lists(state);
        found = st_warm_slice_search(shared().warm.get(), &query, answers.data(), 100, true);
        if (found < 0) state.SkipWithError("search failed");
    }
    state.counters["events"] = found;
}

void grep(benchmark::State& state, const std::string& pattern) {
    const std::string command = "grep -cwF '" + pattern + "' " + shared().log + " >/dev/null";
    for (auto _ : state) benchmark::DoNotOptimize(std::system(command.c_str()));
}

void register_all() {
    for (const char* time : {"", "tenth_"}) {
        for (const char* first : {"", "first_"}) {
            for (const auto& [name, text] : queries()) {
                const asking one = {text, *time != 0, *first != 0};
                const std::string kind = std::string(time) + first;
                benchmark::RegisterBenchmark((kind + "count/" + name).c_str(), count, one)
                    ->Unit(benchmark::kMicrosecond);
                benchmark::RegisterBenchmark((kind + "newest_100/" + name).c_str(), newest, one)
                    ->Unit(benchmark::kMicrosecond);
            }
        }
    }
    benchmark::RegisterBenchmark("grep/frequent", grep, "get")->Unit(benchmark::kMicrosecond)->UseRealTime();
    benchmark::RegisterBenchmark("grep/rare", grep, shared().word(RARE))->Unit(benchmark::kMicrosecond)->UseRealTime();
}

}  // namespace
}  // namespace veldar

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    veldar::register_all();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
