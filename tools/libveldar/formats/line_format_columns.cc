// Lines of columns that the head of the log names: CSV, W3C (IIS, CloudFront) and Zeek.
#include <algorithm>

#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

std::string_view cell_text(std::string_view cell, bool quoted, parsed_line* out) {
    if (!quoted) return cell;
    std::string* const text = made_text(out);
    for (size_t i = 0; i < cell.size(); i++) {
        text->push_back(cell[i]);
        if (cell[i] == '"') i++;
    }
    return *text;
}

bool is_empty(std::string_view cell) {
    return cell.empty() || cell == "-" || cell == "(empty)";
}

// Whether the cells are the names of the columns once more.
bool is_head(std::string_view line, const log_columns& columns) {
    while (line.starts_with('#')) line.remove_prefix(1);
    skip_blanks(&line);
    for (const std::string& name : columns.names) {
        std::string_view cell;
        bool quoted;
        if (!take_cell(&line, columns.separator, &cell, &quoted)) return false;
        skip_blanks(&cell);
        if (!cell.starts_with(name)) return false;
    }
    return true;
}

// The time of a date and a clock in columns of their own, or of one column.
bool set_column_time(parsed_line* out, std::string_view date, std::string_view time, bool is_utc,
                     format_context* context) {
    log_stamp stamp;
    if (!date.empty()) time = made_text(out)->append(date).append(1, ' ').append(time);
    if (time.empty() || !take_any_time(time, &stamp)) return false;
    stamp.has_offset = stamp.has_offset || is_utc;
    set_time(out, stamp, context);
    return out->has_time;
}

// The parts of URLs in the columns of web servers.
void add_web_fields(parsed_line* out, std::string_view name, std::string_view cell) {
    if (name == "cs-uri-query") add_query(out, "query", cell);
    if (name == "cs(Referer)") add_url(out, "referer", cell);
}

bool parse_columns(std::string_view record, bool is_utc, format_context* context, parsed_line* out) {
    std::string_view rest = begin_parse(record, out), cell, date, time, message;
    const log_columns& columns = context->columns;
    const bool own = context->time_field.empty();
    int index = 0;
    for (bool quoted;
         static_cast<size_t>(index) < columns.names.size() && take_cell(&rest, columns.separator, &cell, &quoted);
         index++) {
        skip_blanks(&cell);
        if (is_empty(cell)) continue;
        const std::string& name = columns.names[static_cast<size_t>(index)];
        cell = cell_text(cell, quoted, out);
        if (index == columns.date && own) {
            date = cell;
        } else if (index == columns.time && own) {
            time = cell;
        } else {
            add_field(out, name, cell);
            if (is_text_name(name)) message = cell;
            if (is_utc) add_web_fields(out, name, cell);
        }
    }
    if (index < 2) return parse_as_text(record, out);
    if (!set_column_time(out, date, time, is_utc, context)) {
        if (columns.time != NO_COLUMN) add_field(out, columns.names[static_cast<size_t>(columns.time)], time);
        if (context->times.known()) add_placed_time(record, context, out);
    }
    if (!message.empty()) add_message(out, message, context);
    return true;
}

// Lines that begin with "#" are no events; one of them names the columns.
bool parse_commented(std::string_view line, bool is_utc, format_context* context, parsed_line* out) {
    const std::string_view text = begin_parse(line, out);
    if (!text.empty() && text[0] != '#') return parse_columns(line, is_utc, context, out);
    log_columns_from_head(text, &context->columns);
    out->no_event = context->columns.known();
    return out->no_event;
}

}  // namespace

bool parse_csv(std::string_view record, format_context* context, parsed_line* out) {
    if (!context->columns.known()) return parse_as_text(record, out);
    if (is_head(begin_parse(record, out), context->columns)) {
        out->no_event = true;
        return true;
    }
    return parse_columns(record, false, context, out);
}

bool parse_zeek(std::string_view line, format_context* context, parsed_line* out) {
    return parse_commented(line, false, context, out);
}

// Its times are in UTC.
bool parse_w3c(std::string_view line, format_context* context, parsed_line* out) {
    return parse_commented(line, true, context, out);
}

}  // namespace veldar::tool
