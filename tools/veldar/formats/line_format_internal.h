// What the files of the line formats share.
#pragma once

#include "tools/veldar/formats/line_format.h"
#include "tools/veldar/formats/log_stamp.h"

namespace veldar::tool {

bool parse_access(std::string_view line, format_context* context, parsed_line* out);
bool parse_syslog(std::string_view line, format_context* context, parsed_line* out);
bool parse_syslog_5424(std::string_view line, format_context* context, parsed_line* out);
bool parse_syslog_iso(std::string_view line, format_context* context, parsed_line* out);
bool parse_apache_error(std::string_view line, format_context* context, parsed_line* out);
bool parse_json(std::string_view line, format_context* context, parsed_line* out);
bool parse_iso8601(std::string_view line, format_context* context, parsed_line* out);
bool parse_yymmdd(std::string_view line, format_context* context, parsed_line* out);
bool parse_epoch(std::string_view line, format_context* context, parsed_line* out);
bool parse_text(std::string_view line, format_context* context, parsed_line* out);

// Clears `out` and gives the line without its carriage return and UTF-8 mark: the start of every parse.
std::string_view begin_parse(std::string_view line, parsed_line* out);
// The end of a parse of a line that has not the format's form. Returns false.
bool parse_as_text(std::string_view line, parsed_line* out);

// Adds the field unless the value is empty.
void add_field(parsed_line* out, std::string_view name, std::string_view value);
// Adds the field unless the value is empty or "-", which stands for "none" in logs of web servers and of syslog.
void add_dash_field(parsed_line* out, std::string_view name, std::string_view value);
void set_time(parsed_line* out, const log_stamp& stamp, format_context* context);
// The same for a time without a year: that of the file or of the line before tells it.
void set_yearless_time(parsed_line* out, const yearless_stamp& stamp, format_context* context);
// Either, for a time that a shape found.
void set_shape_time(parsed_line* out, const shape_time& time, format_context* context);
// The time that the text says at the context's place, and a level beside it.
void add_placed_time(std::string_view text, format_context* context, parsed_line* out);

// The size of a quoted text behind its opening quote, a backslash keeping the next byte; npos when it is not closed.
size_t quoted_size(std::string_view text, char quote);

// Whether a word is the name of a log level, in capitals or not: "INFO", "error", "trace3".
bool is_level(std::string_view word);

// Adds the `key=value` pairs of a text, in order, as many as one line may have. A key is a whole run of [A-Za-z0-9_.-]
// that begins with a letter or `_` and is at most 64 bytes long. A value is quoted by " or ' (a backslash keeps the
// next byte), or ends before a blank, `,`, `;`, `&`, a quote, or a closing bracket that the value has not opened. "=="
// and "=>" are no pairs.
void add_pairs(parsed_line* out, std::string_view text);

}  // namespace veldar::tool
