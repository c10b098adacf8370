// What the files of the line formats share.
#pragma once

#include "tools/libveldar/formats/line_format.h"
#include "tools/libveldar/formats/log_stamp.h"

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
bool parse_nginx_error(std::string_view line, format_context* context, parsed_line* out);
bool parse_csv(std::string_view record, format_context* context, parsed_line* out);
bool parse_w3c(std::string_view line, format_context* context, parsed_line* out);
bool parse_zeek(std::string_view line, format_context* context, parsed_line* out);
bool parse_cri(std::string_view line, format_context* context, parsed_line* out);
bool parse_logfmt(std::string_view line, format_context* context, parsed_line* out);
bool parse_journal_export(std::string_view record, format_context* context, parsed_line* out);

// Clears `out` and gives the line without its carriage return and UTF-8 mark: the start of every parse.
std::string_view begin_parse(std::string_view line, parsed_line* out);
// The end of a parse of a line that has not the format's form. Returns false.
bool parse_as_text(std::string_view line, parsed_line* out);

// Adds the field unless its name or its value is empty: a column may have no name.
void add_field(parsed_line* out, std::string_view name, std::string_view value);
// Adds the field unless the value is empty or "-", which stands for "none" in logs of web servers and of syslog.
void add_dash_field(parsed_line* out, std::string_view name, std::string_view value);
void set_time(parsed_line* out, const log_stamp& stamp, format_context* context);
// The same for a time without a year: that of the file or of the line before tells it.
void set_yearless_time(parsed_line* out, const yearless_stamp& stamp, format_context* context);
// Either, for a time that a shape found.
void set_shape_time(parsed_line* out, const shape_time& time, format_context* context);
// The time of the field that the context names; none when the line has no such field.
void set_field_time(parsed_line* out, format_context* context);
// The time that the text says (time_place_take_any), and a level beside it.
void add_placed_time(std::string_view text, format_context* context, parsed_line* out);

// The first of two bytes; the text's size when neither is there.
inline size_t find_either(std::string_view text, char a, char b) {
    size_t at = 0;
    while (at < text.size() && text[at] != a && text[at] != b) at++;
    return at;
}

// The size of a quoted text behind its opening quote, a backslash keeping the next byte; npos when it is not closed.
size_t quoted_size(std::string_view text, char quote);

// Takes a text in quotes and the blanks behind it. A line that was cut inside the quotes gives what is left of them.
bool take_quoted(std::string_view* rest, std::string_view* out);

// Whether a word is the name of a log level, in capitals or not: "INFO", "error", "trace3".
bool is_level(std::string_view word);

// A text of the record's own, empty, that lives as long as its fields.
std::string* made_text(parsed_line* out);

// The text without its backslashes: \n, \r and \t as they mean, any other byte as itself.
std::string_view unescaped(std::string_view text, parsed_line* out);

// The names of members, columns and keys that hold an event's time, its message, and the machine that it is of.
bool is_time_name(std::string_view name);
bool is_text_name(std::string_view name);
bool is_host_name(std::string_view name);
// A text that is a time in any of the ways of the formats.
bool take_any_time(std::string_view text, log_stamp* out);
// Takes the event's time from a field of that name when there is none yet; false: it is a field.
bool take_named_time(parsed_line* out, std::string_view name, std::string_view text, format_context* context);
void set_host(parsed_line* out, std::string_view host);

// Adds what a message says: the fields of the line inside when one of the formats has it, and its time and host when the
// line around it has none; else its pairs. Only one line inside a line is read so; for further ones it adds the pairs.
void add_message(parsed_line* out, std::string_view text, format_context* context);

// Adds the pairs of a text, and the members of a JSON object that it ends with.
void add_text(parsed_line* out, std::string_view text, format_context* context);

// Adds the `key=value` pairs of a text, in order, as many as one line may have. A key is a whole run of [A-Za-z0-9_.-]
// that begins with a letter or `_` and is at most 64 bytes long. A value is quoted by " or ' (a backslash keeps the
// next byte), or ends before a blank, a control character, `,`, `;`, `&`, a quote, or a closing bracket that the value
// has not opened. URLs and numbers such as 1,234,567 go on over `,`, `;` and `&`; brackets around a value and
// punctuation behind it are no part of it. "==" and "=>" are no pairs.
void add_pairs(parsed_line* out, std::string_view text);
// The size of the key=value key at the front of the text; 0 when there is none.
size_t key_size(std::string_view text);

// Adds `PREFIX.NAME=value` for each parameter of a query string, both decoded: at most 32, with names of letters,
// digits and [_.-[]] up to 64 bytes.
void add_query(parsed_line* out, std::string_view prefix, std::string_view query);
// Adds `PREFIX.host` and the parameters of a URL.
void add_url(parsed_line* out, std::string_view prefix, std::string_view url);
// Adds method, path, query with its parameters, uri and protocol of a request line.
void add_request(parsed_line* out, std::string_view request);

}  // namespace veldar::tool
