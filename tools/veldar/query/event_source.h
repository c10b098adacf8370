// What a store knows of an event beyond the index: its raw record and the names behind its numbers.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/veldar/query/event_stream.h"
#include "tools/veldar/store/raw_reader.h"

namespace veldar::tool {

struct event_source {
    const slice_set* slices = nullptr;
    troubles* trouble = nullptr;
    std::vector<raw_reader_ptr> readers;  // by directory, opened when first needed
    std::vector<bool> unreadable;
    raw_record record;  // of the event asked for last
    bool has_record = false;
    uint32_t directory = 0, address = 0;
    std::vector<std::string> hosts, sources, sourcetypes;
};

// The names are read by event_source_read_names; the slices and the troubles must outlive the record.
void event_source_open(event_source* source, const slice_set* slices, troubles* trouble);
void event_source_read_names(event_source* source);
// Whether the raw events of all directories can be read at all.
bool event_source_knows_raw(const slice_set& slices);

// The raw record of an event, valid until the next call; null when it cannot be read, which is told to the troubles.
const raw_record* event_source_record(event_source* source, const stream_event& event);
// Lines around it. False when they cannot be read.
bool event_source_context(event_source* source, const stream_event& event, uint32_t before, uint32_t after,
                          std::vector<std::string>* lines_before, std::vector<std::string>* lines_after);
// The fraction of a second, in nanoseconds, of the time at which an event was loaded: that of its record, or of the
// lines around it when the record says none. False when the record cannot be read, which is told to the troubles.
bool event_source_fraction(event_source* source, const stream_event& event, uint64_t* nanoseconds);
// Lets the stream check with the raw records what the index does not know: the text for the plans that ask for it, and
// fractions of a second at the query's bounds. The source must outlive the stream's use. Throws tool_failure with
// EXIT_USAGE when that has to be known and there are no raw records.
void stream_check_raw(event_stream* stream, event_source* source);
// The name of a number, or the number itself when there is none.
std::string event_source_name(const std::vector<std::string>& names, uint32_t number);

}  // namespace veldar::tool
