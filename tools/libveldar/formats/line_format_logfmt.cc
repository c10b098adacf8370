// Keys and values and nothing else: level=info msg="a \"b\" c" took=3ms ready
#include <algorithm>

#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

constexpr size_t FIELDS_MAX = 256;

// The quoted text at the front, without its escapes; moves `rest` behind it.
bool take_quoted_value(std::string_view* rest, parsed_line* out, std::string_view* value) {
    const size_t size = quoted_size(rest->substr(1), '"');
    if (size == std::string_view::npos) return false;
    *value = unescaped(rest->substr(1, size), out);
    rest->remove_prefix(size + 2);
    return rest->empty() || (*rest)[0] == ' ' || (*rest)[0] == '\t';
}

// A value without quotes goes on to the next blank.
std::string_view take_plain_value(std::string_view* rest) {
    const size_t size = find_either(*rest, ' ', '\t');
    const std::string_view value = rest->substr(0, size);
    rest->remove_prefix(size);
    return value;
}

// Takes "key=value", or a key alone, from the front.
bool take_field(std::string_view* rest, parsed_line* out, field_view* field) {
    const size_t size = key_size(*rest);
    if (size == 0) return false;
    *field = {rest->substr(0, size), {}};
    rest->remove_prefix(size);
    if (rest->empty() || (*rest)[0] == ' ' || (*rest)[0] == '\t') return true;
    if (!take_char(rest, '=')) return false;
    if (rest->starts_with('"')) return take_quoted_value(rest, out, &field->value);
    field->value = take_plain_value(rest);
    return field->value.find('"') == std::string_view::npos;
}

}  // namespace

std::string_view unescaped(std::string_view text, parsed_line* out) {
    if (text.find('\\') == std::string_view::npos) return text;
    std::string* const made = made_text(out);
    for (size_t i = 0; i < text.size(); i++) {
        constexpr std::string_view NAMES = "nrt", MEANT = "\n\r\t";
        if (text[i] != '\\' || i + 1 == text.size()) {
            made->push_back(text[i]);
            continue;
        }
        const size_t which = NAMES.find(text[++i]);
        made->push_back(which == std::string_view::npos ? text[i] : MEANT[which]);
    }
    return *made;
}

bool parse_logfmt(std::string_view line, format_context* context, parsed_line* out) {
    const std::string_view text = begin_parse(line, out);
    std::string_view rest = text, message;
    size_t pairs = 0, alone = 0;
    bool has_level = false;
    for (skip_blanks(&rest); !rest.empty(); skip_blanks(&rest)) {
        field_view field;
        if (!take_field(&rest, out, &field) || pairs + alone == FIELDS_MAX) return parse_as_text(line, out);
        (field.value.data() != nullptr ? pairs : alone)++;
        if (alone > pairs) return parse_as_text(line, out);
        if (take_named_time(out, field.name, field.value, context)) continue;
        add_field(out, field.name, field.value);
        has_level = has_level || (is_level(field.value) && field.name.size() <= sizeof "severity");
        if (message.empty() && is_text_name(field.name)) message = field.value;
    }
    // Kernels and routers write pairs too; what a program logs so has its time or its level by name.
    if (pairs < 2 || !(out->has_time || has_level)) return parse_as_text(line, out);
    if (!out->has_time && context->times.known()) add_placed_time(text, context, out);
    if (!message.empty()) add_message(out, message, context);
    return true;
}

}  // namespace veldar::tool
