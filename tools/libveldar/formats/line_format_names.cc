// Names of fields that mean the same in every format that names its fields, and lines inside of lines.
#include <strings.h>

#include <algorithm>
#include <span>
#include <tuple>

#include "tools/libveldar/formats/line_format_internal.h"
#include "tools/libveldar/formats/month_name.h"

namespace veldar::tool {
namespace {

constexpr std::string_view TIME_NAMES[] = {"@timestamp",
                                           "timestamp",
                                           "time",
                                           "ts",
                                           "datetime",
                                           "date",
                                           "@t",
                                           "eventTime",
                                           "t",
                                           "asctime",
                                           "timeUnixNano",
                                           "t.$date",
                                           "timestamp.$date",
                                           "_time",
                                           "__REALTIME_TIMESTAMP",
                                           "observedTimeUnixNano"};
constexpr std::string_view TEXT_NAMES[] = {
    "message", "msg", "log", "short_message", "full_message", "event.original", "body.stringValue"};
constexpr std::string_view HOST_NAMES[] = {"hostname",  "host",          "_HOSTNAME",
                                           "host.name", "host.hostname", "resource.attributes.host.name"};
constexpr int DEPTH_MAX = 3;  // lines inside lines inside lines

bool is_named(std::string_view name, std::span<const std::string_view> names) {
    return std::any_of(names.begin(), names.end(), [&](std::string_view other) {
        return name.size() == other.size() && strncasecmp(name.data(), other.data(), name.size()) == 0;
    });
}

// What lines inside of lines are tried for. None of them has a line of plain words.
constexpr decltype(&parse_json) INNER[] = {parse_json,         parse_cri,         parse_nginx_error, parse_access,
                                           parse_apache_error, parse_syslog_5424, parse_syslog,      parse_syslog_iso,
                                           parse_iso8601,      parse_yymmdd,      parse_epoch,       parse_logfmt};

// Whether one of them may have the text: most messages are words.
bool may_be_line(std::string_view text) {
    if (text.empty()) return false;
    const bool letter = ((text[0] | 0x20) >= 'a' && (text[0] | 0x20) <= 'z') || text[0] == '_';
    if (!letter) return std::string_view("{[<0123456789:").find(text[0]) != std::string_view::npos;
    std::string_view rest = text;
    unsigned month = 0;
    const size_t key = key_size(text);
    if ((key > 0 && key < text.size() && text[key] == '=') || take_month(&rest, &month)) return true;
    constexpr size_t CLIENT_AND_TIME = 200;  // what stands before the request of an access log that begins with a name
    return text.substr(0, CLIENT_AND_TIME).find("] \"") != std::string_view::npos;
}

// Adds the fields of the line inside; false when no format has it.
bool add_inner(parsed_line* out, std::string_view text, format_context* context) {
    if (out->depth == DEPTH_MAX || out->inner_used || !may_be_line(text)) return false;
    if (out->inner == nullptr) {
        out->inner = std::make_unique<parsed_line>();
        out->inner->form_only = true;
        out->inner->depth = out->depth + 1;
    }
    parsed_line* const inner = out->inner.get();
    const auto before = std::tuple(context->last_local_s, context->last_s, context->unclear_zones, context->zone_taken);
    out->inner_used =
        std::any_of(std::begin(INNER), std::end(INNER), [&](auto* parse) { return parse(text, context, inner); });
    if (!out->inner_used) return false;
    if (!out->has_time && inner->has_time) {
        out->has_time = true;
        out->time = inner->time;
    } else {  // a time that is not taken says nothing of those behind it
        std::tie(context->last_local_s, context->last_s, context->unclear_zones, context->zone_taken) = before;
    }
    set_host(out, inner->host);
    out->fields.insert(out->fields.end(), inner->fields.begin(), inner->fields.end());
    return true;
}

}  // namespace

bool is_time_name(std::string_view name) {
    return is_named(name, TIME_NAMES);
}
bool is_text_name(std::string_view name) {
    return is_named(name, TEXT_NAMES);
}
bool is_host_name(std::string_view name) {
    return is_named(name, HOST_NAMES);
}

bool take_any_time(std::string_view text, log_stamp* out) {
    for (auto* take : {take_iso8601, take_epoch, take_clf_time}) {
        std::string_view rest = text;
        *out = {};
        if (take(&rest, out)) return true;
    }
    shape_time time;
    const bool taken = time_place_take_whole(text, &time);
    *out = time.stamp;
    return taken;
}

bool take_named_time(parsed_line* out, std::string_view name, std::string_view text, format_context* context) {
    log_stamp stamp;
    if (out->has_time || !context->time_field.empty() || !is_time_name(name) || !take_any_time(text, &stamp))
        return false;
    set_time(out, stamp, context);
    return out->has_time;
}

void add_message(parsed_line* out, std::string_view text, format_context* context) {
    if (!add_inner(out, text, context)) add_pairs(out, text);
}

void add_text(parsed_line* out, std::string_view text, format_context* context) {
    const size_t object = text.ends_with('}') ? text.find("{\"") : std::string_view::npos;
    const bool taken = object != std::string_view::npos && add_inner(out, text.substr(object), context);
    add_pairs(out, taken ? text.substr(0, object) : text);
}

}  // namespace veldar::tool
