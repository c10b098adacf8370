// Prints found events.
//
//   raw     the records as they stand in the logs; with context lines, groups separated by "--"
//   table   time, host, source and the record's first line; aligned on a terminal, separated by tabs elsewhere
//   jsonl   one object a line: time, host, source, sourcetype, directory, address, raw
//   csv     the same columns, RFC 4180, with a header line
//   tsv     the same, with \t, \n, \r and \\ for those characters
//   addr    time, address and directory, separated by tabs: all that is known where there are no logs
#pragma once

#include <cstdint>
#include <string>

#include "tools/veldar/output/highlight.h"
#include "tools/veldar/output/text_output.h"
#include "tools/veldar/query/event_source.h"

namespace veldar::tool {

enum event_format_t { FORMAT_RAW, FORMAT_TABLE, FORMAT_JSONL, FORMAT_CSV, FORMAT_TSV, FORMAT_ADDR };
bool event_format_from_name(const std::string& name, event_format_t* format);

struct event_output {
    text_output* out = nullptr;
    event_source* source = nullptr;
    event_format_t format = FORMAT_RAW;
    bool has_raw = true;                      // the raw records can be read
    uint32_t before = 0, after = 0;           // context lines
    highlighter wanted;                       // used in colour only
    size_t host_width = 0, source_width = 0;  // of a table's columns
    uint64_t printed = 0;
};

// Prepares the columns and prints the header line of a format that has one.
void event_output_begin(event_output* output);
// Prints one event. What cannot be read of it is told to the source's troubles and left out: in raw format the event,
// elsewhere its text.
void event_output_put(event_output* output, const event_t& event);

// "2015-05-17T10:05:03Z", with the fraction of a second when there is one.
std::string event_time_text(st_time_t time, uint64_t nanoseconds);
// Appends the text as a JSON string; bytes that are no UTF-8 become U+FFFD.
void json_put_string(std::string* out, std::string_view text);
// Appends a field of a CSV line, quoted when it has to be; and one of a TSV line, with its separators escaped.
void csv_put_field(std::string* out, std::string_view text);
void tsv_put_field(std::string* out, std::string_view text);

}  // namespace veldar::tool
