// The access logs of web servers:
//
//   clientip ident user [17/May/2015:10:05:03 +0000] "GET /path?query HTTP/1.1" 200 203023 "referer" "useragent" ...
//
// The common format ends behind the bytes. A virtual host may stand in front of the client; `key=value` pairs may
// follow.
#include "tools/veldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

bool is_method(std::string_view word) {
    if (word.empty() || word.size() > 32) return false;
    for (char c : word) {
        if (!((c >= 'A' && c <= 'Z') || c == '-' || c == '_')) return false;
    }
    return true;
}

// Takes a text in quotes and the blanks behind it. A line that was cut inside the quotes gives what is left of them.
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
    if (path_end != std::string_view::npos) add_field(out, "query", target.substr(path_end + 1));
    add_field(out, "protocol", protocol);
}

}  // namespace

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
    if (take_quoted(&rest, &text)) add_dash_field(out, "referer", text);
    if (take_quoted(&rest, &text)) add_dash_field(out, "useragent", text);
    add_pairs(out, rest);
    return true;
}

}  // namespace veldar::tool
