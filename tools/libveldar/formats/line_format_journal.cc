// What systemd's journal and the container runtimes of Kubernetes write around the lines of programs.
//
//   __CURSOR=s=13f...                       journalctl -o export: one field a line, an empty line behind each record;
//   __REALTIME_TIMESTAMP=1423944916375353   a value with line breaks or odd bytes stands behind its name's line, its
//   MESSAGE\n<size: 8 bytes, LE><bytes>\n   size before it
//
//   2026-01-02T03:04:05.678901234Z stdout F text      F: a whole line, P: a piece of one
#include <algorithm>

#include "libzero/endian.h"
#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

constexpr size_t FIELDS_MAX = 512;
constexpr size_t NAME_SIZE_MAX = 64;  // the journal allows no longer ones
constexpr size_t SIZE_BYTES = 8;

bool is_journal_name(std::string_view name) {
    return !name.empty() && name.size() <= NAME_SIZE_MAX && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    });
}

// Takes one field from the front; false when none stands there.
bool take_journal_field(std::string_view* rest, field_view* field) {
    const size_t end = std::min(rest->find('\n'), rest->size());
    const std::string_view line = rest->substr(0, end);
    const size_t equals = line.find('=');
    field->name = line.substr(0, equals);
    if (!is_journal_name(field->name)) return false;
    rest->remove_prefix(std::min(end + 1, rest->size()));
    if (equals != std::string_view::npos) {
        field->value = line.substr(equals + 1);
        return true;
    }
    if (rest->size() < SIZE_BYTES) return false;
    const uint64_t size = load_le64(rest->data());
    rest->remove_prefix(SIZE_BYTES);
    field->value = rest->substr(0, size);  // a record that was cut short has less
    rest->remove_prefix(field->value.size());
    take_char(rest, '\n');
    return true;
}

}  // namespace

bool parse_journal_export(std::string_view record, format_context* context, parsed_line* out) {
    std::string_view rest = begin_parse(record, out);
    std::string_view message;
    for (field_view field; out->fields.size() < FIELDS_MAX && take_journal_field(&rest, &field);) {
        if (take_named_time(out, field.name, field.value, context)) continue;
        if (is_host_name(field.name)) set_host(out, field.value);
        if (field.name == "MESSAGE") message = field.value;
        if (field.name != "__CURSOR") add_field(out, field.name, field.value);
    }
    if (out->fields.empty() && !out->has_time) return parse_as_text(record, out);
    add_message(out, message, context);
    return true;
}

bool parse_cri(std::string_view line, format_context* context, parsed_line* out) {
    std::string_view rest = begin_parse(line, out);
    log_stamp stamp;
    const bool timed = rest.size() > 10 && rest[10] == 'T' && take_iso8601(&rest, &stamp) && take_char(&rest, ' ');
    const std::string_view stream = rest.substr(0, std::min(rest.find(' '), rest.size()));
    if (!timed || (stream != "stdout" && stream != "stderr")) return parse_as_text(line, out);
    rest.remove_prefix(stream.size());
    const bool tagged = take_char(&rest, ' ') && (rest.starts_with('F') || rest.starts_with('P'));
    const bool is_piece = tagged && rest[0] == 'P';
    if (!tagged || (rest.size() > 1 && rest[1] != ' ' && rest[1] != ':')) return parse_as_text(line, out);
    rest.remove_prefix(std::min(rest.find(' '), rest.size()));
    take_char(&rest, ' ');

    set_time(out, stamp, context);
    add_field(out, "stream", stream);
    if (is_piece) add_field(out, "partial", "true");
    add_message(out, rest, context);
    return true;
}

}  // namespace veldar::tool
