// Selections over one merged slice of a million events, and over a million samples of a thousand series: what people
// ask of dashboards. The counter "rows" is how many rows the answer has.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <unordered_map>

#include "bench/corpus.h"
#include "bench/scratch_dir.h"
#include "bench/succeed.h"
#include "searchthing/reading/tsidx_select.h"
#include "searchthing/st.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {
namespace {

constexpr uint32_t SERIES = 1000, SAMPLES = 1000;
constexpr st_time_t FIRST = 1700000000;

// A directory with one merged slice, open for reading.
struct merged_directory {
    scratch_dir dir;
    THING* thing = nullptr;

    template <typename Put>
    merged_directory(uint32_t flags, Put put) {
        TSWRITEOPTS opts;
        st_tsidx_write_opts_init_write_level(&opts, 4);
        THING* const writer = st_open_for_write(dir.path().c_str(), flags, TSIDX_ORDINARY_WRITER, &opts);
        if (writer == nullptr) std::abort();
        put(writer);
        succeed(st_sync(writer));
        warm_rc_t rc;
        const int merged = st_tsidx_optimize_n(st_directory(writer), TSIDX_OPTIMIZE_ALL, 2, 0, 0, &rc, 0, 0, true);
        if (merged != 0 || st_close(writer) != 0) std::abort();
        thing = st_open_for_read(dir.path().c_str());
    }
    ~merged_directory() { succeed(st_close(thing)); }
};

std::unordered_map<std::string, uint32_t> word_counts;

THING* events() {
    static const merged_directory all(0, [](THING* writer) {
        const corpus& from = corpus_million();
        uint32_t put = 0;
        for (const corpus_event& event : from.events) {
            st_txn_start(writer, event.time, event.address, 0, 0, 0);
            for (uint32_t i = 0; i < CORPUS_TERMS_PER_EVENT; i++) {
                const std::string_view term = from.term(event.first_term + i);
                st_txn_put(writer, term.data(), term.size());
                if (i >= 7 && i < 9) word_counts[std::string(term)]++;
            }
            if (st_txn_close(writer) != 0) std::abort();
            if (++put == CORPUS_MILLION / 2) succeed(st_sync(writer));
        }
    });
    return all.thing;
}

THING* samples() {
    static const merged_directory all(ST_OPEN_METRICS, [](THING* writer) {
        std::mt19937_64 random(1);
        std::vector<double> at(SERIES, 50);
        const std::string metric = " metric_name::cpu.load";
        for (uint32_t i = 0; i < SAMPLES; i++) {
            for (uint32_t s = 0; s < SERIES; s++) {
                at[s] += std::normal_distribution<double>(0, 1.5)(random);
                const std::string host = " host::web" + std::to_string(s), zone = " zone::eu-" + std::to_string(s % 5);
                st_txn_start(writer, FIRST + 60 * static_cast<st_time_t>(i), 0, 0, 0, 0);
                st_txn_put_measure(writer, metric.data(), metric.size(), std::round(at[s] * 10) / 10);
                st_txn_put(writer, host.data(), host.size());
                st_txn_put(writer, zone.data(), zone.size());
                if (st_txn_close(writer) != 0) std::abort();
            }
            if (i == SAMPLES / 2) succeed(st_sync(writer));
        }
    });
    return all.thing;
}

// A word of about this many events.
std::string word(uint32_t wanted) {
    events();
    std::string best;
    uint32_t least = UINT32_MAX;
    for (const auto& [text, count] : word_counts) {
        const uint32_t off = count > wanted ? count - wanted : wanted - count;
        if (off < least) best = text, least = off;
    }
    return best;
}

struct question {
    std::string name;
    bool is_metric;
    std::string query;
    st_time_t span;
    std::vector<std::string> groups;
    std::vector<select_projection_t> projections;
};

void ask(benchmark::State& state, const question& one) {
    THING* const thing = one.is_metric ? samples() : events();
    select_options_t options;
    options.sources = {{st_directory(thing), {}}};
    options.query.lispy = one.query.c_str();
    options.query.opt_span = {one.span, 0};
    options.spec.groups = one.groups;
    options.spec.projections = one.projections;
    size_t rows = 0;
    for (auto _ : state) {
        select_table_t table;
        warm_rc_t rc;
        if (select_read(options, &table, nullptr, &rc) != 0) state.SkipWithError(rc.message);
        rows = table.rows.size();
    }
    state.counters["rows"] = static_cast<double>(rows);
}

void register_all() {
    constexpr st_time_t BIN = 1250;  // of which the events fill 200
    const std::string f = "[AND get]", m = "[AND " + word(10000) + "]", r = "[AND " + word(100) + "]";
    const uint32_t spread = SELECT_AVG | SELECT_MAX;
    const std::vector<question> questions = {
        {"bins", false, "[AND]", BIN, {}, {}},
        {"bins_of_frequent", false, f, BIN, {}, {}},
        {"bins_by_field", false, "[AND]", BIN, {"host"}, {}},
        {"bins_by_field_of_frequent", false, f, BIN, {"host"}, {}},
        {"bins_by_field_of_medium", false, m, BIN, {"host"}, {}},
        {"bins_by_field_of_rare", false, r, BIN, {"host"}, {}},
        {"field_of_8000", false, "[AND]", 0, {"path"}, {}},
        {"field_of_8000_of_frequent", false, f, 0, {"path"}, {}},
        {"two_fields", false, "[AND]", 0, {"host", "status"}, {}},
        {"bins_by_two_fields", false, "[AND]", BIN, {"host", "status"}, {}},
        {"average_by_field", false, "[AND]", 0, {"status"}, {{"bytes", spread}}},
        {"average_of_rare", false, r, 0, {}, {{"bytes", spread}}},
        {"p99_by_field", false, "[AND]", 0, {"status"}, {{"bytes", SELECT_QUANTILES}}},
        {"distinct", false, "[AND]", 0, {}, {{"clientip", SELECT_DC}}},
        {"metrics_by_zone_and_hour", true, "[AND]", 3600, {"zone"}, {{"cpu.load", spread}}},
        {"metrics_by_host_and_hour", true, "[AND]", 3600, {"host"}, {{"cpu.load", spread}}},
        {"metrics_by_zone_and_5_minutes", true, "[AND]", 300, {"zone"}, {{"cpu.load", spread}}},
        {"metrics_p95_by_zone_and_hour", true, "[AND]", 3600, {"zone"}, {{"cpu.load", SELECT_QUANTILES}}},
    };
    for (const question& one : questions) {
        benchmark::RegisterBenchmark(one.name.c_str(), ask, one)->Unit(benchmark::kMicrosecond);
    }
}

}  // namespace
}  // namespace veldar

int main(int argc, char** argv) {
    ::setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", "1", 1);
    benchmark::Initialize(&argc, argv);
    veldar::register_all();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
