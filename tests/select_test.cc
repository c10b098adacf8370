// Selections beside brute force: random ones over directories of events and of metrics, as rows and as merged tables.
#include <gtest/gtest.h>
#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <map>
#include <random>

#include "searchthing/reading/tsidx_select.h"
#include "searchthing/search/distinct_sketch.h"
#include "searchthing/search/quantile_sketch.h"
#include "searchthing/search/select_internal.h"
#include "searchthing/search/select_table.h"
#include "searchthing/st.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/damage.h"
#include "tests/support/directory.h"
#include "tests/support/forge_metric.h"
#include "tests/support/hot_events.h"
#include "tests/support/query_maker.h"
#include "tests/support/sampled.h"

namespace veldar {
namespace {

// An event as a selection sees it: values by field, and whether each is a measure.
struct seen_event {
    int64_t time;
    std::map<std::string, std::vector<std::string>> fields;
    std::map<std::string, double> measures;  // of metrics
    bool is_metric = false;
};

seen_event seen(int64_t time, const std::set<std::string>& terms, bool is_metric) {
    seen_event event = {time, {}, {}, is_metric};
    for (const std::string& term : terms) {
        const size_t colons = term.find("::");
        if (colons != term.npos) event.fields[term.substr(0, colons)].push_back(term.substr(colons + 2));
    }
    return event;
}

struct expected_row {
    uint64_t count = 0;
    std::vector<std::vector<std::string>> values;  // by projection
};
using row_key = std::pair<int64_t, std::vector<std::string>>;
using expected_rows = std::map<row_key, expected_row>;

std::string number_text(double number) {
    char text[32];
    return {text, std::to_chars(text, std::end(text), number).ptr};
}

int64_t bin_of(const select_options_t& options, int64_t time) {
    const std::vector<int64_t>& starts = options.spec.bin_starts_s;
    if (!starts.empty()) {
        size_t i = 0;
        while (i + 1 < starts.size() && starts[i + 1] * 1000000000 <= time) i++;
        return starts[i] * 1000000000;
    }
    const __int128 span = select_time(options.query.opt_span);
    if (span == 0) return SELECT_NO_BIN;
    const __int128 offset = __int128{options.spec.bin_offset_s} * 1000000000;
    __int128 bins = (time - offset) / span;
    while (bins * span + offset > time) bins--;
    return static_cast<int64_t>(bins * span + offset % span) + static_cast<int64_t>(offset / span * span);
}

bool metric_matches(const std::string& pattern, const std::string& name) {
    const size_t star = pattern.find('*');
    if (star == std::string::npos) return pattern == name;
    return name.starts_with(pattern.substr(0, star)) && name.ends_with(pattern.substr(star + 1)) &&
           name.size() + 1 >= pattern.size();
}

std::vector<std::string> projected(const seen_event& event, const std::string& field, const std::string* metric) {
    std::vector<std::string> values;
    if (event.fields.contains(field)) values = event.fields.at(field);
    for (const auto& [name, number] : event.measures) {
        if ((metric == nullptr || *metric == name) && metric_matches(field, name))
            values.push_back(number_text(number));
    }
    return values;
}

// The events' rows, one event and one combination of group texts at a time.
expected_rows brute_force(const std::vector<seen_event>& events, const select_options_t& options) {
    expected_rows rows;
    const select_spec_t& spec = options.spec;
    for (const seen_event& event : events) {
        std::vector<std::pair<std::vector<std::string>, const std::string*>> combinations = {{{}, nullptr}};
        for (const std::string& group : spec.groups) {
            std::vector<std::pair<std::vector<std::string>, const std::string*>> longer;
            for (const auto& [texts, metric] : combinations) {
                const auto add = [&, &before = texts](const std::string& text, const std::string* chosen) {
                    longer.push_back({before, chosen});
                    longer.back().first.push_back(text);
                };
                if (event.is_metric && group == "metric_name") {
                    for (const auto& measure : event.measures) {
                        const std::string& name = measure.first;
                        const auto wants = [&](const select_projection_t& p) { return metric_matches(p.field, name); };
                        const bool wanted = std::any_of(spec.projections.begin(), spec.projections.end(), wants);
                        const bool same = metric == nullptr || *metric == name;
                        if (same && (wanted || spec.projections.empty())) add(name, &name);
                    }
                } else if (event.fields.contains(group)) {
                    for (const std::string& text : event.fields.at(group)) add(text, metric);
                } else if (options.query.opt_b == SELECT_KEEPS_MISSING) {
                    add("", metric);
                }
            }
            combinations = std::move(longer);
        }
        for (const auto& [texts, metric] : combinations) {
            expected_row& row = rows[{bin_of(options, event.time), texts}];
            row.count++;
            row.values.resize(spec.projections.size());
            for (size_t p = 0; p < spec.projections.size(); p++) {
                const std::vector<std::string> values = projected(event, spec.projections[p].field, metric);
                row.values[p].insert(row.values[p].end(), values.begin(), values.end());
            }
        }
    }
    return rows;
}

bool near(double a, double b, double weight) {
    return (std::isnan(a) && std::isnan(b)) || a == b || weight > 1e300 || std::abs(a - b) <= 1e-9 * weight;
}

void check_cell(const select_cell_t& cell, const std::vector<std::string>& values, uint32_t aggregates, double q) {
    std::vector<double> numbers;
    double sum = 0, squares = 0, weight = 0, square_weight = 0;
    for (const std::string& value : values) {
        char* end = nullptr;
        const double number = std::strtod(value.c_str(), &end);
        if (value.empty() || *end != '\0' || std::isnan(number)) continue;
        numbers.push_back(number);
        sum += number;
        squares += number * number;
        weight += std::abs(number);
        square_weight += number * number;
    }
    std::sort(numbers.begin(), numbers.end());
    const double n = static_cast<double>(numbers.size());
    const double none = std::nan("");
    EXPECT_EQ(cell.count, values.size());
    EXPECT_EQ(cell.numbers, numbers.size());
    EXPECT_TRUE(near(select_cell_sum(cell), sum, weight)) << select_cell_sum(cell) << " " << sum;
    EXPECT_TRUE(near(select_cell_average(cell), numbers.empty() ? none : sum / n, weight));
    EXPECT_TRUE(near(select_cell_minimum(cell), numbers.empty() ? none : numbers.front(), 0));
    EXPECT_TRUE(near(select_cell_maximum(cell), numbers.empty() ? none : numbers.back(), 0));
    if ((aggregates & SELECT_SUMSQ) != 0) {
        EXPECT_TRUE(near(select_cell_sum_of_squares(cell), squares, square_weight));
    }
    const std::set<std::string> different(values.begin(), values.end());
    if ((aggregates & SELECT_DC) != 0) {
        bool is_estimate = true;
        EXPECT_EQ(select_cell_distinct(cell, &is_estimate), static_cast<double>(different.size()));
        EXPECT_FALSE(is_estimate);
    }
    if ((aggregates & SELECT_VALUES) != 0 && !different.empty()) {
        ASSERT_NE(cell.values, nullptr);
        EXPECT_TRUE(
            std::equal(different.begin(), different.end(), cell.values->texts.begin(), cell.values->texts.end()));
    }
    if ((aggregates & SELECT_QUANTILES) != 0) {
        const auto rank =
            std::clamp<size_t>(static_cast<size_t>(std::ceil(q * n)), 1, std::max<size_t>(numbers.size(), 1));
        bool is_estimate = true;
        EXPECT_TRUE(near(select_cell_quantile(cell, q, &is_estimate), numbers.empty() ? none : numbers[rank - 1], 0));
        EXPECT_FALSE(is_estimate);
    }
}

class selection_maker {
  public:
    explicit selection_maker(uint64_t seed) : random_(seed) {}
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

    select_options_t make(const st_query_spec& query, const std::vector<std::string>& fields,
                          const std::vector<std::string>& projectable, const std::vector<int64_t>& times) {
        static constexpr st_timeval_t SPANS[] = {{0, 1},  {0, 250000000}, {0, 999999999}, {1, 0},         {7, 0},
                                                 {60, 1}, {3600, 0},      {86400, 0},     {31556952, 500}};
        select_options_t options;
        options.query = query;
        const auto one_of = [this](const std::vector<std::string>& of) {
            return of[below(static_cast<uint32_t>(of.size()))];
        };
        for (uint32_t n = below(4); n > 0; n--) options.spec.groups.push_back(one_of(fields));
        if (below(100) == 0)
            options.spec.groups.assign(fields.begin(), fields.size() < 8 ? fields.end() : fields.begin() + 8);
        for (uint32_t n = below(4); n > 0; n--) {
            options.spec.projections.push_back({one_of(projectable), 1 + below(SELECT_ALL_AGGREGATES)});
        }
        if (below(3) != 0) options.query.opt_span = SPANS[below(std::size(SPANS))];
        options.spec.bin_offset_s = below(2) == 0 ? 0 : static_cast<int>(below(86400)) - 43200;
        if (below(4) == 0) {
            std::set<int64_t> starts;
            for (uint32_t n = 1 + below(6); n > 0; n--) {
                starts.insert(times[below(static_cast<uint32_t>(times.size()))] / 1000000000);
            }
            options.spec.bin_starts_s.assign(starts.begin(), starts.end());
        }
        options.query.opt_b = static_cast<uint8_t>(below(2));
        return options;
    }

    // The sum of tables in any order and grouping, each of which has been bytes meanwhile.
    select_table_t merged(std::vector<select_table_t> tables) {
        for (select_table_t& table : tables) {
            std::string bytes, again;
            warm_rc_t rc;
            select_table_encode(table, &bytes);
            const std::span<const uint8_t> read(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            EXPECT_EQ(select_table_decode(read, &table, &rc), 0) << rc.message << " at " << rc.detail;
            select_table_encode(table, &again);
            EXPECT_EQ(bytes, again);
            EXPECT_NE(select_table_decode(read.first(below(static_cast<uint32_t>(bytes.size()))), &empty_, &rc), 0);
            // Other bytes are a table that has no other bytes, or are refused.
            const size_t end = bytes.size() - 8;
            bytes[below(static_cast<uint32_t>(end))] ^= static_cast<char>(1 << below(8));
            store_le64(bytes.data() + end, XXH64(bytes.data(), end, 0));
            if (select_table_decode(read, &empty_, &rc) != 0) continue;
            again.clear();
            select_table_encode(empty_, &again);
            EXPECT_EQ(bytes, again);
        }
        while (tables.size() > 1) {
            const size_t from = below(static_cast<uint32_t>(tables.size()));
            std::swap(tables[from], tables.back());
            select_table_t last = std::move(tables.back());
            tables.pop_back();
            warm_rc_t rc;
            EXPECT_EQ(select_table_merge(&tables[below(static_cast<uint32_t>(tables.size()))], last, &rc), 0)
                << rc.message;
        }
        select_table_finish(&tables.front());
        return std::move(tables.front());
    }

  private:
    std::mt19937_64 random_;
    select_table_t empty_;
};

void check_row(const select_row_t& row, size_t groups, const expected_rows::value_type& expected,
               const select_options_t& options, double q) {
    std::vector<std::string> texts;
    for (size_t i = 0; i < groups; i++) texts.emplace_back(select_group_text(row.groups, i));
    ASSERT_EQ(row_key(row.bin, texts), expected.first);
    ASSERT_EQ(row.count, expected.second.count);
    ASSERT_EQ(row.cells.size(), options.spec.projections.size());
    for (size_t p = 0; p < row.cells.size(); p++) {
        check_cell(row.cells[p], expected.second.values[p], options.spec.projections[p].aggregates, q);
    }
}

std::string told(const select_options_t& options) {
    std::string text = options.query.lispy;
    for (const std::string& group : options.spec.groups) text += " by " + group;
    for (const auto& p : options.spec.projections) text += " " + p.field + ":" + std::to_string(p.aggregates);
    return text + " span " + std::to_string(select_time(options.query.opt_span)) + " starts " +
           std::to_string(options.spec.bin_starts_s.size()) + " missing " + std::to_string(options.query.opt_b);
}

// One selection over several directories, whole and in parts.
void check_selection(const select_options_t& options, const std::vector<seen_event>& events, selection_maker* maker) {
    SCOPED_TRACE(told(options));
    const double q = maker->below(101) / 100.0;
    const expected_rows expected = brute_force(events, options);
    std::vector<select_table_t> parts(1);
    warm_rc_t rc;
    int status = 0;
    select_report_t report;
    if (maker->below(2) == 0) {
        status = select_read(options, &parts[0], &report, &rc);
        EXPECT_TRUE(status != 0 || report.events == events.size());
    } else {
        parts.clear();
        for (const cursor_source_t& source : options.sources) {
            select_options_t part = options;
            part.sources = {source};
            parts.emplace_back();
            if (status == 0) status = select_read(part, &parts.back(), nullptr, &rc);
        }
    }
    if (status == WARM_RC_TIME_BINS_LIMIT) {
        EXPECT_LT(select_time(options.query.opt_span), 1000000000);
        return;
    }
    ASSERT_EQ(status, 0) << rc.message;
    const select_table_t table = maker->merged(std::move(parts));
    std::vector<row_key> keys, expected_keys;
    for (size_t k = 0; k < table.rows.size(); k++) {
        const select_row_t row = select_table_row(table, k);
        keys.push_back({row.bin, {}});
        for (size_t f = 0; f < options.spec.groups.size(); f++)
            keys.back().second.emplace_back(select_group_text(row.groups, f));
    }
    for (const auto& [key, row] : expected) expected_keys.push_back(key);
    ASSERT_EQ(keys, expected_keys);
    size_t i = 0;
    for (const auto& row : expected)
        check_row(select_table_row(table, i++), options.spec.groups.size(), row, options, q);
}

using Select = directory_test;

TEST_F(Select, EventsAgreeWithBruteForce) {
    const std::vector<forge_options> kinds = forge_event_kinds();
    for (uint64_t seed = 1; seed <= 160 / SANITIZED_PART && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        const bool is_large = seed % 40 == 0;  // lists of all lengths, few matches of many values
        select_slab_values = seed % 2 != 0 ? 16 : seed % 80 != 0 ? 1u << 20 : 512;
        selection_maker maker(seed);
        std::vector<forge_event> all;
        const temp_dir dirs[2];
        directory_ptr handles[2];
        for (int d = 0; d < 2; d++) {
            for (uint32_t slices = 1 + maker.below(3); slices > 0; slices--) {
                std::vector<forge_event> events =
                    forge_random_events(seed * 10 + slices, 1 + maker.below(is_large ? 4000 : 80));
                for (forge_event& event : events) {
                    for (uint32_t n = maker.below(4); n > 0; n--)
                        event.terms.push_back("m::" + std::to_string(maker.below(5)));
                    if (maker.below(3) == 0) event.terms.push_back(maker.below(2) == 0 ? "n::" : "n::x-1");
                    if (maker.below(3) == 0) event.terms.push_back("n::-2.5e3");
                }
                for (size_t i = 0; is_large && i < 3 && i < events.size(); i++) events[i].terms.push_back("rare::1");
                const forge_options& kind = kinds[maker.below(static_cast<uint32_t>(kinds.size()))];
                forge_file(dirs[d].path(), events, kind, slices);
                all.insert(all.end(), events.begin(), events.end());
            }
            handles[d] = open_directory(dirs[d].path());
            if (seed % 3 == 0) static_cast<void>(merge_all(handles[d].get()));
            forge_event hot = forge_random_events(seed + 7, 1).front();  // in memory until the first read
            hot.deleted = false;
            hot.terms.push_back("m::hot");
            if (seed % 2 == 0 && put_event(handles[d].get(), hot) == 0) all.push_back(hot);
        }
        const reference_index reference(all);
        query_maker queries(reference, seed);
        std::set<std::string> names = {"m", "n", "nofield"};
        std::vector<int64_t> times;
        for (const auto& [term, record] : reference.terms()) {
            if (const size_t colons = term.find("::"); colons != term.npos && colons > 0)
                names.insert(term.substr(0, colons));
        }
        for (const forge_event& event : all) times.push_back(int64_t{event.time} * 1000000000);
        const std::vector<std::string> fields(names.begin(), names.end());
        for (int i = 0; i < (is_large ? 15 : 77) && !HasFailure(); i++) {
            const reference_query any = i % 5 == 0 ? reference_query::group_and({}) : queries.group(0);
            const bool is_rare = is_large && i % 4 == 1;
            const reference_query tree = is_rare ? reference_query::group_and({reference_query::term("rare::1")}) : any;
            const std::string text = tree.notation();
            reference_bounds bounds = is_rare ? reference_bounds{} : queries.bounds();
            bounds.cumspan = 0;
            if (is_large && i % 2 == 0)
                bounds.earliest = bounds.latest = static_cast<int32_t>(times[maker.below(100)] / 1000000000);
            select_options_t options = maker.make(make_query(text.c_str(), bounds), fields, fields, times);
            options.sources = {{handles[0].get(), {}}, {handles[1].get(), {}}};
            std::vector<seen_event> events;
            for (const uint32_t number : reference.search(tree, bounds)) {
                const forge_event& event = reference.values()[number];
                const std::set<std::string> terms(event.terms.begin(), event.terms.end());
                events.push_back(seen(int64_t{event.time} * 1000000000, terms, false));
            }
            for (int again = 0; again <= is_rare; again++) check_selection(options, events, &maker);
        }
    }
}

TEST_F(Select, MetricsAgreeWithBruteForce) {
    for (uint64_t seed = 1; seed <= 80 / SANITIZED_PART && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        selection_maker maker(seed);
        const bool milliseconds = seed % 2 == 0;
        const temp_dir dir;
        std::vector<metric_event> all;
        const directory_ptr handle = open_directory(dir.path(), 4, false, true, milliseconds);
        for (uint32_t slice = 1; slice <= 1 + maker.below(3); slice++) {
            std::vector<metric_event> events =
                random_metric_events(seed * 10 + slice, 1 + maker.below(seed == 8 ? 3000 : 90));
            for (metric_event& event : events) event.milliseconds = milliseconds ? event.milliseconds : 0;
            forge_metric_options options;
            options.milliseconds = milliseconds;
            options.terms.wflags = FORGE_TAG2;
            forge_metric_file(dir.path(), events, options, slice);
            all.insert(all.end(), events.begin(), events.end());
        }
        if (seed % 3 == 0) static_cast<void>(merge_all(handle.get()));
        const reference_index reference = metric_reference(all, milliseconds);
        query_maker queries(reference, seed);
        std::vector<int64_t> times;
        for (const metric_event& event : all) times.push_back(int64_t{event.time} * 1000000000);
        for (int i = 0; i < 100 && !HasFailure(); i++) {
            const reference_query tree = i % 5 == 0 ? reference_query::group_and({}) : queries.group(0);
            const std::string text = tree.notation();
            reference_bounds bounds = queries.bounds();
            bounds.cumspan = 0;
            select_options_t options = maker.make(make_query(text.c_str(), bounds),
                                                  {"host", "source", "d0", "d1", "metric_name", "d2", "none"},
                                                  {"m0", "m1", "m2", "m*", "*", "m6", "host", "d0", "none"}, times);
            options.query.latest.time_ns = 999999999;
            options.sources = {{handle.get(), {}}};
            std::vector<seen_event> events;
            for (const uint32_t number : reference.search(tree, bounds)) {
                const metric_event& event = all[reference.values()[number].s];
                const int64_t time = int64_t{event.time} * 1000000000 + event.milliseconds * 1000000;
                events.push_back(seen(time, as_told(event).dimensions, true));
                for (const auto& [name, bits] : event.measures)
                    events.back().measures[name] = std::bit_cast<double>(bits);
            }
            check_selection(options, events, &maker);
        }
    }
}

// Beyond what they keep exactly, sketches stay within their error, however their parts were merged.
// Registers as so many hashes leave them: Poisson's law tells how many stay at or below a rank.
TEST_F(Select, EstimatesReachAsFarAsHashes) {
    for (const double log2_count : {10.0, 14.0, 20.0, 40.0, 60.0, 63.5}) {
        const double each = std::exp2(log2_count) / DISTINCT_REGISTERS;
        distinct_sketch_t sketch;
        for (size_t i = 0; i < DISTINCT_REGISTERS; i++) {
            const double share = (static_cast<double>(i) + 0.5) / DISTINCT_REGISTERS;
            uint8_t rank = 0;
            while (rank < DISTINCT_MAX_RANK && std::exp(-each * std::exp2(-rank)) < share) rank++;
            sketch.registers.push_back(rank);
        }
        bool is_estimate = false;
        EXPECT_NEAR(distinct_sketch_count(sketch, &is_estimate) / std::exp2(log2_count), 1, 0.004) << log2_count;
        EXPECT_TRUE(is_estimate);
    }
}

TEST_F(Select, SketchesKeepTheirErrors) {
    EXPECT_TRUE(std::isnan(quantile_sketch_at({}, 0.5)));
    for (const std::vector<double>& numbers : {std::vector<double>{1, 1e17, 2, -1e17}, {1e17, 1, 2, -1e17}}) {
        select_cell_t cell;
        for (const double n : numbers) select_cell_add(&cell, {number_text(n), n, true}, 1, SELECT_SUM);
        EXPECT_EQ(select_cell_sum(cell), 3) << "what is lost of small numbers is kept beside";
    }
    std::mt19937_64 random(5);
    for (const uint32_t count : {4096u, 4097u, 20000u, 50000u, 300000u}) {
        std::vector<select_cell_t> cells(7);
        std::vector<size_t> bytes(cells.size());
        std::vector<double> numbers;
        constexpr uint32_t ALL = SELECT_ALL_AGGREGATES;
        select_cell_t whole;
        for (uint32_t i = 0; i < count; i++) {
            const double sign = i % 5 == 0 ? -1 : 1;
            const double finite = std::exp(static_cast<double>(random() % 60000) / 2000 - 10);
            const double number = i % 97 == 0 ? 0 : sign * (i % 1013 == 1 ? HUGE_VAL : finite);
            const std::string text = number_text(number) + "/" + std::to_string(i);
            const size_t cell = random() % cells.size();
            bytes[cell] += select_cell_add(&cells[cell], {text, number, true}, 1, ALL);
            select_cell_add(&whole, {text, number, true}, 1, ALL);
            numbers.push_back(number);
        }
        while (cells.size() > 1) {
            const size_t into = random() % (cells.size() - 1);
            bytes[into] += select_cell_merge(&cells[into], cells.back());
            EXPECT_GE(bytes[into], select_cell_size(cells[into]));
            cells.pop_back();
        }
        // This one has been bytes meanwhile.
        std::vector<select_table_t> tables(1);
        uint32_t group = 0, row = 0;
        warm_rc_t rc;
        select_table_init(&tables[0], {.groups = {}, .projections = {{"n", ALL}}, .bin_starts_s = {}});
        ASSERT_EQ(select_group(&tables[0], "", &group, &rc), 0);
        ASSERT_EQ(select_row(&tables[0], 0, group, &row, &rc), 0);
        tables[0].rows[row].count = count;
        tables[0].cells[row] = std::move(cells[0]);
        select_table_finish(&tables[0]);
        cells[0] = std::move(selection_maker(count).merged(std::move(tables)).cells[row]);
        std::sort(numbers.begin(), numbers.end());
        for (select_cell_t* const cell : {&cells[0], &whole}) {
            select_cell_settle(cell);
            bool is_estimate = false;
            const double distinct = select_cell_distinct(*cell, &is_estimate);
            EXPECT_EQ(is_estimate, count > 4096);
            EXPECT_NEAR(distinct, count, is_estimate ? 0.0081 * 4 * count : 0) << count;
            for (const double q : {0.0, 0.01, 0.1, 0.203, 0.5, 0.9, 0.99, 1.0}) {
                const double exact = numbers[static_cast<size_t>(std::max(std::ceil(q * count), 1.0)) - 1];
                const double found = select_cell_quantile(*cell, q, &is_estimate);
                EXPECT_TRUE(found == exact || std::abs(found - exact) <= 0.0101 * std::abs(exact)) << q << " " << found;
            }
            EXPECT_EQ(cell->values->texts.size(), 4096u);
            EXPECT_EQ(cell->values->is_cut, count > 4096);
        }
        EXPECT_EQ(whole.distinct->registers, cells[0].distinct->registers);
        EXPECT_EQ(whole.distinct->hashes, cells[0].distinct->hashes);
        EXPECT_EQ(whole.quantiles->positive.counts, cells[0].quantiles->positive.counts);
        EXPECT_EQ(whole.values->texts, cells[0].values->texts);
    }
}

TEST_F(Select, WhatCannotBeSelectedIsAStatus) {
    const temp_dir dir;
    std::vector<forge_event> events = forge_random_events(3, 50);
    for (forge_event& event : events) event.deleted = false;
    forge_file(dir.path(), events, forge_as_created(4));
    const directory_ptr tsidx = open_directory(dir.path(), 0);
    const std::string too_long(2049, 'x');
    const std::string literal = "[AND " + too_long + "]";
    const auto by = [](const std::vector<std::string>& groups) {
        select_spec_t spec;
        spec.groups = groups;
        return spec;
    };
    const auto of = [](const select_projection_t& projection) { return select_spec_t{{}, {projection}, 0, {}}; };
    const auto from = [](const std::vector<int64_t>& starts, int64_t offset = 0) {
        return select_spec_t{{}, {}, offset, starts};
    };
    select_spec_t many;
    many.projections.resize(SELECT_MAX_PROJECTIONS + 1, {"x", SELECT_COUNT});
    const struct {
        const char* expected;
        select_spec_t spec = {};
        st_timeval_t span = {0, 0};
        std::string text = "[AND]";
        uint32_t word = 0;
    } refused[] = {{"-25 time bins init", {}, {-1, 0}},
                   {"-25 time bins init", {}, {0, 1000000000}},
                   {"-25 time bins init", from({5, 5})},
                   {"-25 time bins init", from({}, -5000000000), {60, 0}},
                   {"-55 alloc time bins hard limit exceeded", {}, {0, 1}},
                   {"-55 alloc time bins hard limit exceeded", from(std::vector<int64_t>(SELECT_MAX_BINS + 1))},
                   {"-19 token too big", {}, {}, literal},
                   {"-19 token too big", by({too_long})},
                   {"-20 the query text ends inside a group", {}, {}, "[AND"},
                   {"-15 too many values of the group field bytes", by({"bytes"}), {}, "[AND]", 2},
                   {"-37 too many group fields", by(std::vector<std::string>(9, "host"))},
                   {"-37 too many projections", many},
                   {"-37 a group field without a name", by({""})},
                   {"-37 a projection", of({"", SELECT_COUNT})},
                   {"-37 a projection", of({"x", 0})},
                   {"-37 a projection", of({"x", 1u << 31})},
                   {"-19 token too big", of({too_long, SELECT_COUNT})}};
    select_table_t table;
    warm_rc_t rc;
    std::string heard;
    const auto answer = [&](select_options_t options, bool is_told) {
        options.sources.push_back({tsidx.get(), {}});
        if (is_told)
            options.on_failure = [&](const std::string& where, const warm_rc_t& why) { heard = where + why.message; };
        const int status = select_read(options, &table, nullptr, &rc);
        EXPECT_TRUE(status != 0 || table.rows.at(0).count == events.size());
        return std::to_string(status) + " " + rc.message;
    };
    for (const auto& row : refused) {
        select_options_t options;
        options.query.lispy = row.text.c_str();
        options.query.opt_span = row.span;
        options.query.opt_word = row.word;
        options.spec = row.spec;
        EXPECT_EQ(answer(options, false), row.expected);
    }

    // A table takes no more cells than allowed.
    select_spec_t wide;
    wide.projections.resize(16, {"x", SELECT_COUNT});
    select_table_init(&table, wide);
    uint32_t group = 0, row = 0;
    ASSERT_EQ(select_group(&table, "", &group, &rc), 0);
    int64_t rows = 0;
    while (select_row(&table, rows, group, &row, &rc) == 0) rows++;
    EXPECT_EQ(rc.warm_rc, WARM_RC_NO_MEMORY);
    EXPECT_STREQ(rc.message, "select cells");
    EXPECT_LE(rows, 1 << 18);
    EXPECT_GT(rows, 1 << 17);
    // Nor more bytes.
    select_table_t one;
    select_table_init(&one, {});
    ASSERT_TRUE(select_group(&one, "a group", &group, &rc) == 0 && select_row(&one, 0, group, &row, &rc) == 0);
    EXPECT_GT(one.bytes, sizeof one.rows[0] + sizeof "a group");
    for (const bool fits : {true, false}) {
        select_table_init(&table, {});
        table.bytes = SELECT_MAX_BYTES - one.bytes + !fits;
        EXPECT_EQ(select_table_merge(&table, one, &rc), fits ? 0 : WARM_RC_NO_MEMORY);
    }
    select_table_init(&table, wide);
    EXPECT_EQ(select_table_merge(&table, one, &rc), WARM_RC_INVALID_ARGUMENT);
    // Slices that know no fields, metrics without columns, and beside them what can be read.
    const temp_dir others;
    forge_options mini = forge_as_created(4);
    mini.mini = true;
    const std::string minified = forge_file(others.path(), events, mini, 7);
    forge_options old;
    old.magic = "_tsidx2";
    for (const forge_options& kind : forge_all_kinds()) old = kind.metric() ? kind : old;
    const std::string legacy = forge_file(others.path(), events, old, 8);
    select_options_t options;
    options.query.lispy = "[AND]";
    options.sources = {{nullptr, minified}};
    EXPECT_EQ(answer(options, false), "-44 warm slice select");
    EXPECT_EQ(answer(options, true).substr(0, 2), "0 ");
    EXPECT_EQ(heard, minified + "warm slice select");
    options.sources = {{nullptr, legacy}};
    EXPECT_EQ(answer(options, false), "-17 not a msidx cstore tsidx");
    options.spec.projections = {{"bytes", SELECT_SUM}};
    EXPECT_EQ(answer(options, false),
              "-51 ST projection on legacy MSIDX V1 and V2 buckets has no group-by: metric_name");
    // Too many bins are no fault of the slice in which they come up.
    const std::string untimed = others.file("2147483647--2147483648-9.tsidx");
    std::filesystem::copy(files_in(dir.path(), ".tsidx").at(0), untimed);
    options.spec = {};
    options.query.opt_span = {0, 1};
    options.sources = {{nullptr, untimed}};
    EXPECT_EQ(answer(options, true), "-55 alloc time bins hard limit exceeded");
}

// A table as text, but for sums, whose last digits may depend on the slices.
std::string digest(const select_table_t& table) {
    std::string text;
    for (size_t i = 0; i < table.rows.size(); i++) {
        const select_row_t row = select_table_row(table, i);
        text += std::to_string(row.bin) + std::string(row.groups) + std::to_string(row.count);
        for (const select_cell_t& cell : row.cells) {
            text += " " + std::to_string(cell.count) + " " + std::to_string(cell.numbers) + " ";
            text += number_text(cell.minimum) + " " + number_text(cell.maximum);
            if (cell.values == nullptr) continue;
            for (const std::string& value : cell.values->texts) text += " " + value;
        }
        text += '\n';
    }
    return text;
}

// Whatever call or allocation fails, there is the whole answer or a status; a merge in the middle changes no answer.
TEST_F(Select, FailuresAndMergesMeanwhile) {
    select_options_t options;
    options.query.lispy = "[AND [NOT x]]";
    options.query.opt_span = {60, 0};
    bool alone = false;  // so that what fails ends it
    const auto ask = [&](const std::string& path, bool is_metric, std::string* bytes) {
        const directory_ptr tsidx = open_directory(path, 0, false, is_metric);
        if (tsidx == nullptr) return -1;
        options.sources = {{tsidx.get(), {}}};
        select_table_t table;
        warm_rc_t rc;
        const failure_watch watch;
        const int status = select_read(options, &table, nullptr, &rc);
        const fault_truce own;
        if (status == 0) *bytes = digest(table);
        EXPECT_EQ(status, rc.warm_rc);
        EXPECT_TRUE(!alone || watch.ended_with(status)) << status << rc.message;
        return status;
    };
    for (const bool is_metric : {false, true}) {
        const auto make = [&](const temp_dir& dir) {
            for (uint32_t slice = 1; slice <= 3; slice++) {
                std::vector<forge_event> events = forge_random_events(slice, 40);
                for (forge_event& event : events) event.deleted = false;
                if (is_metric) {
                    forge_metric_options kind;
                    kind.terms.wflags = FORGE_TAG2;
                    forge_metric_file(dir.path(), random_metric_events(slice, 40), kind, slice);
                } else {
                    forge_file(dir.path(), events, forge_as_created(4), slice);
                }
            }
        };
        options.spec.groups = {"host", is_metric ? "metric_name" : "status"};
        options.spec.projections = {{is_metric ? "*" : "bytes", SELECT_MIN | SELECT_DC | SELECT_VALUES}};
        const temp_dir dir;
        make(dir);
        alone = true;
        std::string expected;
        ASSERT_EQ(ask(dir.path(), is_metric, &expected), 0);
        uint32_t failed = 0;
        for (const fault_action action : {fault_action::fail, fault_action::allocation, fault_action::shorten}) {
            const bool allocates = action == fault_action::allocation;
            for (uint64_t nth = 1, last = 1; nth <= last; nth += allocates ? 3 : 1) {
                const fault_step step(action, nth, EIO);
                std::string bytes;
                const int status = ask(dir.path(), is_metric, &bytes);
                last = allocates ? 3 + step.allocations() : 1 + step.calls();
                ASSERT_TRUE(status < 0 || bytes == expected) << nth;
                ASSERT_TRUE(action == fault_action::shorten || status != WARM_RC_CORRUPT) << nth;
                failed += status < 0 ? 1 : 0;
            }
        }
        EXPECT_GT(failed, 20u);
        const std::string slice = files_in(dir.path(), ".tsidx").at(1), whole = read_file(slice);
        uint32_t refused = 0;
        for (size_t at = 0; at < whole.size(); at += 3 * SANITIZED_PART) {
            write_flipped(slice, whole, at);
            std::string bytes;
            refused += ask(dir.path(), is_metric, &bytes) < 0 ? 1 : 0;
        }
        EXPECT_GT(refused, 20u);
        alone = false;
        for (uint64_t nth = 1, last = 1; nth <= last; nth++) {
            const temp_dir merged;
            make(merged);
            const auto merge = [&] {
                EXPECT_EQ(merge_all(open_directory(merged.path(), 4, false, is_metric).get()), 0);
            };
            const fault_step step(nth, merge);
            std::string bytes;
            ASSERT_EQ(ask(merged.path(), is_metric, &bytes), 0);
            last = step.calls();
            ASSERT_EQ(bytes, expected) << nth;
        }
    }
}

// Counts and selections ask whether to stop inside of a slice, and stop whenever they are told to.
TEST_F(Select, AStopInsideOfASlice) {
    const uint64_t steps = std::exchange(stop_check::steps_a_question, 1);
    struct question {
        bool is_metric;
        const char* query;
        std::vector<std::string> groups;
        std::vector<select_projection_t> projections;
        int least;  // of the times that it asks
        enum { SELECTS, COUNTS, WALKS } does = SELECTS;
    };
    const std::vector<select_projection_t> bytes = {{"bytes", SELECT_SUM}}, all = {{"*", SELECT_SUM}};
    const temp_dir dirs[2];
    std::vector<forge_event> events = forge_random_events(1, 40);
    forge_file(dirs[0].path(), events, forge_as_created(4), 1);
    forge_metric_options kind;
    kind.terms.wflags = FORGE_TAG2;
    forge_metric_file(dirs[1].path(), random_metric_events(1, 40), kind, 1);
    for (const question& row : std::vector<question>{
             {false, "[AND [OR s* h*] [NOT x]]", {}, {}, 67, question::COUNTS},
             {false, "[AND]", {"host"}, {}, 57},
             {false, "[AND]", {}, bytes, 55},
             {false, "[AND]", {"host", "status"}, bytes, 124},
             {true, "[AND host::*]", {}, {}, 9, question::COUNTS},
             {true, "[AND host::*]", {}, {}, 9, question::WALKS},
             {true, "[AND]", {"host"}, all, 171},
             {true, "[AND]", {"host"}, {{"*", SELECT_DC}}, 171},
         }) {
        const directory_ptr tsidx = open_directory(dirs[row.is_metric ? 1 : 0].path());
        select_options_t options;
        options.sources = {{tsidx.get(), {}}};
        options.query.lispy = row.query;
        options.spec.groups = row.groups;
        options.spec.projections = row.projections;
        const auto ask = [&](stop_at* told) {
            st_tsidx_set_read_stop(tsidx.get(), stop_at::ask, told);
            uint64_t count = 0;
            select_table_t table;
            warm_rc_t rc;
            if (row.does == question::COUNTS) return st_tsidx_event_count(tsidx.get(), &options.query, &count);
            if (row.does == question::SELECTS) return select_read(options, &table, nullptr, &rc);
            const auto walk = [](const st_metric_event_t*, void*) { return 0; };
            const int64_t walked = st_tsidx_apply_metric_events(tsidx.get(), &options.query, walk, nullptr);
            return static_cast<int>(std::min<int64_t>(walked, 0));
        };
        stop_at free;
        EXPECT_EQ(ask(&free), 0) << told(options);
        EXPECT_GE(free.asked, row.least) << told(options);
        for (int nth = 1; nth <= free.asked; nth++) {
            stop_at stopped = {nth};
            EXPECT_EQ(ask(&stopped), WARM_RC_CANCELLED) << nth << told(options);
            EXPECT_EQ(stopped.asked, nth);
        }
    }
    stop_check::steps_a_question = steps;
}

// The handle: a copy of everything, nothing done before the first read, rows in order, refusals.
TEST_F(Select, HandlesReadRows) {
    const temp_dir dir;
    THING* const thing = st_open_for_read(dir.path().c_str());
    std::string text = "[AND]";
    QUERY query;
    query.lispy = text.c_str();
    select_spec_t spec;
    spec.groups = {"status"};
    st_select_handle* const handle = st_select_handle_new(thing, &query, &spec);
    ASSERT_NE(handle, nullptr);
    text = "[[[[[";
    spec.groups.clear();
    forge_file(dir.path(), {{.time = 5, .terms = {"status::b"}}, {.time = 6, .terms = {"status::a"}}},
               forge_as_created(4));
    select_row_t row;
    ASSERT_EQ(st_select_handle_read(handle, &row), 1);
    EXPECT_EQ(select_group_text(row.groups, 0), "a");
    ASSERT_EQ(st_select_handle_read(handle, &row), 1);
    EXPECT_EQ(select_group_text(row.groups, 0), "b");
    for (int i = 0; i < 2; i++) EXPECT_EQ(st_select_handle_read(handle, &row), 0);
    EXPECT_EQ(st_tsidx_select_handle_report(handle)->slices, 1u);
    st_select_handle_free(handle);
    EXPECT_EQ(st_select_handle_new(nullptr, &query, &spec), nullptr);
    query.earliest = {5, 1};
    query.latest = {5, 0};
    EXPECT_EQ(st_select_handle_new(thing, &query, &spec), nullptr);
    query.latest = {5, 2};
    st_select_handle* const refused = st_select_handle_new(thing, &query, &spec);
    ASSERT_NE(refused, nullptr);
    for (int i = 0; i < 2; i++) EXPECT_LT(st_select_handle_read(refused, &row), 0);
    EXPECT_EQ(st_tsidx_select_handle_failure(refused)->warm_rc, st_select_handle_read(refused, &row));
    st_select_handle_free(refused);
    EXPECT_EQ(st_close(thing), 0);
}

}  // namespace
}  // namespace veldar
