// What a store knows of an event beyond the index: its raw record and the names behind its numbers.
#pragma once

#include <string>
#include <vector>

#include "searchthing/reading/cursors.h"
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/store/raw_reader.h"
#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/troubles.h"

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
    std::string searched, scratch;  // room for texts in which phrases are looked for
};

// The names are read by event_source_read_names; the slices and the troubles must outlive the record.
void event_source_open(event_source* source, const slice_set* slices, troubles* trouble);
void event_source_read_names(event_source* source);
// Whether the raw events of all directories can be read at all.
bool event_source_knows_raw(const slice_set& slices);

// The raw record of an event, valid until the next call; null when it cannot be read, which is told to the troubles.
const raw_record* event_source_record(event_source* source, const event_t& event);
// Lines around it. False when they cannot be read.
bool event_source_context(event_source* source, const event_t& event, uint32_t before, uint32_t after,
                          std::vector<std::string>* lines_before, std::vector<std::string>* lines_after);
// The fraction of a second, in nanoseconds, of the time at which an event was loaded: that of its record, or of the
// lines around it when the record says none and they are to be `asked_too`. False when the record cannot be read, which
// is told to the troubles.
bool event_source_fraction(event_source* source, const event_t& event, uint64_t* nanoseconds, bool asked_too = true);
// The events of the listed slices that the query finds, `limit` of them or, with 0, all. What cannot be read is passed
// over and told to the source's troubles. What the index does not know is checked with the raw records: the text for
// the plans that ask for it, and fractions of a second at the query's bounds; OUTCOME_USAGE when that has to be known and
// there are none. Everything must outlive the cursor. Throws failure_t.
event_cursor_ptr events_open(const prepared_query& query, uint64_t limit, event_source* source);
// The next event; false at the end. Throws failure_t when memory is short.
bool events_next(event_cursor_t* cursor, event_t* event);
// The name of a number, or the number itself when there is none.
std::string event_source_name(const std::vector<std::string>& names, uint32_t number);

}  // namespace veldar::tool
