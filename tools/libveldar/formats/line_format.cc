#include "tools/libveldar/formats/line_format.h"

#include <algorithm>
#include <array>

#include "tools/libveldar/formats/line_format_internal.h"
#include "tools/libveldar/formats/user_formats.h"

namespace veldar::tool {
namespace {

// The more specific before the more general: detect_format relies on it.
constexpr line_format FORMATS[] = {
    {"json", "JSON objects, one a line or over several; their members are fields", parse_json, true, true,
     record_rule::objects},
    {"journal-export", "journalctl -o export: lines NAME=value, an empty line between records", parse_journal_export,
     false, true, record_rule::journal},
    {"csv", "a table with a line of names at its head; separated by commas, semicolons, tabs or bars", parse_csv, false,
     true, record_rule::quotes, true},
    {"w3c", "a table with a line \"#Fields: ...\" (IIS, CloudFront)", parse_w3c, false, false, record_rule::lines,
     true},
    {"zeek", "a table with a line \"#fields ...\" (Zeek)", parse_zeek, false, false, record_rule::lines, true},
    {"cri", "2026-01-02T03:04:05.6Z stdout F ... (containers of Kubernetes)", parse_cri, false, false,
     record_rule::lines},
    {"access", "combined or common access log of a web server", parse_access, false, false, record_rule::lines},
    {"nginx-error", "2026/01/02 03:04:05 [error] 12#0: *5 ..., client: ...", parse_nginx_error},
    {"apache-error", "[Sun Dec 04 04:47:44 2005] [error] ...", parse_apache_error},
    {"syslog-5424", "<34>1 2003-10-11T22:14:15.003Z host app ... (RFC 5424)", parse_syslog_5424},
    {"syslog", "Jun 14 15:16:01 host program[pid]: ... (RFC 3164)", parse_syslog},
    {"syslog-iso", "2025-06-14T15:16:01.123456+02:00 host program[pid]: ...", parse_syslog_iso},
    {"iso8601", "lines that begin with 2015-10-18 18:01:47,978 or the like (ISO 8601, RFC 3339)", parse_iso8601},
    {"yymmdd", "lines that begin with 081109 203615", parse_yymmdd},
    {"epoch", "lines that begin with seconds (or milliseconds) since 1970", parse_epoch},
    {"logfmt", "level=info msg=\"all is well\" ...", parse_logfmt, false, false, record_rule::times, true},
    {"text", "anything else: lines that say their time anywhere in their first 200 bytes, or not at all", parse_text,
     false, false, record_rule::times, true},
};
constexpr size_t TEXT = std::size(FORMATS) - 1;

// Whether a format has a line: its parse says so. The text format has every line, so it is never asked.
size_t count_lines_of(const line_format& format, std::span<const std::string_view> lines, format_context context) {
    parsed_line scratch;
    scratch.form_only = true;
    size_t count = 0;
    for (std::string_view line : lines) {
        if (begins_record(line) && format.parse(line, &context, &scratch)) count++;
    }
    return count;
}

}  // namespace

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
    if (!name.empty() && !value.empty()) out->fields.push_back({name, value});
}

void add_dash_field(parsed_line* out, std::string_view name, std::string_view value) {
    if (value != "-") add_field(out, name, value);
}

std::string_view begin_parse(std::string_view line, parsed_line* out) {
    out->has_time = out->elsewhere = false;
    out->fields.clear();
    out->host = {};
    out->no_event = false;
    out->made_used = 0;
    out->inner_used = false;
    if (line.ends_with('\r')) line.remove_suffix(1);
    skip_utf8_mark(&line);
    return line;
}

bool parse_as_text(std::string_view line, parsed_line* out) {
    const std::string_view text = begin_parse(line, out);
    if (!out->form_only) add_pairs(out, text);
    return false;
}

std::string* made_text(parsed_line* out) {
    if (out->made_used == out->made.size()) out->made.emplace_back();
    std::string* const text = &out->made[out->made_used++];
    text->clear();
    return text;
}

void set_host(parsed_line* out, std::string_view host) {
    constexpr size_t HOST_MAX = 255;  // no name of a machine is longer
    if (out->host.empty() && host.size() <= HOST_MAX) out->host = host;
}

bool parse_text(std::string_view line, format_context* context, parsed_line* out) {
    const std::string_view text = begin_parse(line, out);
    add_placed_time(text, context, out);
    add_text(out, text, context);
    return true;
}

bool parse_log_line(const line_format& format, std::string_view line, format_context* context, parsed_line* out) {
    const bool formed =
        format.user != nullptr ? user_format_parse(*format.user, line, out) : format.parse(line, context, out);
    if (!context->time_field.empty()) {
        set_field_time(out, context);
        if (format.user != nullptr) {
            std::erase_if(out->fields, [&](const field_view& field) { return field.name == context->time_field; });
        }
        return formed;
    }
    const bool asked = formed && (format.is_json || format.parse == parse_text);
    if (!out->has_time && !asked && !out->no_event) add_placed_time(line, context, out);
    return formed && !out->elsewhere;
}

void parse_continued_line(std::string_view line, parsed_line* out) {
    parse_as_text(line, out);
}

std::span<const line_format> line_formats() {
    return FORMATS;
}

const line_format* format_by_name(std::string_view name) {
    auto found =
        std::find_if(std::begin(FORMATS), std::end(FORMATS), [&](const line_format& f) { return name == f.name; });
    if (found != std::end(FORMATS)) return found;
    const std::span<const line_format> own = user_formats();
    const auto user = std::find_if(own.begin(), own.end(), [&](const line_format& f) { return name == f.name; });
    return user == own.end() ? nullptr : &*user;
}

record_rule record_rule_of(const line_format& format, const format_context& context) {
    // Where a field stands in a line only its format knows.
    const bool by_field = format.records == record_rule::times && !context.time_field.empty();
    return by_field ? record_rule::lines : format.records;
}

std::string format_record(const line_format& format, const format_context& context) {
    const std::string field = context.time_field.empty() ? "" : "=" + context.time_field + "\t";
    const std::string place = field + time_place_text(context.times), columns = log_columns_text(context.columns);
    return format.name + (place.empty() ? "" : " " + place) + (columns.empty() ? "" : "\n" + columns);
}

const line_format* format_by_record(std::string_view record, format_context* context) {
    const size_t line_end = record.find('\n');
    if (line_end != std::string_view::npos) {
        if (!log_columns_from_text(record.substr(line_end + 1), &context->columns)) return nullptr;
        record = record.substr(0, line_end);
    }
    const size_t blank = record.find(' ');
    std::string_view place = blank == std::string_view::npos ? std::string_view() : record.substr(blank + 1);
    if (const size_t tab = place.find('\t'); place.starts_with('=') && tab != std::string_view::npos) {
        context->time_field = place.substr(1, tab - 1);
        place.remove_prefix(tab + 1);
    }
    if (!time_place_from_text(place, &context->times)) return nullptr;
    const line_format* const format = format_by_name(record.substr(0, blank));
    if (format != nullptr || record.empty()) return format;
    if (!context->time_field.empty()) context->times.words = TIME_HEAD;
    context->time_field.clear();
    return &FORMATS[TEXT];
}

std::string format_names() {
    std::string names;
    for (const line_format& format : FORMATS) names.append(names.empty() ? "" : ", ").append(format.name);
    return names;
}

// The format of the user's that most of the lines have, at least a quarter of those that begin a record; else null.
static const line_format* detect_user_format(std::span<const std::string_view> first_lines, size_t records) {
    const line_format* best = nullptr;
    size_t most = 0;
    parsed_line scratch;
    scratch.form_only = true;
    for (const line_format& format : user_formats()) {
        const auto count =
            static_cast<size_t>(std::count_if(first_lines.begin(), first_lines.end(), [&](std::string_view line) {
                return begins_record(line) && user_format_parse(*format.user, line, &scratch);
            }));
        if (count <= most || count * 4 < records) continue;
        most = count;
        best = &format;
    }
    return best;
}

const line_format* detect_format(std::span<const std::string_view> first_lines, const format_context& context) {
    std::array<size_t, TEXT> counts{};
    // Lines NAME=value alone are anybody's.
    const bool journal = std::any_of(first_lines.begin(), first_lines.end(),
                                     [](std::string_view line) { return line.starts_with("__REALTIME_TIMESTAMP="); });
    for (size_t i = 0; i < TEXT; i++) {
        if (FORMATS[i].records == record_rule::journal && !journal) continue;
        counts[i] = count_lines_of(FORMATS[i], first_lines, context);
    }
    size_t best = *std::max_element(counts.begin(), counts.end());
    auto records = static_cast<size_t>(std::count_if(first_lines.begin(), first_lines.end(), begins_record));
    if (const line_format* const user = detect_user_format(first_lines, records)) return user;
    if (!first_lines.empty() && first_lines[0].starts_with("__CURSOR=")) return format_by_name("journal-export");
    if (best == 0 || best * 4 < records) return &FORMATS[TEXT];
    // A general format also has the lines of a special one, and now and then one more.
    auto special = std::find_if(counts.begin(), counts.end(), [&](size_t count) { return count * 4 >= best * 3; });
    return &FORMATS[special - counts.begin()];
}

const line_format* detect_columns(std::span<const std::string_view> first_lines, const line_format* wanted,
                                  format_context* context) {
    const bool can_be =
        wanted == nullptr || wanted->records == record_rule::lines || wanted->records == record_rule::quotes;
    if (!can_be) return nullptr;
    const char* const name = log_columns_find(first_lines, wanted == nullptr ? "" : wanted->name, &context->columns);
    if (name == nullptr) context->columns = {};
    return name == nullptr ? nullptr : format_by_name(name);
}

std::string_view parsed_part(const line_format& format, std::string_view record) {
    return format.whole_record ? record : record.substr(0, record.find('\n'));
}

bool begins_record(std::string_view line) {
    return !line.empty() && line != "\r" && line[0] != ' ' && line[0] != '\t';
}

}  // namespace veldar::tool
