// Formats that are known by the time at the front of the line; what follows is the application's own.
#include <algorithm>

#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

constexpr std::string_view LEVELS[] = {
    "INFO",    "WARN",     "ERROR", "DEBUG", "TRACE", "WARNING", "FATAL", "NOTICE", "CRIT",   "SEVERE",
    "ALERT",   "CRITICAL", "EMERG", "ERR",   "FINE",  "FINER",   "PANIC", "FINEST", "CONFIG", "INFORMATION",
    "VERBOSE", "INF",      "WRN",   "DBG",   "TRC",   "FTL",     "VRB",   "DBUG",   "PNC"};
// Levels of databases, and their words for what belongs to a message before; two blanks follow the colon.
constexpr std::string_view LABELS[] = {"LOG:  ", "DETAIL:  ", "HINT:  ", "STATEMENT:  ", "CONTEXT:  "};
constexpr size_t HEAD_SIZE = 128;  // where a level is looked for
constexpr int HEAD_WORDS = 8;

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool is_upper(std::string_view word) {
    return std::all_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}
bool is_one_of(char c, std::string_view set) {
    return set.find(c) != std::string_view::npos;
}

// Whether a word of letters at [start, end) of the head says the level: in capitals as a word of its own; in small
// letters only where it is plainly a label, as in "[error]" or a leading "error:".
bool says_level(std::string_view head, size_t start, size_t end, int words_before) {
    std::string_view word = head.substr(start, end - start);
    const auto begins = [&](std::string_view label) { return head.substr(start).starts_with(label); };
    if (start > 0 && head[start - 1] == ' ' && std::any_of(std::begin(LABELS), std::end(LABELS), begins)) return true;
    if (!is_level(word)) return false;
    char before = start == 0 ? ' ' : head[start - 1];
    char after = end == head.size() ? ' ' : head[end];
    if (is_upper(word)) return is_one_of(before, " \t[<(|:.-") && is_one_of(after, " \t]>)|:,-");
    bool enclosed = is_one_of(before, "[<(|") && is_one_of(after, "]>)|");
    return enclosed || (words_before <= 1 && after == ':' && is_one_of(before, " \t."));
}

// The level near the front of the text; `rest` moves behind it and its bracket.
bool take_level(std::string_view* rest, parsed_line* out) {
    std::string_view head = rest->substr(0, HEAD_SIZE);
    size_t start = 0;
    for (int words = 0; words < HEAD_WORDS; words++) {
        while (start < head.size() && !is_letter(head[start])) start++;
        size_t end = start;
        while (end < head.size() && is_letter(head[end])) end++;
        if (end == start) return false;
        if (says_level(head, start, end, words)) {
            add_field(out, "level", head.substr(start, end - start));
            rest->remove_prefix(end);
            if (!rest->empty() && is_one_of((*rest)[0], "]>)|:")) rest->remove_prefix(1);
            skip_blanks(rest);
            return true;
        }
        start = end;
    }
    return false;
}

// A qualified class name in the manner of Java: parts with dots between, the last with a capital at its front.
bool is_class_name(std::string_view word) {
    size_t dot = word.rfind('.');
    if (dot == std::string_view::npos || dot + 1 == word.size() || !is_letter(word[0])) return false;
    if (word[dot + 1] < 'A' || word[dot + 1] > 'Z') return false;
    return std::all_of(word.begin(), word.end(),
                       [](char c) { return is_letter(c) || (c >= '0' && c <= '9') || is_one_of(c, "._$"); });
}

// "thread:Class@line", as some loggers label their lines.
bool add_thread_and_class(std::string_view label, parsed_line* out) {
    size_t at = label.rfind('@'), colon = label.rfind(':');
    if (at == std::string_view::npos || colon == std::string_view::npos || colon > at) return false;
    std::string_view line = label.substr(at + 1);
    int64_t number = 0;
    if (line.empty() || line.size() > 9 || !take_digits(&line, line.size(), &number)) return false;
    add_field(out, "thread", label.substr(0, colon));
    add_field(out, "class", label.substr(colon + 1, at - colon - 1));
    return true;
}

// What stands between level and message where it is certain: "[thread] org.example.Class: ".
void add_origin(std::string_view rest, parsed_line* out) {
    if (take_char(&rest, '[')) {
        size_t end = rest.substr(0, HEAD_SIZE).find("] ");
        if (end == std::string_view::npos) return;
        std::string_view label = rest.substr(0, end);
        rest.remove_prefix(end + 2);
        if (add_thread_and_class(label, out)) return;
        add_field(out, "thread", label);
    }
    std::string_view word = take_word(&rest);
    if (word.ends_with(':') && is_class_name(word.substr(0, word.size() - 1))) {
        add_field(out, "class", word.substr(0, word.size() - 1));
    }
}

bool parse_stamped(std::string_view line, bool (*take_stamp)(std::string_view*, log_stamp*), format_context* context,
                   parsed_line* out) {
    std::string_view rest = begin_parse(line, out);
    bool bracket = take_char(&rest, '[');
    log_stamp stamp;
    if (!take_stamp(&rest, &stamp) || (bracket && !take_char(&rest, ']'))) return parse_as_text(line, out);
    set_time(out, stamp, context);
    std::string_view text = rest;
    if (take_level(&rest, out)) add_origin(rest, out);
    add_text(out, text, context);
    return true;
}

// "[client 72.15.99.187:56789]": the address without its port, except for IPv6, where the port cannot be told apart.
std::string_view without_port(std::string_view client) {
    size_t colon = client.find(':');
    return colon == client.rfind(':') ? client.substr(0, colon) : client;
}

// The text of one bracket behind the time.
void add_apache_label(parsed_line* out, std::string_view label) {
    std::string_view value = label;
    std::string_view word = take_word(&value);
    size_t colon = label.find(':');
    if (word == "client" || word == "remote") {
        add_field(out, "client", without_port(value));
    } else if (word == "pid") {
        size_t tid = value.find(":tid ");
        add_field(out, "pid", value.substr(0, tid));
        if (tid != std::string_view::npos) add_field(out, "tid", value.substr(tid + 5));
    } else if (colon == std::string_view::npos && is_level(label)) {
        add_field(out, "level", label);
    } else if (colon != std::string_view::npos && is_level(label.substr(colon + 1))) {
        add_dash_field(out, "module", label.substr(0, colon));
        add_field(out, "level", label.substr(colon + 1));
    }
}

}  // namespace

bool is_level(std::string_view word) {
    if (word.size() < 3 || word.size() > 11) return false;
    char upper[11];
    std::transform(word.begin(), word.end(), upper,
                   [](char c) { return is_letter(c) ? static_cast<char>(c & ~0x20) : c; });
    std::string_view name(upper, word.size());
    // "trace3" and its like are levels of the web server's.
    if (name.size() == 6 && name.starts_with("TRACE") && name[5] >= '1' && name[5] <= '8') return true;
    return std::find(std::begin(LEVELS), std::end(LEVELS), name) != std::end(LEVELS);
}

void add_placed_time(std::string_view text, format_context* context, parsed_line* out) {
    shape_time time;
    std::string_view where;
    const bool placed = context->times.known() && time_place_take(context->times, text, &time, &where);
    if (!placed && !time_place_take_any({}, text, &time, &where)) return;
    out->elsewhere = !placed;
    set_shape_time(out, time, context);
    std::string_view before = text.substr(0, static_cast<size_t>(where.data() - text.data()));
    std::string_view behind = text.substr(before.size() + where.size());
    if (!time.level.empty()) return add_field(out, "level", time.level);
    if (!take_level(&before, out) && take_level(&behind, out)) add_origin(behind, out);
}

bool parse_iso8601(std::string_view line, format_context* context, parsed_line* out) {
    return parse_stamped(line, take_iso8601, context, out);
}

bool parse_yymmdd(std::string_view line, format_context* context, parsed_line* out) {
    return parse_stamped(line, take_yymmdd, context, out);
}

bool parse_epoch(std::string_view line, format_context* context, parsed_line* out) {
    return parse_stamped(line, take_epoch, context, out);
}

bool parse_apache_error(std::string_view line, format_context* context, parsed_line* out) {
    std::string_view rest = begin_parse(line, out);
    log_stamp stamp;
    if (!take_char(&rest, '[') || !take_ctime(&rest, &stamp) || !take_char(&rest, ']')) return parse_as_text(line, out);
    set_time(out, stamp, context);
    skip_blanks(&rest);
    for (int labels = 0; labels < 4 && rest.starts_with('['); labels++) {
        size_t end = rest.find(']');
        if (end == std::string_view::npos) break;
        add_apache_label(out, rest.substr(1, end - 1));
        rest.remove_prefix(end + 1);
        skip_blanks(&rest);
    }
    add_pairs(out, rest);
    return true;
}

}  // namespace veldar::tool
