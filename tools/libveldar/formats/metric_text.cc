#include "tools/libveldar/formats/metric_text.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace veldar::tool {

namespace {

// The unread part of a line.
struct text_scan {
    char* at;
    char* end;
};

enum char_class : uint8_t { OTHER, NAME_START, NAME_MORE };

constexpr std::array<uint8_t, 256> CLASSES = [] {
    std::array<uint8_t, 256> classes{};
    for (int c = 'a'; c <= 'z'; c++) classes[static_cast<size_t>(c)] = NAME_START;
    for (int c = 'A'; c <= 'Z'; c++) classes[static_cast<size_t>(c)] = NAME_START;
    for (int c = '0'; c <= '9'; c++) classes[static_cast<size_t>(c)] = NAME_MORE;
    classes['_'] = classes[':'] = NAME_START;
    classes['.'] = classes['-'] = NAME_MORE;
    return classes;
}();

uint8_t class_of(char c) {
    return CLASSES[static_cast<unsigned char>(c)];
}

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

void skip_blanks(text_scan* scan) {
    while (scan->at < scan->end && is_blank(*scan->at)) scan->at++;
}

bool take(text_scan* scan, char c) {
    if (scan->at == scan->end || *scan->at != c) return false;
    scan->at++;
    return true;
}

std::string_view take_name(text_scan* scan) {
    char* const begin = scan->at;
    if (begin == scan->end || class_of(*begin) != NAME_START) return {};
    while (scan->at < scan->end && class_of(*scan->at) != OTHER) scan->at++;
    return {begin, static_cast<size_t>(scan->at - begin)};
}

std::string_view take_number(text_scan* scan) {
    char* const begin = scan->at;
    while (scan->at < scan->end && !is_blank(*scan->at)) scan->at++;
    return {begin, static_cast<size_t>(scan->at - begin)};
}

// The text behind an opening quote, decoded where it stands; false when no quote ends it.
bool take_quoted(text_scan* scan, std::string_view* text) {
    char* const begin = scan->at;
    while (scan->at < scan->end && *scan->at != '"' && *scan->at != '\\') scan->at++;
    char* out = scan->at;
    for (; scan->at < scan->end; scan->at++) {
        char c = *scan->at;
        if (c == '"') {
            scan->at++;
            *text = {begin, static_cast<size_t>(out - begin)};
            return true;
        }
        if (c == '\\' && scan->at + 1 < scan->end) {
            const char next = scan->at[1];
            if (next == 'n' || next == '"' || next == '\\') {
                c = next == 'n' ? '\n' : next;
                scan->at++;
            }
        }
        *out++ = c;
    }
    return false;
}

// One entry between the braces: label="value", or a quoted metric name alone.
const char* take_label(text_scan* scan, std::string_view* name, metric_record* record) {
    metric_label label;
    const bool quoted = take(scan, '"');
    if (quoted && !take_quoted(scan, &label.name)) return "a quote is not closed";
    if (!quoted) label.name = take_name(scan);
    if (label.name.empty()) return "a label has no name";
    skip_blanks(scan);
    if (take(scan, '=')) {
        skip_blanks(scan);
        if (!take(scan, '"')) return "the value of a label is not quoted";
        if (!take_quoted(scan, &label.value)) return "the value of a label is not closed";
        if (label.name != "__name__") {
            record->labels.push_back(label);
            return nullptr;
        }
        label.name = label.value;
    } else if (!quoted) {
        return "a label has no value";
    }
    if (!name->empty()) return "the metric has two names";
    *name = label.name;
    return nullptr;
}

const char* take_labels(text_scan* scan, std::string_view* name, metric_record* record) {
    for (skip_blanks(scan); !take(scan, '}'); skip_blanks(scan)) {
        if (scan->at == scan->end) return "the braces are not closed";
        if (const char* const wrong = take_label(scan, name, record); wrong != nullptr) return wrong;
        skip_blanks(scan);
        if (!take(scan, ',') && (scan->at == scan->end || *scan->at != '}')) return "a comma or '}' is missing";
    }
    return metric_labels_settle(&record->labels);
}

void put_escaped(std::string* out, std::string_view text) {
    for (const char c : text) {
        if (c == '\\' || c == '"') *out += '\\';
        if (c == '\n') {
            *out += "\\n";
        } else {
            *out += c;
        }
    }
}

void put_quoted(std::string* out, std::string_view text) {
    *out += '"';
    put_escaped(out, text);
    *out += '"';
}

// Whether every reader of the formats takes the name without quotes.
bool is_plain_name(std::string_view name, bool colons) {
    return !name.empty() && class_of(name[0]) == NAME_START &&
           name.find_first_of(colons ? ".-" : ".-:") == std::string_view::npos &&
           std::all_of(name.begin(), name.end(), [](char c) { return class_of(c) != OTHER; });
}

}  // namespace

const char* metric_text_parse(std::span<char> line, metric_time_unit unit, metric_record* record) {
    record->has_time = false;
    record->labels.clear();
    record->measures.clear();
    if (!line.empty() && line.back() == '\r') line = line.first(line.size() - 1);
    text_scan scan = {line.data(), line.data() + line.size()};
    skip_blanks(&scan);
    if (scan.at == scan.end || *scan.at == '#') return nullptr;
    if (std::memchr(line.data(), '\0', line.size()) != nullptr) return "a NUL byte";
    std::string_view name = take_name(&scan);
    skip_blanks(&scan);
    if (take(&scan, '{')) {
        if (const char* const wrong = take_labels(&scan, &name, record); wrong != nullptr) return wrong;
    }
    if (name.empty()) return "no metric name";
    if (scan.at == scan.end) return "no value";
    double value = 0;
    skip_blanks(&scan);
    if (const char* const wrong = metric_value_parse(take_number(&scan), &value); wrong != nullptr) return wrong;
    skip_blanks(&scan);
    if (scan.at < scan.end && *scan.at != '#') {
        record->has_time = true;
        const char* const wrong = metric_time_parse(take_number(&scan), unit, &record->time);
        if (wrong != nullptr) return wrong;
        skip_blanks(&scan);
    }
    if (scan.at < scan.end && *scan.at != '#') return "text behind the time";
    record->measures.push_back({name, value});
    return nullptr;
}

void metric_text_put_name(std::string* out, std::string_view name) {
    if (is_plain_name(name, true)) {
        *out += name;
    } else {
        put_quoted(out, name);
    }
}

void metric_text_put_series(std::string* out, std::string_view name, std::span<const metric_label> labels) {
    const bool plain = is_plain_name(name, true);
    if (plain) *out += name;
    if (!plain || !labels.empty()) *out += '{';
    if (!plain) put_quoted(out, name);
    bool first = plain;
    for (const metric_label& label : labels) {
        if (!first) *out += ',';
        first = false;
        if (is_plain_name(label.name, false)) {
            *out += label.name;
        } else {
            put_quoted(out, label.name);
        }
        *out += '=';
        put_quoted(out, label.value);
    }
    if (!plain || !labels.empty()) *out += '}';
}

void metric_text_put(std::string* out, std::string_view name, std::span<const metric_label> labels, double value,
                     st_time_t seconds, uint32_t nanoseconds) {
    metric_text_put_series(out, name, labels);
    *out += ' ';
    metric_value_put(out, value);
    *out += ' ';
    metric_time_put(out, seconds, nanoseconds);
    *out += '\n';
}

}  // namespace veldar::tool
