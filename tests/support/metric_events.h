// Random metric events, putting them into a directory, and reading them back.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "searchthing/directory/tsidx.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/values/tsval.h"

namespace veldar {

struct metric_event {
    int32_t time = 0;
    uint32_t milliseconds = 0;
    uint32_t source = 0, source_type = 0, host = 0;  // companions
    std::set<std::string> dimensions;                // terms with their leading blank, and keywords without
    std::map<std::string, uint64_t> measures;        // metric name -> the double's bits
    auto operator<=>(const metric_event&) const = default;
};

// Events of a few dozen series and one in eight of a set of its own, some with keywords that are no dimensions;
// special and plain doubles; times around zero.
std::vector<metric_event> random_metric_events(uint64_t seed, size_t count);
// One event as one transaction, keywords in an order that `seed` chooses, some of them twice; the close's result.
int put_metric_event(TSIDX* tsidx, const metric_event& event, uint64_t seed);
// For walks of the directory's own reading: adds the event, without companions, to a vector of metric_event.
int tell_metric_event(const st_metric_event_t* event, void* out);
// An event as that tells it: no term has its leading blank.
metric_event as_told(metric_event event);
// All slices of a directory, sorted: every event as the directory's own reading tells it, and every value as an event
// of its own that has the companions alone. Throws std::runtime_error for a slice in which the checker finds a fault.
std::vector<metric_event> read_metric_slices(const std::string& directory);
// Events in that form and order.
std::vector<metric_event> as_read(std::vector<metric_event> events);

}  // namespace veldar
