#include "tools/veldar/output/event_output.h"

#include <algorithm>
#include <array>
#include <utility>

#include "tools/libveldar/formats/terms.h"
#include "tools/libveldar/query/stats_input.h"
#include "tools/veldar/output/zone_time.h"

namespace veldar::tool {

namespace {

constexpr size_t WIDEST_COLUMN = 24;

size_t column_width(size_t longest) {
    return std::clamp<size_t>(longest, 4, WIDEST_COLUMN);
}

// Of a path only the end tells logs apart.
std::string fitted(std::string_view text, size_t width) {
    if (text.size() <= width) return std::string(text) + std::string(width - text.size(), ' ');
    return "~" + std::string(text.substr(text.size() - (width - 1)));
}

std::string_view first_line(std::string_view text) {
    return text.substr(0, text.find_first_of("\r\n"));
}

void put_text(event_output* output, std::string_view text) {
    if (output->out->colour) {
        std::string marked;
        highlight_put(output->wanted, text, output->out->terminal, &marked);
        output_put_commands(output->out, marked);
    } else {
        output_put(output->out, text);
    }
}

void put_raw(event_output* output, const event_record& event) {
    if (!event.has_raw) return;
    put_text(output, event.raw);
    output_put(output->out, "\n");
}

std::string time_of(const event_output& output, const event_record& event) {
    return event_time_text(event.time, event.nanoseconds, output.out->zone);
}

void put_addr(event_output* output, const event_record& event) {
    output_put(output->out, time_of(*output, event));
    output_put(output->out, "\t" + std::to_string(event.address) + "\t");
    output_put(output->out, event.directory);
    output_put(output->out, "\n");
}

const std::vector<std::string> USUAL = {"time", "host", "source", "sourcetype", "directory", "address", "raw"};

// A column that every event has; false for a field.
bool usual_column(const event_output& output, const event_record& event, const std::string& name, std::string* text) {
    const auto number = std::find(USUAL.begin(), USUAL.end(), name) - USUAL.begin();
    switch (number) {
        case 0:
            *text = time_of(output, event);
            return true;
        case 1:
            *text = event.host;
            return true;
        case 2:
            *text = event.source;
            return true;
        case 3:
            *text = event.sourcetype;
            return true;
        case 4:
            *text = event.directory;
            return true;
        case 5:
            *text = std::to_string(event.address);
            return true;
        case 6:
            *text = event.raw;
            return true;
        default:
            return false;
    }
}

bool is_usual(const std::string& name) {
    return std::find(USUAL.begin(), USUAL.end(), name) != USUAL.end();
}

bool wants_fields(const event_output& output) {
    return output.all_fields || !std::all_of(output.columns.begin(), output.columns.end(), is_usual);
}

const std::vector<std::string>* values_of(const event_fields& fields, const std::string& name) {
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const auto& one) { return one.first == name; });
    return found == fields.end() ? nullptr : &found->second;
}

void put_table(event_output* output, const event_record& event) {
    text_output* const out = output->out;
    const bool aligned = out->terminal;
    const std::string_view gap = aligned ? "  " : "\t";
    output_put(out, time_of(*output, event));
    output_put(out, gap);
    output_put(out, aligned ? fitted(event.host, output->host_width) : event.host);
    output_put(out, gap);
    output_put(out, aligned ? fitted(event.source, output->source_width) : event.source);
    output_put(out, gap);
    put_text(output, first_line(event.raw));
    output_put(out, "\n");
}

void json_put_name(std::string* out, std::string_view name) {
    if (out->back() != '{') out->push_back(',');
    json_put_string(out, name);
    out->push_back(':');
}

void json_put_values(std::string* out, const std::string& name, const std::vector<std::string>& values) {
    json_put_name(out, name);
    if (values.size() > 1) out->push_back('[');
    for (size_t i = 0; i < values.size(); i++) {
        if (i > 0) out->push_back(',');
        json_put_string(out, values[i]);
    }
    if (values.size() > 1) out->push_back(']');
}

// `more` is what comes first in the object.
void put_jsonl(const event_output& output, const event_record& event, const std::string& more, std::string* out) {
    out->append("{").append(more);
    std::string text;
    for (const std::string& column : output.columns) {
        if (usual_column(output, event, column, &text)) {
            if (column == "raw" && !output.has_raw) continue;
            json_put_name(out, column);
            column == "address" ? static_cast<void>(out->append(text)) : json_put_string(out, text);
        } else if (const auto* const values = values_of(event.fields, column); values != nullptr) {
            json_put_values(out, column, *values);
        }
    }
    for (size_t i = 0; output.all_fields && i < event.fields.size(); i++) {
        json_put_values(out, event.fields[i].first, event.fields[i].second);
    }
    out->append("}\n");
}

void separated_put(event_output* output, size_t column, std::string_view text) {
    const bool csv = output->format == FORMAT_CSV;
    std::string* const out = &output->out->bytes;
    if (column > 0) out->append(csv ? "," : "\t");
    csv ? csv_put_field(out, text) : tsv_put_field(out, text);
    if (column + 1 == output->columns.size()) out->append(csv ? "\r\n" : "\n");
}

void put_separated(event_output* output, const event_record& event) {
    std::string text;
    for (size_t i = 0; i < output->columns.size(); i++) {
        const std::string& column = output->columns[i];
        if (!usual_column(*output, event, column, &text)) {
            text.clear();
            const auto* const values = values_of(event.fields, column);
            for (size_t j = 0; values != nullptr && j < values->size(); j++) text += (j > 0 ? ";" : "") + (*values)[j];
        }
        separated_put(output, i, text);
    }
}

// A line of a group as it is printed.
std::string group_line(const event_output& output, const event_record& event, std::string_view text, bool is_found,
                       uint64_t number) {
    if (output.format == FORMAT_RAW) return std::string(text);
    std::string out;
    const std::string group = "\"group\":" + std::to_string(number);
    if (is_found) {
        put_jsonl(output, event, group, &out);
        return out;
    }
    out.append("{").append(group).append(",\"context\":true");
    json_put_values(&out, "source", {std::string(event.source)});
    json_put_values(&out, "raw", {std::string(text)});
    return out.append("}\n");
}

// A group of records with the lines around them.
void put_group(event_output* output, const std::map<uint64_t, context_line>& lines, uint64_t number) {
    text_output* const out = output->out;
    const bool raw = output->format == FORMAT_RAW;
    if (raw && number > 1) output_put(out, "--\n");
    for (const auto& [offset, line] : lines) {
        raw&& line.is_found ? put_text(output, line.text) : output_put(out, line.text);
        if (raw) output_put(out, "\n");
        output_end_record(out);
    }
}

bool has_context(const event_output& output) {
    return output.context.before > 0 || output.context.after > 0;
}

constexpr unsigned NO_CONTROL = 0x100;

// The code of a character that is a control character.
unsigned control_code(std::string_view character) {
    const auto first = static_cast<unsigned char>(character[0]), last = static_cast<unsigned char>(character.back());
    if (character.size() == 1) return first < 0x20 || first == 0x7F ? first : NO_CONTROL;
    return first == 0xC2 && last < 0xA0 ? last : NO_CONTROL;
}

}  // namespace

bool event_format_from_name(const std::string& name, event_format_t* format) {
    static constexpr std::array<std::pair<const char*, event_format_t>, 6> NAMES = {{{"raw", FORMAT_RAW},
                                                                                     {"table", FORMAT_TABLE},
                                                                                     {"jsonl", FORMAT_JSONL},
                                                                                     {"csv", FORMAT_CSV},
                                                                                     {"tsv", FORMAT_TSV},
                                                                                     {"addr", FORMAT_ADDR}}};
    const auto* found =
        std::find_if(NAMES.begin(), NAMES.end(), [&](const auto& entry) { return name == entry.first; });
    if (found == NAMES.end()) return false;
    *format = found->second;
    return true;
}

void event_output_choose(event_output* output, const std::string& fields) {
    output->all_fields = fields == "all";
    output->columns = USUAL;
    if (fields.empty() || output->all_fields) return;
    output->columns.clear();
    for (const std::string& name : comma_parts(fold_value(fields))) {
        const bool is_new = std::find(output->columns.begin(), output->columns.end(), name) == output->columns.end();
        if (!name.empty() && is_new) output->columns.push_back(name);
    }
    const bool has_time = std::find(output->columns.begin(), output->columns.end(), "time") != output->columns.end();
    if (!has_time) output->columns.insert(output->columns.begin(), "time");
}

bool event_output_learns(const event_output& output) {
    return output.all_fields && (output.format == FORMAT_CSV || output.format == FORMAT_TSV);
}

unsigned event_output_parts(const event_output& output) {
    const unsigned lines = has_context(output) ? EVENT_LINES : 0;
    switch (output.format) {
        case FORMAT_RAW:
            return EVENT_RAW | lines;
        case FORMAT_ADDR:
            return 0;
        case FORMAT_TABLE:
            return EVENT_FRACTION | EVENT_NAMES | EVENT_RAW;
        default:
            return EVENT_FRACTION | EVENT_NAMES | EVENT_RAW | lines | (wants_fields(output) ? EVENT_FIELDS : 0);
    }
}

void event_output_learn(event_output* output, const event_record& event) {
    for (const auto& [name, values] : event.fields) {
        const bool is_new = std::find(output->columns.begin(), output->columns.end(), name) == output->columns.end();
        if (is_new) output->columns.push_back(name);
    }
}

void event_output_begin(event_output* output, size_t longest_host, size_t longest_source) {
    output->context.make = [output](const event_record& event, std::string_view text, bool is_found, uint64_t number) {
        return group_line(*output, event, text, is_found, number);
    };
    output->context.put = [output](const std::map<uint64_t, context_line>& lines, uint64_t number) {
        put_group(output, lines, number);
    };
    output->host_width = column_width(longest_host);
    output->source_width = column_width(longest_source);
    const bool has_header = output->format == FORMAT_CSV || output->format == FORMAT_TSV;
    for (size_t i = 0; has_header && i < output->columns.size(); i++) separated_put(output, i, output->columns[i]);
}

void event_output_put(event_output* output, const event_record& event) {
    if (has_context(*output)) {
        context_groups_add(&output->context, event);
        return;
    }
    switch (output->format) {
        case FORMAT_RAW:
            put_raw(output, event);
            break;
        case FORMAT_ADDR:
            put_addr(output, event);
            break;
        case FORMAT_TABLE:
            put_table(output, event);
            break;
        case FORMAT_JSONL:
            put_jsonl(*output, event, "", &output->out->bytes);
            break;
        case FORMAT_CSV:
        case FORMAT_TSV:
            put_separated(output, event);
            break;
    }
    output_end_record(output->out);
}

void event_output_end(event_output* output) {
    context_groups_end(&output->context);
}

std::string event_time_text(st_time_t time, uint64_t nanoseconds, const log_zone& zone) {
    return zone_time_text(int64_t{time} * 1000000000 + static_cast<int64_t>(nanoseconds % 1000000000), zone);
}

int time_width(const log_zone& zone) {
    return zone.named == nullptr && zone.offset_s == 0 ? 20 : 25;
}

void json_put_string(std::string* out, std::string_view text) {
    constexpr std::string_view HEX = "0123456789abcdef";
    out->push_back('"');
    for (size_t at = 0; at < text.size();) {
        const char c = text[at];
        const size_t length = utf8_length(text.substr(at));
        if (length == 0) {
            out->append("\xEF\xBF\xBD");
        } else if (c == '"' || c == '\\') {
            out->append({'\\', c});
        } else if (c == '\n') {
            out->append("\\n");
        } else if (c == '\t') {
            out->append("\\t");
        } else if (const unsigned code = control_code(text.substr(at, length)); code != NO_CONTROL) {
            out->append("\\u00");
            out->push_back(HEX[code >> 4]);
            out->push_back(HEX[code & 15]);
        } else {
            out->append(text.substr(at, length));
        }
        at += std::max<size_t>(length, 1);
    }
    out->push_back('"');
}

void csv_put_field(std::string* out, std::string_view text) {
    if (text.find_first_of("\",\r\n") == std::string_view::npos) {
        out->append(text);
        return;
    }
    out->push_back('"');
    for (const char c : text) {
        if (c == '"') out->push_back('"');
        out->push_back(c);
    }
    out->push_back('"');
}

void tsv_put_field(std::string* out, std::string_view text) {
    for (const char c : text) {
        constexpr std::string_view PLAIN = "\t\n\r\\", ESCAPED = "tnr\\";
        const size_t which = PLAIN.find(c);
        if (which == std::string_view::npos) {
            out->push_back(c);
        } else {
            out->append({'\\', ESCAPED[which]});
        }
    }
}

}  // namespace veldar::tool
