#include "tools/libveldar/formats/metric_csv.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "tools/libveldar/formats/log_stamp.h"

namespace veldar::tool {

namespace {

constexpr std::array<std::string_view, 7> TIME_NAMES = {"timestamp", "time",      "_time", "date",
                                                        "datetime",  "date_time", "ts"};
constexpr std::string_view VALUE_NAME = "value";

std::string folded(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

// One field, unquoted where it stands; `at` moves behind its separator, or to null behind the last field.
const char* take_field(char** at, char* end, char separator, std::string_view* field) {
    char* scan = *at;
    char* out = scan;
    char* const begin = scan;
    const bool quoted = scan < end && *scan == '"';
    if (quoted) {
        for (scan++;; scan++) {
            if (scan == end) return "a quote is not closed";
            if (*scan == '"' && (scan + 1 == end || scan[1] != '"')) break;
            if (*scan == '"') scan++;
            *out++ = *scan;
        }
        scan++;
        if (scan < end && *scan != separator) return "text behind a closing quote";
    } else {
        void* const found = scan == end ? nullptr : std::memchr(scan, separator, static_cast<size_t>(end - scan));
        scan = found == nullptr ? end : static_cast<char*>(found);
        out = scan;
    }
    *field = {begin, static_cast<size_t>(out - begin)};
    *at = scan == end ? nullptr : scan + 1;
    return nullptr;
}

const char* take_fields(std::span<char> line, char separator, std::vector<std::string_view>* fields) {
    fields->clear();
    if (!line.empty() && line.back() == '\r') line = line.first(line.size() - 1);
    char* at = line.data();
    while (at != nullptr) {
        std::string_view field;
        const char* const wrong = take_field(&at, line.data() + line.size(), separator, &field);
        if (wrong != nullptr) return wrong;
        fields->push_back(field);
    }
    return nullptr;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

bool find_column(const metric_csv& csv, const std::string& name, size_t* column) {
    const auto found = std::find_if(csv.fields.begin(), csv.fields.end(),
                                    [&](std::string_view field) { return trimmed(field) == name; });
    *column = static_cast<size_t>(found - csv.fields.begin());
    return found != csv.fields.end();
}

bool find_time_column(metric_csv* csv) {
    if (!csv->options.time.empty()) return find_column(*csv, csv->options.time, &csv->time);
    const auto usual = [](std::string_view field) {
        return std::find(TIME_NAMES.begin(), TIME_NAMES.end(), folded(trimmed(field))) != TIME_NAMES.end();
    };
    const auto found = std::find_if(csv->fields.begin(), csv->fields.end(), usual);
    csv->time = static_cast<size_t>(found - csv->fields.begin());
    return found != csv->fields.end();
}

// What a header lacks, and what it has.
bool lacks(const metric_csv& csv, const std::string& what, std::string* error) {
    *error = what + "; the columns are";
    for (const std::string_view field : csv.fields) *error += " " + std::string(trimmed(field));
    return false;
}

bool add_value_column(metric_csv* csv, const std::string& name, const std::string& file_name) {
    size_t column = 0;
    if (!find_column(*csv, name, &column)) return false;
    const metric_csv_options& options = csv->options;
    csv->values.push_back(column);
    if (options.values.size() > 1) {
        csv->names.push_back(options.name.empty() ? name : options.name + "_" + name);
    } else if (!options.name.empty()) {
        csv->names.push_back(options.name);
    } else {
        csv->names.push_back(name == VALUE_NAME ? file_name : name);
    }
    return true;
}

const char* parse_time(metric_csv* csv, std::string_view text, st_timeval_t* time) {
    constexpr size_t DATE_SIZE = 10;
    if (text.size() < DATE_SIZE || (text[4] != '-' && text[4] != '/')) {
        return metric_time_parse(text, metric_time_unit::guess, time);
    }
    std::string midnight;
    if (text.size() == DATE_SIZE) text = midnight.append(text).append("T00:00:00");
    log_stamp stamp;
    if (!take_iso8601(&text, &stamp) || !text.empty()) return "the time cannot be read";
    if (!stamp_to_time(stamp, &csv->options.zone, time)) return "the time is beyond what 32-bit seconds hold";
    time->time_ns -= time->time_ns % 1000000;
    return nullptr;
}

}  // namespace

bool metric_csv_open(metric_csv* csv, std::span<char> header, const std::string& file_name, std::string* error) {
    constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
    if (std::string_view(header.data(), header.size()).starts_with(BYTE_ORDER_MARK)) header = header.subspan(3);
    if (const char* const wrong = take_fields(header, csv->options.separator, &csv->fields); wrong != nullptr) {
        *error = wrong;
        return false;
    }
    csv->columns = csv->fields.size();
    if (!find_time_column(csv)) {
        const std::string& time = csv->options.time;
        return lacks(*csv,
                     time.empty() ? "no column of times (see " + csv->options.time_input + ")" : "no column " + time,
                     error);
    }
    if (csv->options.values.empty()) csv->options.values = {std::string(VALUE_NAME)};
    for (const std::string& name : csv->options.values) {
        if (!add_value_column(csv, name, file_name)) return lacks(*csv, "no value column " + name, error);
    }
    for (const std::string& name : csv->options.dims) {
        if (!find_column(*csv, name, &csv->dims.emplace_back())) return lacks(*csv, "no column " + name, error);
    }
    return true;
}

bool metric_csv_goes_on(std::string_view record) {
    return std::count(record.begin(), record.end(), '"') % 2 != 0;
}

const char* metric_csv_parse(metric_csv* csv, std::span<char> line, metric_record* record) {
    record->labels.clear();
    record->measures.clear();
    if (line.empty() || (line.size() == 1 && line[0] == '\r')) return nullptr;
    if (std::memchr(line.data(), '\0', line.size()) != nullptr) return "a NUL byte";
    if (const char* const wrong = take_fields(line, csv->options.separator, &csv->fields); wrong != nullptr) {
        return wrong;
    }
    if (csv->fields.size() != csv->columns) return "more or fewer fields than the header has";
    record->has_time = true;
    if (const char* const wrong = parse_time(csv, trimmed(csv->fields[csv->time]), &record->time); wrong != nullptr) {
        return wrong;
    }
    const char* wrong_value = nullptr;
    for (size_t i = 0; i < csv->values.size(); i++) {
        const std::string_view text = trimmed(csv->fields[csv->values[i]]);
        metric_measure measure = {csv->names[i], 0};
        if (text.empty()) continue;
        const char* const wrong = metric_value_parse(text, &measure.value);
        if (wrong == nullptr) record->measures.push_back(measure);
        if (wrong_value == nullptr) wrong_value = wrong;
    }
    for (size_t i = 0; i < csv->dims.size(); i++) {
        record->labels.push_back({csv->options.dims[i], csv->fields[csv->dims[i]]});
    }
    const char* const wrong = metric_labels_settle(&record->labels);
    if (wrong != nullptr) record->measures.clear();
    return wrong != nullptr ? wrong : wrong_value;
}

}  // namespace veldar::tool
