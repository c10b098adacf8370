// The parts of URLs: the machine that one names, and the parameters of its query.
#include <algorithm>

#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

constexpr size_t PARAMETERS_MAX = 32;
constexpr size_t NAME_SIZE_MAX = 64;

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(c | 0x20);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Appends the text without its percent codes; what is none stays.
void append_decoded(std::string_view text, std::string* out) {
    for (size_t i = 0; i < text.size(); i++) {
        const bool code =
            text[i] == '%' && i + 2 < text.size() && hex_digit(text[i + 1]) >= 0 && hex_digit(text[i + 2]) >= 0;
        if (code) {
            out->push_back(static_cast<char>(hex_digit(text[i + 1]) << 4 | hex_digit(text[i + 2])));
            i += 2;
        } else {
            out->push_back(text[i] == '+' ? ' ' : text[i]);
        }
    }
}

bool is_name_byte(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("_.-[]").find(c) != std::string_view::npos;
}

// "PREFIX.NAME"; empty when the name is no sane one.
std::string_view parameter_name(parsed_line* out, std::string_view prefix, std::string_view name) {
    if (name.empty() || name.size() > 3 * NAME_SIZE_MAX) return {};
    std::string* const made = made_text(out);
    made->append(prefix).append(1, '.');
    append_decoded(name, made);
    const bool sane = made->size() <= prefix.size() + 1 + NAME_SIZE_MAX &&
                      std::all_of(made->begin() + static_cast<ptrdiff_t>(prefix.size()), made->end(), is_name_byte);
    return sane ? *made : std::string_view();
}

std::string_view decoded(parsed_line* out, std::string_view text) {
    if (find_either(text, '%', '+') == text.size()) return text;
    std::string* const made = made_text(out);
    append_decoded(text, made);
    return *made;
}

}  // namespace

void add_query(parsed_line* out, std::string_view prefix, std::string_view query) {
    for (size_t count = 0; !query.empty() && count < PARAMETERS_MAX; count++) {
        const size_t end = find_either(query, '&', ';');
        const std::string_view pair = query.substr(0, end);
        query.remove_prefix(std::min(end + 1, query.size()));
        const size_t equals = pair.find('=');
        if (equals == std::string_view::npos || equals + 1 == pair.size()) continue;
        const std::string_view name = parameter_name(out, prefix, pair.substr(0, equals));
        if (!name.empty()) add_field(out, name, decoded(out, pair.substr(equals + 1)));
    }
}

void add_url(parsed_line* out, std::string_view prefix, std::string_view url) {
    const size_t scheme = url.find("://");
    if (scheme == std::string_view::npos) return;
    url.remove_prefix(scheme + 3);
    url = url.substr(0, url.find('#'));
    const std::string_view host = url.substr(0, find_either(url, '/', '?'));
    add_field(out, made_text(out)->append(prefix).append(".host"), host.substr(0, host.find(':')));
    const size_t query = url.find('?');
    if (query == std::string_view::npos) return;
    add_query(out, made_text(out)->append(prefix).append(".query"), url.substr(query + 1));
}

}  // namespace veldar::tool
