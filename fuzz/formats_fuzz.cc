// Lines of arbitrary bytes: detection, every format's parse, and the terms of what came out.
#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "libzero/assertions.h"
#include "tools/libveldar/formats/line_format.h"
#include "tools/libveldar/formats/metric_csv.h"
#include "tools/libveldar/formats/metric_text.h"
#include "tools/libveldar/formats/terms.h"

namespace {

using namespace veldar;
using namespace veldar::tool;

std::vector<std::string_view> split_lines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

void check_terms(std::string_view line, const parsed_line& parsed, term_set* set) {
    term_set_reset(set);
    term_set_add_text(set, line);
    for (const field_view& field : parsed.fields) {
        ST_ASSERT(!field.value.empty() && !field.name.empty());
        term_set_add_field(set, field.name, field.value);
    }
    for (std::string_view term : term_set_terms(set)) {
        ST_ASSERT(!term.empty() && term.size() <= TERM_MAX && term.find('\0') == std::string_view::npos);
    }
}

// A sample that is read can be written, and is read again as the same.
void check_metric(std::string line) {
    static metric_record record, again;
    static metric_csv csv;
    std::string copy = line, error, written;
    if (metric_csv_open(&csv, copy, "file", &error)) {
        copy = line;
        metric_csv_parse(&csv, copy, &record);
    }
    csv = {};
    if (metric_text_parse(line, metric_time_unit::guess, &record) != nullptr || record.measures.empty()) return;
    const metric_measure& measure = record.measures[0];
    const st_timeval_t time = record.has_time ? record.time : st_timeval_t{};
    metric_text_put(&written, measure.name, record.labels, measure.value, time.time_s,
                    static_cast<uint32_t>(time.time_ns));
    written.pop_back();
    ST_ASSERT(metric_text_parse(written, metric_time_unit::guess, &again) == nullptr);
    ST_ASSERT(again.measures[0].name == measure.name && again.labels.size() == record.labels.size());
    ST_ASSERT(std::bit_cast<uint64_t>(again.measures[0].value) == std::bit_cast<uint64_t>(measure.value));
    ST_ASSERT(again.time.time_s == time.time_s && again.time.time_ns == time.time_ns);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static term_set set;
    static parsed_line parsed;
    std::vector<std::string_view> lines = split_lines({reinterpret_cast<const char*>(data), size});
    for (std::string_view line : lines) check_metric(std::string(line));
    format_context first;
    first.modified_s = 1772000000;
    ST_ASSERT(log_zone_from_name(size % 2 == 0 ? "UTC" : "+02:00", &first.zone));
    ST_ASSERT(detect_format(lines, first) != nullptr);
    first.boot_s = 1771000000;
    first.times = time_place_find(lines, {first.modified_s, first.modified_s, ""});
    time_place again;
    ST_ASSERT(time_place_from_text(time_place_text(first.times), &again) && again.words == first.times.words);
    // The first line as a pattern: what compiles reads any line.
    if (size % 4 == 0 && !lines.empty() && time_place_from_pattern(lines[0], &again) == nullptr) first.times = again;
    for (const line_format& format : line_formats()) {
        format_context context = first;
        for (std::string_view line : lines) {
            format.parse(line, &context, &parsed);
            ST_ASSERT(!parsed.has_time || parsed.time.time_ns < 1000000000);
            check_terms(line, parsed, &set);
        }
    }
    return 0;
}
