#include "tests/support/metric_events.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>

#include "searchthing/slice/warmslice.h"
#include "tests/support/faults.h"
#include "tests/support/fsck.h"
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

// The value alone, as another event without dimensions and measures.
metric_event value_of(const st_tsval& value) {
    return {.time = value.time,
            .milliseconds = static_cast<uint32_t>(value.subsecond / 1000000),
            .source = value.s,
            .source_type = value.st,
            .host = value.h,
            .dimensions = {},
            .measures = {}};
}

void read_values(const std::string& path, std::vector<metric_event>* out) {
    if (const std::string findings = fsck_findings(path); !findings.empty()) throw std::runtime_error(path + findings);
    warm_rc_t rc;
    WARM* const warm = st_warm_slice_open_rdonly(path.c_str(), &rc);
    if (warm == nullptr) throw std::runtime_error(path + ": " + rc.message);
    for (uint32_t id = warm->body->num_dimsets.get(); id < st_warm_slice_values(warm); id++) {
        st_tsval value;
        if (tsval_reader_decode(&warm->tsval_reader, id, &value, false, 0, &rc) != 0) throw std::runtime_error(path);
        out->push_back(value_of(value));
    }
    st_warm_slice_close(warm);
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
        for (uint64_t n = shape() % 6; n != 0; n--) {
            const std::string name = " d" + std::to_string(shape() % 4);  // drawn before the value by every compiler
            event.dimensions.insert(name + "::" + std::to_string(shape() % 9));
        }
        for (const char* keyword : {"foo", "food", "host::web1", " _dims::d0"}) {
            if (random() % 8 == 0) event.dimensions.insert(keyword);
        }
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

int tell_metric_event(const st_metric_event_t* event, void* out) {
    metric_event told{
        .time = event->time, .milliseconds = event->nanoseconds / 1000000, .dimensions = {}, .measures = {}};
    for (const std::string_view term : event->dimensions) told.dimensions.emplace(term);
    for (const auto& [name, value] : event->measures) told.measures[std::string(name)] = std::bit_cast<uint64_t>(value);
    static_cast<std::vector<metric_event>*>(out)->push_back(std::move(told));
    return 1;
}

std::vector<metric_event> read_metric_slices(const std::string& directory) {
    std::vector<metric_event> all;
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, 0);
    TSIDX* const tsidx = st_tsidx_open(directory.c_str(), 0, 1, &opts, TSIDX_ORDINARY_WRITER);
    const int64_t count = st_tsidx_apply_metric_events(tsidx, nullptr, tell_metric_event, &all);
    const std::string failure = st_tsidx_last_failure(tsidx)->message;
    const bool closed = st_tsidx_close(tsidx) == 0;
    if (!closed || count != static_cast<int64_t>(all.size())) throw std::runtime_error(directory + ": " + failure);
    for (const std::string& path : files_in(directory, ".tsidx")) read_values(path, &all);
    std::sort(all.begin(), all.end());
    return all;
}

metric_event as_told(metric_event event) {
    std::set<std::string> told;
    for (const std::string& term : event.dimensions) told.insert(term.substr(term.starts_with(' ') ? 1 : 0));
    event.dimensions = std::move(told);
    return event;
}

std::vector<metric_event> as_read(std::vector<metric_event> events) {
    for (size_t i = events.size(); i-- > 0;) {
        metric_event& event = events[i];
        metric_event value = event = as_told(std::move(event));
        value.dimensions.clear();
        value.measures.clear();
        event.source = event.source_type = event.host = 0;
        events.push_back(std::move(value));
    }
    std::sort(events.begin(), events.end());
    return events;
}

}  // namespace veldar
