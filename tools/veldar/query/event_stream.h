// The answers of a query over any number of slices, newest first, one at a time.
//
// A heap holds the slices that were not needed yet, by the latest time of their names, and a cursor for each search of
// the query in each open slice. A slice is opened when the answers have reached its latest time. Cursors ask their
// slice for the newest answers in batches that grow, so whoever stops early leaves the rest of the slice alone.
//
// When a slice has gone before it was opened, a new list takes over: the events given so far stand, those at the time
// that was reached are known, and whatever is older comes from the slices that there are now.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "searchthing/values/tsval.h"
#include "tools/veldar/query/query_input.h"
#include "tools/veldar/store/slices.h"
#include "tools/veldar/store/troubles.h"

namespace veldar::tool {

struct stream_event {
    st_tsval value = {};
    uint32_t directory = 0;  // index in slice_set::directories
    uint32_t plan = 0;       // the search that found it
    bool is_metric = false;  // its fraction of a second is all there is
};

struct slice_cursor {
    std::shared_ptr<WARM> warm;
    const slice_file* file = nullptr;
    uint32_t plan = 0;
    bool is_metric = false;
    std::vector<st_tsval> answers;
    size_t at = 0, count = 0;  // the next answer, and how many there are
    uint32_t batch = 0;        // how many new answers to ask for next
    uint32_t skip = 0;         // answers at the bound that were given already
    st_timeval_t bound;        // inclusive upper bound of the next batch
    bool resumed = false;
    bool exhausted = false;
};

struct stream_entry {
    st_time_t time;  // of the next answer, or the latest of a slice that is not open
    uint64_t subsecond;
    uint32_t directory, address;
    const slice_file* unopened;
    slice_cursor* cursor;
};

struct event_stream {
    const prepared_query* query = nullptr;
    troubles* trouble = nullptr;
    slice_set slices;
    uint32_t first_batch = 0;
    // Decides what the index cannot; without it every event passes.
    std::function<bool(const stream_event&)> passes;
    std::vector<stream_entry> heap;
    std::vector<std::unique_ptr<slice_cursor>> cursors;
    // How many events were given at `time`, by directory and address, and how many of those a new list brings again.
    std::unordered_map<uint64_t, uint32_t> given, again;
    st_timeval_t time;
    bool started = false;
    bool relisted = false;
    int tries = 0;  // lists since the last event
};

// Lists the slices. `limit` is how many answers are wanted, 0 for all. The query and the troubles must outlive the
// stream. Throws tool_failure.
void event_stream_open(event_stream* stream, const std::string& path, const prepared_query* query, uint64_t limit,
                       troubles* trouble);
// The next event, each event of a log once, and each of metrics as often as it is there: their addresses do not tell
// them apart. False at the end. A slice that cannot be read is passed over and told to `trouble`.
bool event_stream_next(event_stream* stream, stream_event* event);

}  // namespace veldar::tool
