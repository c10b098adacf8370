#include "tools/veldar/formats/line_format.h"

#include <algorithm>
#include <array>

#include "tools/veldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

constexpr size_t KEY_MAX = 64;
constexpr size_t PAIRS_MAX = 256;  // a line that has more holds data rather than fields

// The more specific before the more general: detect_format relies on it.
constexpr line_format FORMATS[] = {
    {"json", "one JSON object a line; its members are fields", parse_json, true},
    {"access", "combined or common access log of a web server", parse_access},
    {"apache-error", "[Sun Dec 04 04:47:44 2005] [error] ...", parse_apache_error},
    {"syslog-5424", "<34>1 2003-10-11T22:14:15.003Z host app ... (RFC 5424)", parse_syslog_5424},
    {"syslog", "Jun 14 15:16:01 host program[pid]: ... (RFC 3164)", parse_syslog},
    {"syslog-iso", "2025-06-14T15:16:01.123456+02:00 host program[pid]: ...", parse_syslog_iso},
    {"iso8601", "lines that begin with 2015-10-18 18:01:47,978 or the like (ISO 8601, RFC 3339)", parse_iso8601},
    {"yymmdd", "lines that begin with 081109 203615", parse_yymmdd},
    {"epoch", "lines that begin with seconds (or milliseconds) since 1970", parse_epoch},
    {"text", "anything else: lines that say their time anywhere in their first 200 bytes, or not at all", parse_text},
};
constexpr size_t TEXT = std::size(FORMATS) - 1;

bool is_key_start(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool is_key_byte(char c) {
    return is_key_start(c) || (c >= '0' && c <= '9') || c == '.' || c == '-';
}

// The key that ends before `equals`; empty when there is none.
std::string_view key_before(std::string_view text, size_t equals) {
    size_t start = equals;
    size_t lowest = equals > KEY_MAX ? equals - KEY_MAX : 0;
    while (start > lowest && is_key_byte(text[start - 1])) start--;
    bool whole_run = start == 0 || !is_key_byte(text[start - 1]);
    if (start == equals || !whole_run || !is_key_start(text[start])) return {};
    return text.substr(start, equals - start);
}

// The size of a value without quotes.
size_t plain_size(std::string_view text) {
    int open = 0;
    for (size_t i = 0; i < text.size(); i++) {
        switch (text[i]) {
            case ' ':
            case '\t':
            case '\n':  // of a string in JSON; and some end with one
            case '\r':
            case ',':
            case ';':
            case '&':
            case '"':
            case '\'':
                return i;
            case '(':
            case '[':
            case '{':
            case '<':
                open++;
                break;
            case ')':
            case ']':
            case '}':
            case '>':
                if (open-- == 0) return i;
                break;
            default:
                break;
        }
    }
    return text.size();
}

// Whether a format has a line: its parse says so. The text format has every line, so it is never asked.
size_t count_lines_of(const line_format& format, std::span<const std::string_view> lines, format_context context) {
    parsed_line scratch;
    size_t count = 0;
    for (std::string_view line : lines) {
        if (begins_record(line) && format.parse(line, &context, &scratch)) count++;
    }
    return count;
}

}  // namespace

void add_pairs(parsed_line* out, std::string_view text) {
    size_t pairs = 0;
    for (size_t at = text.find('='); at != std::string_view::npos && pairs < PAIRS_MAX; at = text.find('=', at)) {
        std::string_view key = key_before(text, at);
        std::string_view value = text.substr(++at);
        if (key.empty() || value.empty()) continue;
        if (value[0] == '=' || value[0] == '>') {
            at++;
            continue;
        }
        bool quoted = value[0] == '"' || value[0] == '\'';
        size_t size = quoted ? quoted_size(value.substr(1), value[0]) : plain_size(value);
        if (size == std::string_view::npos) continue;
        value = value.substr(quoted ? 1 : 0, size);
        add_field(out, key, value);
        pairs++;
        at += size;
    }
}

size_t quoted_size(std::string_view text, char quote) {
    size_t end = text.find(quote);
    if (end == std::string_view::npos || end == 0 || text[end - 1] != '\\') return end;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == quote) return i;
        if (text[i] == '\\') i++;
    }
    return std::string_view::npos;
}

void add_field(parsed_line* out, std::string_view name, std::string_view value) {
    if (!value.empty()) out->fields.push_back({name, value});
}

void add_dash_field(parsed_line* out, std::string_view name, std::string_view value) {
    if (value != "-") add_field(out, name, value);
}

void set_time(parsed_line* out, const log_stamp& stamp, format_context* context) {
    out->has_time = stamp_to_time(stamp, &context->zone, &out->time);
    if (!stamp.unclear_zone.empty() && context->unclear_zone.empty()) context->unclear_zone = stamp.unclear_zone;
}

std::string_view begin_parse(std::string_view line, parsed_line* out) {
    out->has_time = false;
    out->fields.clear();
    if (line.ends_with('\r')) line.remove_suffix(1);
    skip_utf8_mark(&line);
    return line;
}

bool parse_as_text(std::string_view line, parsed_line* out) {
    add_pairs(out, begin_parse(line, out));
    return false;
}

bool parse_text(std::string_view line, format_context* context, parsed_line* out) {
    const std::string_view text = begin_parse(line, out);
    if (context->times.known()) add_placed_time(text, context, out);
    add_pairs(out, text);
    return true;
}

std::span<const line_format> line_formats() {
    return FORMATS;
}

const line_format* format_by_name(std::string_view name) {
    auto found =
        std::find_if(std::begin(FORMATS), std::end(FORMATS), [&](const line_format& f) { return name == f.name; });
    return found == std::end(FORMATS) ? nullptr : found;
}

std::string format_record(const line_format& format, const format_context& context) {
    const std::string place = time_place_text(context.times);
    return place.empty() ? format.name : format.name + (" " + place);
}

const line_format* format_by_record(std::string_view record, format_context* context) {
    const size_t blank = record.find(' ');
    const std::string_view place = blank == std::string_view::npos ? std::string_view() : record.substr(blank + 1);
    return time_place_from_text(place, &context->times) ? format_by_name(record.substr(0, blank)) : nullptr;
}

std::string format_names() {
    std::string names;
    for (const line_format& format : FORMATS) names.append(names.empty() ? "" : ", ").append(format.name);
    return names;
}

const line_format* detect_format(std::span<const std::string_view> first_lines, const format_context& context) {
    std::array<size_t, TEXT> counts{};
    for (size_t i = 0; i < TEXT; i++) counts[i] = count_lines_of(FORMATS[i], first_lines, context);
    size_t best = *std::max_element(counts.begin(), counts.end());
    auto records = static_cast<size_t>(std::count_if(first_lines.begin(), first_lines.end(), begins_record));
    if (best == 0 || best * 4 < records) return &FORMATS[TEXT];
    // A general format also has the lines of a special one, and now and then one more.
    auto special = std::find_if(counts.begin(), counts.end(), [&](size_t count) { return count * 4 >= best * 3; });
    return &FORMATS[special - counts.begin()];
}

bool begins_record(std::string_view line) {
    return !line.empty() && line != "\r" && line[0] != ' ' && line[0] != '\t';
}

}  // namespace veldar::tool
