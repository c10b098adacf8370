// Puts whole events into an index directory. A failure of the engine ends the command; after one the directory is left
// as it is, so that no later event becomes visible while an earlier one is lost.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "searchthing/st.h"
#include "tools/libveldar/formats/metric_record.h"

namespace veldar::tool {

// About 210 MB of memory when all of it is used.
struct index_limits {
    uint64_t max_terms = uint64_t{1} << 20;
    uint64_t lexicon_bytes = uint64_t{32} << 20;
    uint64_t max_postings = uint64_t{1} << 23;
    uint64_t max_values = uint64_t{1} << 19;
};

struct index_writer {
    index_writer() = default;
    index_writer(const index_writer&) = delete;
    index_writer& operator=(const index_writer&) = delete;
    ~index_writer();

    std::string directory;
    THING* thing = nullptr;
};

// Opens an existing directory for writing. Throws failure_t, as all of these do when the engine fails.
void index_writer_open(index_writer* writer, const std::string& directory, uint32_t level, bool streaming,
                       const index_limits& limits, bool durable);
// Puts one event. False when no index can hold it.
bool index_writer_put(index_writer* writer, const st_txn& txn, std::span<const std::string_view> terms);
// The same for a directory of metrics. With `milliseconds` its slices keep those of the times, at 10 bits an event.
void index_writer_open_metrics(index_writer* writer, const std::string& directory, bool milliseconds, bool durable);
// Puts one event of at least one measure; the terms of dimensions and metric names have their leading blank. False when
// no index can hold it.
bool index_writer_put_metrics(index_writer* writer, const st_txn& txn, std::span<const std::string_view> dimensions,
                              std::span<const metric_measure> measures);
// How many slices have been written: when this grows in a put, every event before that one is in a slice.
uint64_t index_writer_slices(const index_writer* writer);
// Writes what is in memory as a slice.
void index_writer_sync(index_writer* writer);
// Syncs and closes. Nothing when it is closed or has failed.
void index_writer_close(index_writer* writer);

}  // namespace veldar::tool
