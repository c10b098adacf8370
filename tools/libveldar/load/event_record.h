// An event with what is told of it, wherever that comes from.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "searchthing/base/st_timeval.h"
#include "tools/libveldar/load/event_terms.h"
#include "tools/libveldar/query/event_source.h"

namespace veldar::tool {

// Which parts are wanted; the sum of some.
inline constexpr unsigned EVENT_FRACTION = 1;  // of the time, as the record says it
inline constexpr unsigned EVENT_RAW = 2;
inline constexpr unsigned EVENT_NAMES = 4;  // host, source, sourcetype
inline constexpr unsigned EVENT_FIELDS = 8;
inline constexpr unsigned EVENT_LINES = 16;  // around the record, and where it lies

// The values of an event's fields, each once, in the order of the record; the names are folded.
using event_fields = std::vector<std::pair<std::string, std::vector<std::string>>>;

// Parts that were not asked for, or are not known, are empty. Texts are valid until the record is filled again.
struct event_record {
    st_time_t time = 0;
    uint64_t nanoseconds = 0;  // of the second
    uint32_t address = 0;      // in its directory
    bool is_metric = false;    // the nanoseconds are the index's own
    bool has_raw = false;
    std::string_view raw, host, source, sourcetype, directory;
    event_fields fields;
    // The lines around the record, oldest first and without their ends, and the record's place in its log.
    std::vector<std::string> before, after;
    std::string path;
    std::string_view origin;        // what tells logs of one path on several machines apart
    uint64_t offset = 0, size = 0;  // bytes; with the line's end

    std::string host_number, source_number, sourcetype_number;  // room for names that are not known
};

// What fills records.
struct event_reader {
    event_source* source = nullptr;  // with its names read, when they are wanted
    unsigned parts = 0;
    uint32_t lines_before = 0, lines_after = 0;
    bool has_raw = true;  // the raw records can be read
    event_terms terms;
    event_record record;
};

// The event with the wanted parts, valid until the next call. What cannot be read is told to the source's troubles.
const event_record& event_record_of(event_reader* reader, const event_t& event);

}  // namespace veldar::tool
