// Random metric events, putting them into a directory, and reading them back from the sections of its slices: without
// search, by the picture of the file alone.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "searchthing/tsidx.h"
#include "searchthing/tsval.h"

namespace veldar {

struct metric_event {
    int32_t time = 0;
    uint32_t milliseconds = 0;
    uint32_t source = 0, source_type = 0, host = 0;  // companions
    std::set<std::string> dimensions;                // terms with their leading blank
    std::map<std::string, uint64_t> measures;        // metric name -> the double's bits
    auto operator<=>(const metric_event&) const = default;
};

// Events of a few dozen series and one in eight of a set of its own; special and plain doubles; times around zero.
std::vector<metric_event> random_metric_events(uint64_t seed, size_t count);
// One event as one transaction, keywords in an order that `seed` chooses, some of them twice; the close's result.
int put_metric_event(TSIDX* tsidx, const metric_event& event, uint64_t seed);
// Every event of one slice, in no order. Throws std::runtime_error for what the picture does not allow: postings other
// than the runs of the sets that hold the term, metadata that do not count them, columns without an element for each of
// their values, values out of order.
std::vector<metric_event> read_metric_slice(const std::string& path);
// The same for all slices of a directory, sorted.
std::vector<metric_event> read_metric_slices(const std::string& directory);
// What the directory's own reading hands out, sorted; it does not tell companions.
std::vector<metric_event> read_metric_directory(const std::string& directory);

}  // namespace veldar
