// The access logs of web servers:
//
//   clientip ident user [17/May/2015:10:05:03 +0000] "GET /path?query HTTP/1.1" 200 203023 "referer" "useragent" ...
//
// The common format ends behind the bytes. A virtual host may stand in front of the client; `key=value` pairs may
// follow.
//
//   2016/01/02 03:04:05 [error] 12#0: *5 open() failed, client: 1.2.3.4, server: a.org, request: "GET / HTTP/1.1"
//
// is a line of nginx's error log.
#include <algorithm>

#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

constexpr std::string_view ERROR_LABELS[] = {"client",   "server", "request", "subrequest",
                                             "upstream", "host",   "login",   "referrer"};

bool is_method(std::string_view word) {
    if (word.empty() || word.size() > 32) return false;
    for (char c : word) {
        if (!((c >= 'A' && c <= 'Z') || c == '-' || c == '_')) return false;
    }
    return true;
}

// The labels of the error log, from the first one on: `, client: 1.2.3.4, server: a.org, request: "GET / HTTP/1.1"`.
void add_error_labels(parsed_line* out, std::string_view text) {
    while (!text.empty()) {
        const auto* label = std::find_if(std::begin(ERROR_LABELS), std::end(ERROR_LABELS), [&](std::string_view name) {
            return text.starts_with(name) && text.substr(name.size()).starts_with(": ");
        });
        if (label != std::end(ERROR_LABELS)) {
            std::string_view value, rest = text.substr(label->size() + 2);
            if (!take_quoted(&rest, &value)) value = rest.substr(0, rest.find(", "));
            add_field(out, *label == "host" ? "vhost" : *label, value);
            if (*label == "request") add_request(out, value);
            if (*label == "referrer") add_url(out, "referer", value);
        }
        const size_t next = text.find(", ");
        text.remove_prefix(next == std::string_view::npos ? text.size() : next + 2);
    }
}

}  // namespace

bool take_quoted(std::string_view* rest, std::string_view* out) {
    if (!take_char(rest, '"')) return false;
    size_t size = quoted_size(*rest, '"');
    *out = rest->substr(0, size);
    rest->remove_prefix(size < rest->size() ? size + 1 : rest->size());
    skip_blanks(rest);
    return true;
}

// "GET /path?query HTTP/1.1"; what is no request line (an attack, another protocol) stays in one piece.
void add_request(parsed_line* out, std::string_view request) {
    size_t method_end = request.find(' ');
    if (method_end == std::string_view::npos || !is_method(request.substr(0, method_end))) {
        add_dash_field(out, "request", request);
        return;
    }
    std::string_view target = request.substr(method_end + 1);
    std::string_view protocol;
    size_t target_end = target.rfind(' ');
    if (target_end != std::string_view::npos && target.substr(target_end + 1).starts_with("HTTP/")) {
        protocol = target.substr(target_end + 1);
        target = target.substr(0, target_end);
    }
    size_t path_end = target.find('?');
    add_field(out, "method", request.substr(0, method_end));
    add_field(out, "path", target.substr(0, path_end));
    if (path_end != std::string_view::npos) {
        add_field(out, "query", target.substr(path_end + 1));
        add_query(out, "query", target.substr(path_end + 1));
    }
    add_field(out, "uri", target);
    add_field(out, "protocol", protocol);
}

bool parse_access(std::string_view line, format_context* context, parsed_line* out) {
    std::string_view rest = begin_parse(line, out);
    std::string_view words[4];  // the fourth only with a virtual host
    size_t count = 0;
    while (count < 4 && !rest.starts_with('[')) words[count++] = take_word(&rest);
    log_stamp stamp;
    std::string_view request;
    bool timed = count >= 3 && take_char(&rest, '[') && take_clf_time(&rest, &stamp) && take_char(&rest, ']');
    if (!timed || !take_char(&rest, ' ') || !take_quoted(&rest, &request)) return parse_as_text(line, out);

    set_time(out, stamp, context);
    size_t client = count - 3;
    if (client == 1) add_dash_field(out, "vhost", words[0]);
    add_dash_field(out, "clientip", words[client]);
    add_dash_field(out, "ident", words[client + 1]);
    add_dash_field(out, "user", words[client + 2]);
    add_request(out, request);
    add_dash_field(out, "status", take_word(&rest));
    add_dash_field(out, "bytes", take_word(&rest));
    std::string_view text;
    if (take_quoted(&rest, &text)) {
        add_dash_field(out, "referer", text);
        add_url(out, "referer", text);
    }
    if (take_quoted(&rest, &text)) add_dash_field(out, "useragent", text);
    add_pairs(out, rest);
    return true;
}

bool parse_nginx_error(std::string_view line, format_context* context, parsed_line* out) {
    std::string_view rest = begin_parse(line, out);
    log_stamp stamp;
    const bool timed = rest.size() > 4 && rest[4] == '/' && take_iso8601(&rest, &stamp);
    if (!timed || !take_char(&rest, ' ') || !take_char(&rest, '[')) return parse_as_text(line, out);
    const std::string_view level = rest.substr(0, rest.find("] "));
    if (!is_level(level) || level.size() == rest.size()) return parse_as_text(line, out);
    rest.remove_prefix(level.size() + 2);
    const std::string_view ids = take_word(&rest);  // "12#0:"
    const size_t hash = ids.find('#');
    if (hash == std::string_view::npos || hash == 0 || !ids.ends_with(':')) return parse_as_text(line, out);

    set_time(out, stamp, context);
    add_field(out, "level", level);
    add_field(out, "pid", ids.substr(0, hash));
    add_field(out, "tid", ids.substr(hash + 1, ids.size() - hash - 2));
    if (take_char(&rest, '*')) add_field(out, "connection", take_word(&rest));
    add_pairs(out, rest.substr(0, rest.find(", client: ")));
    add_error_labels(out, rest);
    return true;
}

}  // namespace veldar::tool
