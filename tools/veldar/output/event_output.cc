#include "tools/veldar/output/event_output.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

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

void put_lines(event_output* output, const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        output_put(output->out, line);
        output_put(output->out, "\n");
    }
}

void put_raw(event_output* output, const event_t& event) {
    const raw_record* const record = event_source_record(output->source, event);
    if (record == nullptr) return;
    const bool context = output->before > 0 || output->after > 0;
    std::vector<std::string> before, after;
    if (context) {
        if (output->printed > 0) output_put(output->out, "--\n");
        event_source_context(output->source, event, output->before, output->after, &before, &after);
    }
    put_lines(output, before);
    put_text(output, record->text);
    output_put(output->out, "\n");
    put_lines(output, after);
    output->printed++;
}

void put_addr(event_output* output, const event_t& event) {
    output_put(output->out, event_time_text(event.value.time, event.value.subsecond));
    output_put(output->out, "\t" + std::to_string(event.value.address) + "\t");
    output_put(output->out, output->source->slices->directories[event.source].name);
    output_put(output->out, "\n");
}

struct event_columns {
    std::string time, host, source, sourcetype, directory, address;
    std::string_view raw;
};

event_columns columns_of(event_output* output, const event_t& event) {
    event_source* const source = output->source;
    event_columns columns = {event_time_text(event.value.time, event.value.subsecond),
                             event_source_name(source->hosts, event.value.h),
                             event_source_name(source->sources, event.value.s),
                             event_source_name(source->sourcetypes, event.value.st),
                             source->slices->directories[event.source].name,
                             std::to_string(event.value.address),
                             {}};
    if (output->has_raw) {
        const raw_record* const record = event_source_record(source, event);
        if (record != nullptr) columns.raw = record->text;
    }
    return columns;
}

void put_table(event_output* output, const event_columns& columns) {
    text_output* const out = output->out;
    const bool aligned = out->terminal;
    output_put(out, columns.time);
    output_put(out, aligned ? "  " : "\t");
    output_put(out, aligned ? fitted(columns.host, output->host_width) : columns.host);
    output_put(out, aligned ? "  " : "\t");
    output_put(out, aligned ? fitted(columns.source, output->source_width) : columns.source);
    output_put(out, aligned ? "  " : "\t");
    put_text(output, first_line(columns.raw));
    output_put(out, "\n");
}

void put_jsonl(event_output* output, const event_columns& columns) {
    std::string* const out = &output->out->bytes;
    const std::array<std::pair<const char*, const std::string*>, 5> texts = {{{"{\"time\":", &columns.time},
                                                                              {",\"host\":", &columns.host},
                                                                              {",\"source\":", &columns.source},
                                                                              {",\"sourcetype\":", &columns.sourcetype},
                                                                              {",\"directory\":", &columns.directory}}};
    for (const auto& [name, text] : texts) {
        out->append(name);
        json_put_string(out, *text);
    }
    out->append(",\"address\":").append(columns.address);
    if (output->has_raw) {
        out->append(",\"raw\":");
        json_put_string(out, columns.raw);
    }
    out->append("}\n");
}

void put_separated(event_output* output, const event_columns& columns) {
    const bool csv = output->format == FORMAT_CSV;
    std::string* const out = &output->out->bytes;
    const std::array<std::string_view, 6> fields = {columns.time,       columns.host,      columns.source,
                                                    columns.sourcetype, columns.directory, columns.address};
    for (const std::string_view field : fields) {
        csv ? csv_put_field(out, field) : tsv_put_field(out, field);
        out->append(csv ? "," : "\t");
    }
    csv ? csv_put_field(out, columns.raw) : tsv_put_field(out, columns.raw);
    out->append(csv ? "\r\n" : "\n");
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

void event_output_begin(event_output* output) {
    if (output->format == FORMAT_RAW || output->format == FORMAT_ADDR) return;
    event_source_read_names(output->source);
    output->host_width = column_width(output->source->hosts);
    output->source_width = column_width(output->source->sources);
    constexpr std::string_view CSV_HEADER = "time,host,source,sourcetype,directory,address,raw\r\n";
    constexpr std::string_view TSV_HEADER = "time\thost\tsource\tsourcetype\tdirectory\taddress\traw\n";
    if (output->format == FORMAT_CSV) output_put(output->out, CSV_HEADER);
    if (output->format == FORMAT_TSV) output_put(output->out, TSV_HEADER);
}

void event_output_put(event_output* output, const event_t& event) {
    switch (output->format) {
        case FORMAT_RAW:
            put_raw(output, event);
            break;
        case FORMAT_ADDR:
            put_addr(output, event);
            break;
        case FORMAT_TABLE:
            put_table(output, columns_of(output, event));
            break;
        case FORMAT_JSONL:
            put_jsonl(output, columns_of(output, event));
            break;
        case FORMAT_CSV:
        case FORMAT_TSV:
            put_separated(output, columns_of(output, event));
            break;
    }
    output_end_record(output->out);
}

std::string event_time_text(st_time_t time, uint64_t nanoseconds) {
    const time_t seconds = time;
    struct tm parts = {};
    char text[40];
    ::gmtime_r(&seconds, &parts);
    size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    if (nanoseconds != 0) {
        const std::string digits = std::to_string(1000000000 + nanoseconds % 1000000000);
        std::string fraction = "." + digits.substr(1);
        while (fraction.ends_with('0')) fraction.pop_back();
        size += fraction.copy(text + size, fraction.size());
    }
    text[size++] = 'Z';
    return {text, size};
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
