#include "tests/support/metric_events.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>

#include "searchthing/cstore.h"
#include "searchthing/dimset_io.h"
#include "searchthing/plist.h"
#include "searchthing/tsidx_metric.h"
#include "searchthing/warmslice.h"
#include "tests/support/faults.h"
#include "tests/support/hot_events.h"

namespace veldar {

namespace {

const std::string MEASURE = " metric_name::";

double random_measure(std::mt19937_64& random) {
    using limits = std::numeric_limits<double>;
    constexpr double special[] = {0.0, -0.0, limits::infinity(), -limits::infinity(), limits::denorm_min(), 1e308};
    switch (random() % 8) {
        case 0:
            return special[random() % std::size(special)];
        case 1:
            return std::bit_cast<double>(0x7FF8000000000000u | random() % 1000);  // NaN with a payload
        case 2:
            return std::bit_cast<double>(random());
        default:
            return static_cast<double>(random() % 10000) / 100;
    }
}

void require(bool condition, const std::string& what) {
    if (!condition) throw std::runtime_error(what);
}

struct slice_reader {
    explicit slice_reader(const std::string& path) : name(path) {
        warm = st_warm_slice_open_rdonly(path.c_str(), &rc);
        require(warm != nullptr, path + " does not open: " + rc.message);
        const auto collect = [](int32_t, const char* term, size_t length, void* context) {
            static_cast<std::vector<std::string>*>(context)->emplace_back(term, length);
            return 1;
        };
        st_fclex_apply(warm->lexicon, nullptr, collect, &terms, nullptr);
        sets_offset = static_cast<uint64_t>(st_warm_slice_dimsets_offset(warm, &rc));
        ok(ds_reader_open(&sets, warm->fd.get(), sets_offset, &rc));
        const uint64_t end = sets_offset + st_dimsets_size(sets.num_dimsets, sets.num_words);
        ok(cs_reader_open(&columns, warm->fd.get(), (end + 7) / 8 * 8,
                          static_cast<int64_t>(warm->body->cstore_ref.get()), &rc));
        ok(cs_verify(&columns, &rc));
    }
    ~slice_reader() {
        cs_reader_close(&columns);
        ds_reader_close(&sets);
        st_warm_slice_close(warm);
    }
    void ok(int status) const { require(status == 0, name + ": " + std::to_string(status) + " " + rc.message); }
    st_tsval value(uint32_t id) {
        st_tsval out;
        ok(tsval_reader_decode(&warm->tsval_reader, id, &out, false, 0, &rc));
        return out;
    }

    std::string name;
    warm_rc_t rc;
    WARM* warm = nullptr;
    std::vector<std::string> terms;
    uint64_t sets_offset = 0;
    ds_reader_t sets;
    cs_reader_t columns;
};

struct term_facts {
    std::vector<uint32_t> runs;
    uint32_t count = 0;
    int32_t earliest = INT32_MAX, latest = INT32_MIN;
};

struct column_values {
    std::vector<double> values;
    std::vector<uint8_t> present;
};

column_values read_column(slice_reader& slice, uint32_t term, uint32_t first, uint32_t count) {
    column_values out{std::vector<double>(count), std::vector<uint8_t>(count)};
    cset_reader_t reader;
    slice.ok(cset_reader_open(&reader, &slice.columns, term, nullptr, &slice.rc));
    slice.ok(cset_reader_range(&reader, first, count, out.values.data(), out.present.data(), &slice.rc));
    cset_reader_close(&reader);
    return out;
}

// The events of run `run`, and what it adds to the facts of its terms.
void read_run(slice_reader& slice, uint32_t run, uint32_t* next, std::vector<term_facts>* facts,
              std::map<uint32_t, column_values>* columns, std::vector<metric_event>* events) {
    st_tsval preamble;
    slice.ok(tsval_reader_decode_preamble(&slice.warm->tsval_reader, run, &preamble, &slice.rc));
    const auto first = static_cast<uint32_t>(preamble.time);
    const uint32_t count = preamble.address;
    require(first == *next && count != 0, slice.name + ": runs do not follow one another");
    *next += count;
    std::vector<uint32_t> words(DS_MAX_DIMSET_SIZE_WORDS);
    ds_dimset_t* const set = ds_dimset_at(words.data());
    const uint32_t preambles = slice.sets.num_dimsets;
    slice.ok(ds_reader_read(&slice.sets, preambles - 1 - run, set, DS_MAX_DIMSET_SIZE_WORDS, &slice.rc));
    std::vector<uint32_t> fields;
    for (const uint32_t field : ds_dimset_allfields(set)) {
        if (field != DS_NO_TERM) fields.push_back(field);
    }
    for (uint32_t id = first; id < first + count; id++) {
        const st_tsval value = slice.value(id);
        metric_event event{.time = value.time,
                           .milliseconds = static_cast<uint32_t>(value.subsecond / 1000000),
                           .source = value.s,
                           .source_type = value.st,
                           .host = value.h,
                           .dimensions = {},
                           .measures = {}};
        if (id != first) {
            const metric_event& before = events->back();
            require(std::tie(before.time, before.milliseconds) >= std::tie(event.time, event.milliseconds),
                    slice.name + ": a run is out of order");
        }
        for (const uint32_t term : ds_dimset_all_dims(set)) {
            if (term != DS_NO_TERM) event.dimensions.insert(slice.terms.at(term));
        }
        for (const uint32_t term : ds_dimset_opt_cols(set)) {
            const column_values& column = columns->at(term);
            require(column.present[id - preambles] != 0, slice.name + ": a value lacks a measure");
            event.measures[slice.terms.at(term).substr(MEASURE.size())] =
                std::bit_cast<uint64_t>(column.values[id - preambles]);
        }
        events->push_back(event);
        for (const uint32_t term : fields) {
            term_facts& fact = facts->at(term);
            if (id == first) fact.runs.push_back(run);
            fact.count++;
            fact.earliest = std::min(fact.earliest, event.time);
            fact.latest = std::max(fact.latest, event.time);
        }
    }
}

void check_terms(slice_reader& slice, const std::vector<term_facts>& facts) {
    plist_reader lists;
    term_meta_reader_t metadata;
    slice.ok(_init_reader(&lists, slice.warm, 1024, nullptr, &slice.rc));
    slice.ok(
        term_meta_reader_open(&metadata, slice.warm->fd.get(), nullptr, slice.warm->body, true, nullptr, &slice.rc));
    uint64_t postings = 0;
    for (uint32_t term = 0; term < facts.size(); term++) {
        const term_facts& fact = facts[term];
        std::vector<uint32_t> list(fact.runs.size() + 1);
        uint32_t count = 0;
        slice.ok(_seek_reader(&lists, term, &slice.rc));
        slice.ok(plist_copy(&lists, list.data(), static_cast<uint32_t>(list.size()), UINT32_MAX, &count, &slice.rc));
        list.resize(count);
        require(list == fact.runs, slice.name + ": postings of " + slice.terms[term]);
        postings += count;
        const st_term_metadata* record = term_meta_reader_next(&metadata, &slice.rc);
        require(record != nullptr && record->count == fact.count &&
                    static_cast<int32_t>(record->earliest) == fact.earliest &&
                    static_cast<int32_t>(record->latest) == fact.latest,
                slice.name + ": metadata of " + slice.terms[term]);
    }
    require(postings == slice.warm->body->num_postings.get(), slice.name + ": number of postings");
    close_plist_reader(&lists);
    term_meta_reader_close(&metadata);
}

}  // namespace

std::vector<metric_event> random_metric_events(uint64_t seed, size_t count) {
    std::mt19937_64 random(seed);
    std::vector<metric_event> events(count);
    for (metric_event& event : events) {
        const uint64_t series = random() % 8 == 0 ? random() : random() % 24;
        std::mt19937_64 shape(series);
        event.time = static_cast<int32_t>(random() % 200) - 100;
        event.milliseconds = static_cast<uint32_t>(random() % 3 == 0 ? 0 : random() % 1000);
        event.source = static_cast<uint32_t>(shape() % 3);
        event.host = static_cast<uint32_t>(random() % 9);
        if (shape() % 4 != 0) event.dimensions.insert(" host::web" + std::to_string(shape() % 5));
        if (shape() % 2 != 0) event.dimensions.insert(" source::s" + std::to_string(shape() % 2));
        if (shape() % 2 != 0) event.dimensions.insert(" sourcetype::t" + std::to_string(shape() % 2));
        for (uint64_t n = shape() % 6; n != 0; n--)
            event.dimensions.insert(" d" + std::to_string(shape() % 4) + "::" + std::to_string(shape() % 9));
        for (uint64_t n = shape() % 4 + 1; n != 0; n--) {
            event.measures["m" + std::to_string(shape() % 7)] = std::bit_cast<uint64_t>(random_measure(random));
        }
    }
    return events;
}

int put_metric_event(TSIDX* tsidx, const metric_event& event, uint64_t seed) {
    std::mt19937_64 random(seed);
    st_txn txn;
    txn.time = event.time;
    txn.subsecond = tsval_encode_milliseconds(event.milliseconds);
    txn.source = event.source;
    txn.source_type = event.source_type;
    txn.host = event.host;
    std::vector<std::pair<std::string, uint64_t>> keywords;
    {
        const fault_truce own;
        for (const std::string& term : event.dimensions) keywords.emplace_back(term, 0);
        for (const auto& [name, bits] : event.measures) keywords.emplace_back(MEASURE + name, bits);
        std::shuffle(keywords.begin(), keywords.end(), random);
        if (random() % 4 == 0) keywords.push_back(keywords[random() % keywords.size()]);
    }
    if (const int rc = st_tsidx_txn_start(tsidx, &txn)) return rc;
    for (const auto& [term, bits] : keywords) {
        txn.measure = std::bit_cast<double>(bits);
        if (const int rc = st_tsidx_txn_put(tsidx, term.data(), term.size(), &txn)) return rc;
    }
    return st_tsidx_txn_close(tsidx, &txn);
}

std::vector<metric_event> read_metric_slice(const std::string& path) {
    slice_reader slice(path);
    const st_warm_slice_body& header = *slice.warm->body;
    const uint32_t preambles = slice.sets.num_dimsets;
    const uint32_t values = header.num_values.get() - preambles;
    require(preambles == header.num_dimsets.get(), path + ": number of dimension sets");
    std::map<uint32_t, column_values> columns;
    for (uint32_t term = 0; term < slice.terms.size(); term++) {
        if (slice.terms[term].starts_with(MEASURE)) columns[term] = read_column(slice, term, preambles, values);
    }
    std::vector<metric_event> events;
    std::vector<term_facts> facts(slice.terms.size());
    uint32_t next = preambles;
    for (uint32_t run = 0; run < preambles; run++) read_run(slice, run, &next, &facts, &columns, &events);
    require(next == header.num_values.get(), path + ": runs do not cover the values");
    check_terms(slice, facts);
    const auto [first, last] = std::minmax_element(events.begin(), events.end());
    require(first->time == st_warm_slice_earliest(slice.warm) && last->time == st_warm_slice_latest(slice.warm),
            path + ": times");
    return events;
}

std::vector<metric_event> read_metric_slices(const std::string& directory) {
    std::vector<metric_event> all;
    for (const std::string& path : files_in(directory, ".tsidx")) {
        const std::vector<metric_event> events = read_metric_slice(path);
        all.insert(all.end(), events.begin(), events.end());
    }
    std::sort(all.begin(), all.end());
    return all;
}

std::vector<metric_event> read_metric_directory(const std::string& directory) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, 0);
    TSIDX* const tsidx = st_tsidx_open(directory.c_str(), 0, 1, &opts, TSIDX_ORDINARY_WRITER);
    std::vector<metric_event> all;
    const auto collect = [](const st_metric_event_t* event, void* context) {
        metric_event out{
            .time = event->time, .milliseconds = event->nanoseconds / 1000000, .dimensions = {}, .measures = {}};
        for (const std::string_view term : event->dimensions) out.dimensions.insert(" " + std::string(term));
        for (const auto& [name, value] : event->measures)
            out.measures[std::string(name)] = std::bit_cast<uint64_t>(value);
        static_cast<std::vector<metric_event>*>(context)->push_back(std::move(out));
        return 1;
    };
    const int64_t count = st_tsidx_apply_metric_events(tsidx, nullptr, collect, &all);
    require(count == static_cast<int64_t>(all.size()), directory + ": " + st_tsidx_last_failure(tsidx)->message);
    st_tsidx_close(tsidx);
    std::sort(all.begin(), all.end());
    return all;
}

}  // namespace veldar
