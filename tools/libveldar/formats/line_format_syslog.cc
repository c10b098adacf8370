// The lines of syslog in three forms:
//
//   <34>Jun 14 15:16:01 host program[pid]: text                              RFC 3164; the priority and the host may
//   lack <34>1 2003-10-11T22:14:15.003Z host app procid msgid [id a="b"] text     RFC 5424
//   2025-06-14T15:16:01.123456+02:00 host program[pid]: text                 what rsyslog writes into files by now
#include <algorithm>

#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

constexpr int64_t DAY_S = 86400;

constexpr std::string_view FACILITIES[] = {"kern",   "user",   "mail",   "daemon", "auth",     "syslog",
                                           "lpr",    "news",   "uucp",   "cron",   "authpriv", "ftp",
                                           "ntp",    "audit",  "alert",  "clock",  "local0",   "local1",
                                           "local2", "local3", "local4", "local5", "local6",   "local7"};
constexpr std::string_view SEVERITIES[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};

// "<34>" with its three fields.
bool take_priority(std::string_view* rest, parsed_line* out) {
    size_t end = rest->substr(0, 5).find('>');
    if (!take_char(rest, '<') || end == std::string_view::npos || end < 2) return false;
    std::string_view digits = rest->substr(0, end - 1);
    int64_t priority = 0;
    if (!take_digits(rest, digits.size(), &priority) || !take_char(rest, '>')) return false;
    if (static_cast<size_t>(priority / 8) >= std::size(FACILITIES)) return false;
    add_field(out, "priority", digits);
    add_field(out, "facility", FACILITIES[priority / 8]);
    add_field(out, "severity", SEVERITIES[priority % 8]);
    return true;
}

// "program[pid]: ", also "program(module)[pid]: "; nothing is taken when the text does not begin with a whole tag.
bool take_program(std::string_view* rest, parsed_line* out) {
    std::string_view left = *rest;
    std::string_view program = left.substr(0, left.find_first_of(" :[("));
    left.remove_prefix(program.size());
    std::string_view pid;
    if (left.starts_with('(')) left.remove_prefix(std::min(left.find(')'), left.size() - 1) + 1);
    if (take_char(&left, '[')) {
        pid = left.substr(0, find_either(left, ']', ' '));
        left.remove_prefix(pid.size());
        if (!take_char(&left, ']')) return false;
    }
    if (program.empty() || !take_char(&left, ':')) return false;
    add_field(out, "program", program);
    add_field(out, "pid", pid);
    *rest = left;
    return true;
}

// The year that some write behind the time: "Jun 14 15:16:01 2025 host ...".
bool take_year_behind(std::string_view* rest, const yearless_stamp& stamp, log_stamp* out) {
    std::string_view left = *rest;
    int64_t year = 0, days = 0;
    const bool taken = take_char(&left, ' ') && take_digits(&left, 4, &year) && left.starts_with(' ');
    if (!taken || year < 1970 || !days_from_date(year, stamp.month, stamp.day, &days)) return false;
    out->local_s = days * DAY_S + stamp.second_of_day;
    out->nanoseconds = stamp.nanoseconds;
    *rest = left;
    return true;
}

// The elements of structured data, `[id name="value" ...]` one behind the other or "-"; each value is a field.
bool take_structured_data(std::string_view* rest, parsed_line* out) {
    if (take_char(rest, '-')) return true;
    if (!rest->starts_with('[')) return false;
    while (take_char(rest, '[')) {
        rest->remove_prefix(find_either(*rest, ' ', ']'));
        while (take_char(rest, ' ')) {
            std::string_view name = rest->substr(0, rest->find_first_of("= ]\""));
            rest->remove_prefix(name.size());
            if (!take_char(rest, '=') || !take_char(rest, '"')) return false;
            size_t size = quoted_size(*rest, '"');
            if (size == std::string_view::npos) return false;
            if (!name.empty()) add_field(out, name, rest->substr(0, size));
            rest->remove_prefix(size + 1);
        }
        if (!take_char(rest, ']')) return false;
    }
    return true;
}

}  // namespace

bool parse_syslog(std::string_view line, format_context* context, parsed_line* out) {
    std::string_view rest = begin_parse(line, out);
    yearless_stamp stamp;
    bool prioritised = rest.starts_with('<');
    if (prioritised && !take_priority(&rest, out)) return parse_as_text(line, out);
    if (!take_month_day(&rest, &stamp) || !(rest.empty() || rest[0] == ' ')) return parse_as_text(line, out);

    log_stamp whole;
    if (take_year_behind(&rest, stamp, &whole))
        set_time(out, whole, context);
    else
        set_yearless_time(out, stamp, context);
    skip_blanks(&rest);
    if (!take_program(&rest, out)) {
        set_host(out, take_word(&rest));
        add_field(out, "host", out->host);
        static_cast<void>(take_program(&rest, out));
    }
    skip_blanks(&rest);
    add_message(out, rest, context);
    return true;
}

bool parse_syslog_5424(std::string_view line, format_context* context, parsed_line* out) {
    std::string_view rest = begin_parse(line, out);
    log_stamp stamp;
    if (!take_priority(&rest, out) || !take_char(&rest, '1') || !take_char(&rest, ' ')) return parse_as_text(line, out);
    bool timed = !rest.starts_with("- ");
    if (timed && !take_iso8601(&rest, &stamp)) return parse_as_text(line, out);
    if (!timed) rest.remove_prefix(1);
    if (!take_char(&rest, ' ')) return parse_as_text(line, out);

    if (timed) set_time(out, stamp, context);
    if (const std::string_view host = take_word(&rest); host != "-") set_host(out, host);
    add_field(out, "host", out->host);
    for (std::string_view name : {"app", "procid", "msgid"}) add_dash_field(out, name, take_word(&rest));
    std::string_view text = rest;
    if (take_structured_data(&rest, out)) text = rest;
    add_message(out, text, context);
    return true;
}

bool parse_syslog_iso(std::string_view line, format_context* context, parsed_line* out) {
    std::string_view rest = begin_parse(line, out);
    log_stamp stamp;
    bool timed = rest.size() > 10 && rest[10] == 'T' && take_iso8601(&rest, &stamp) && stamp.has_offset;
    if (!timed || !take_char(&rest, ' ')) return parse_as_text(line, out);
    std::string_view host = take_word(&rest);
    set_host(out, host);
    add_field(out, "host", host);
    if (is_level(host) || !take_program(&rest, out)) return parse_as_text(line, out);

    set_time(out, stamp, context);
    skip_blanks(&rest);
    add_message(out, rest, context);
    return true;
}

}  // namespace veldar::tool
