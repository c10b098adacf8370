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

size_t column_width(const std::vector<std::string>& names) {
    size_t width = 4;
    for (const std::string& name : names) width = std::max(width, name.size());
    return std::min(width, WIDEST_COLUMN);
}

// Of a path only the end tells logs apart.
std::string fitted(const std::string& text, size_t width) {
    if (text.size() <= width) return text + std::string(width - text.size(), ' ');
    return "~" + text.substr(text.size() - (width - 1));
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

void put_raw(event_output* output, const event_t& event) {
    const raw_record* const record = event_source_record(output->source, event);
    if (record == nullptr) return;
    put_text(output, record->text);
    output_put(output->out, "\n");
}

void put_addr(event_output* output, const event_t& event) {
    output_put(output->out, event_time_text(event.value.time, event.value.subsecond, output->out->zone));
    output_put(output->out, "\t" + std::to_string(event.value.address) + "\t");
    output_put(output->out, output->source->slices->directories[event.source].name);
    output_put(output->out, "\n");
}

const std::vector<std::string> USUAL = {"time", "host", "source", "sourcetype", "directory", "address", "raw"};

std::string time_of(event_output* output, const event_t& event) {
    uint64_t nanoseconds = event.value.subsecond;
    if (nanoseconds == 0 && output->has_raw && !event.is_metric) {
        static_cast<void>(event_source_fraction(output->source, event, &nanoseconds, false));
    }
    return event_time_text(event.value.time, nanoseconds, output->out->zone);
}

std::string_view raw_of(event_output* output, const event_t& event) {
    const raw_record* const record = output->has_raw ? event_source_record(output->source, event) : nullptr;
    return record == nullptr ? std::string_view() : std::string_view(record->text);
}

// A column that every event has; false for a field.
bool usual_column(event_output* output, const event_t& event, const std::string& name, std::string* text) {
    event_source* const source = output->source;
    const auto number = std::find(USUAL.begin(), USUAL.end(), name) - USUAL.begin();
    switch (number) {
        case 0:
            *text = time_of(output, event);
            return true;
        case 1:
            *text = event_source_name(source->hosts, event.value.h);
            return true;
        case 2:
            *text = event_source_name(source->sources, event.value.s);
            return true;
        case 3:
            *text = event_source_name(source->sourcetypes, event.value.st);
            return true;
        case 4:
            *text = source->slices->directories[event.source].name;
            return true;
        case 5:
            *text = std::to_string(event.value.address);
            return true;
        case 6:
            text->assign(raw_of(output, event));
            return true;
        default:
            return false;
    }
}

bool is_usual(const std::string& name) {
    return std::find(USUAL.begin(), USUAL.end(), name) != USUAL.end();
}

// The values of an event's fields, each once; the names are folded, and in the order of the record.
using field_values = std::vector<std::pair<std::string, std::vector<std::string>>>;
field_values fields_of(event_output* output, const event_t& event) {
    field_values all;
    output->reader.source = output->source;
    for (const field_view& field : event_fields_of(&output->reader, event)) {
        const std::string name = fold_value(field.name);
        if (is_usual(name) || field.value.empty()) continue;
        auto known = std::find_if(all.begin(), all.end(), [&](const auto& one) { return one.first == name; });
        if (known == all.end()) known = all.insert(all.end(), {name, {}});
        const bool is_new = std::find(known->second.begin(), known->second.end(), field.value) == known->second.end();
        if (is_new) known->second.emplace_back(field.value);
    }
    return all;
}

bool wants_fields(const event_output& output) {
    return output.all_fields || !std::all_of(output.columns.begin(), output.columns.end(), is_usual);
}

const std::vector<std::string>* values_of(const field_values& fields, const std::string& name) {
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const auto& one) { return one.first == name; });
    return found == fields.end() ? nullptr : &found->second;
}

void put_table(event_output* output, const event_t& event) {
    text_output* const out = output->out;
    const bool aligned = out->terminal;
    const std::string host = event_source_name(output->source->hosts, event.value.h),
                      source = event_source_name(output->source->sources, event.value.s);
    output_put(out, time_of(output, event));
    output_put(out, aligned ? "  " : "\t");
    output_put(out, aligned ? fitted(host, output->host_width) : host);
    output_put(out, aligned ? "  " : "\t");
    output_put(out, aligned ? fitted(source, output->source_width) : source);
    output_put(out, aligned ? "  " : "\t");
    put_text(output, first_line(raw_of(output, event)));
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
void put_jsonl(event_output* output, const event_t& event, const std::string& more) {
    std::string* const out = &output->out->bytes;
    const field_values fields = wants_fields(*output) ? fields_of(output, event) : field_values();
    out->append("{").append(more);
    std::string text;
    for (const std::string& column : output->columns) {
        if (usual_column(output, event, column, &text)) {
            if (column == "raw" && !output->has_raw) continue;
            json_put_name(out, column);
            column == "address" ? static_cast<void>(out->append(text)) : json_put_string(out, text);
        } else if (const auto* const values = values_of(fields, column); values != nullptr) {
            json_put_values(out, column, *values);
        }
    }
    for (size_t i = 0; output->all_fields && i < fields.size(); i++) {
        json_put_values(out, fields[i].first, fields[i].second);
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

void put_separated(event_output* output, const event_t& event) {
    const field_values fields = wants_fields(*output) ? fields_of(output, event) : field_values();
    std::string text;
    for (size_t i = 0; i < output->columns.size(); i++) {
        const std::string& column = output->columns[i];
        if (!usual_column(output, event, column, &text)) {
            text.clear();
            const auto* const values = values_of(fields, column);
            for (size_t j = 0; values != nullptr && j < values->size(); j++) text += (j > 0 ? ";" : "") + (*values)[j];
        }
        separated_put(output, i, text);
    }
}

// A group of records with the lines around them.
void put_group(event_output* output, const std::map<uint64_t, context_line>& lines, uint64_t number) {
    text_output* const out = output->out;
    const bool raw = output->format == FORMAT_RAW;
    if (raw && number > 1) output_put(out, "--\n");
    const std::string group = "\"group\":" + std::to_string(number);
    for (const auto& [offset, line] : lines) {
        if (raw) {
            line.is_found ? put_text(output, line.text) : output_put(out, line.text);
            output_put(out, "\n");
        } else if (line.is_found) {
            put_jsonl(output, line.event, group);
        } else {
            std::string* const bytes = &out->bytes;
            bytes->append("{").append(group).append(",\"context\":true");
            json_put_values(bytes, "source", {event_source_name(output->source->sources, line.event.value.s)});
            json_put_values(bytes, "raw", {line.text});
            bytes->append("}\n");
        }
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

void event_output_learn(event_output* output, const event_t& event) {
    for (auto& [name, values] : fields_of(output, event)) {
        const bool is_new = std::find(output->columns.begin(), output->columns.end(), name) == output->columns.end();
        if (is_new) output->columns.push_back(std::move(name));
    }
}

void event_output_begin(event_output* output) {
    output->context.put = [output](const std::map<uint64_t, context_line>& lines, uint64_t number) {
        put_group(output, lines, number);
    };
    if (output->format == FORMAT_RAW || output->format == FORMAT_ADDR) return;
    event_source_read_names(output->source);
    output->host_width = column_width(output->source->hosts);
    output->source_width = column_width(output->source->sources);
    const bool has_header = output->format == FORMAT_CSV || output->format == FORMAT_TSV;
    for (size_t i = 0; has_header && i < output->columns.size(); i++) separated_put(output, i, output->columns[i]);
}

void event_output_put(event_output* output, const event_t& event) {
    if (has_context(*output)) {
        context_groups_add(&output->context, output->source, event);
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
            put_jsonl(output, event, "");
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
