// Prints found events.
//
//   raw     the records as they stand in the logs; with lines around them, groups separated by "--"
//   table   time, host, source and the record's first line; aligned on a terminal, separated by tabs elsewhere
//   jsonl   one object a line: time, host, source, sourcetype, directory, address, raw, or the fields that are asked for;
//           with lines around them these too, told by "context", and the number of the "group"
//   csv     the same columns, RFC 4180, with a header line; a field's values have ";" between them
//   tsv     the same, with \t, \n, \r and \\ for those characters
//   addr    time, address and directory, separated by tabs: all that is known where there are no logs
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/libveldar/formats/log_time.h"
#include "tools/libveldar/load/event_record.h"
#include "tools/veldar/output/event_context.h"
#include "tools/veldar/output/highlight.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

enum event_format_t { FORMAT_RAW, FORMAT_TABLE, FORMAT_JSONL, FORMAT_CSV, FORMAT_TSV, FORMAT_ADDR };
bool event_format_from_name(const std::string& name, event_format_t* format);

struct event_output {
    text_output* out = nullptr;
    event_format_t format = FORMAT_RAW;
    bool has_raw = true;                      // the raw records can be read
    std::vector<std::string> columns;         // jsonl, csv, tsv: "time", "host" ... or names of fields, folded
    bool all_fields = false;                  // and every field: of jsonl those of the event, else those learned
    context_groups context;                   // raw, jsonl: with lines around the records
    highlighter wanted;                       // used in colour only
    size_t host_width = 0, source_width = 0;  // of a table's columns
};

// Chooses the columns: "status,path" for these fields behind the time, "all" for all beside the usual columns, and ""
// for the usual ones.
void event_output_choose(event_output* output, const std::string& fields);
// The parts of events that are to be filled for it: EVENT_* of event_record.h.
unsigned event_output_parts(const event_output& output);
// Whether the columns are those of the events to come, which have to be learned before the beginning.
bool event_output_learns(const event_output& output);
void event_output_learn(event_output* output, const event_record& event);
// Prepares the columns, given the lengths of the longest names, and prints the header line of a format that has one.
void event_output_begin(event_output* output, size_t longest_host, size_t longest_source);
// Prints one event. In raw format one whose record is not known is left out, elsewhere its text.
void event_output_put(event_output* output, const event_record& event);
// Prints what was held back; after the last event.
void event_output_end(event_output* output);

// "2015-05-17T10:05:03Z" or "2015-05-17T12:05:03+02:00", with the fraction of a second when there is one.
std::string event_time_text(st_time_t time, uint64_t nanoseconds, const log_zone& zone = {});
// How many characters the times of a zone take, without fractions.
int time_width(const log_zone& zone);
// Appends the text as a JSON string; bytes that are no UTF-8 become U+FFFD.
void json_put_string(std::string* out, std::string_view text);
// Appends a field of a CSV line, quoted when it has to be; and one of a TSV line, with its separators escaped.
void csv_put_field(std::string* out, std::string_view text);
void tsv_put_field(std::string* out, std::string_view text);

}  // namespace veldar::tool
