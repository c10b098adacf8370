// Lines of arbitrary bytes: detection, every format's parse, and the terms of what came out.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "libzero/assertions.h"
#include "tools/veldar/formats/line_format.h"
#include "tools/veldar/formats/terms.h"

namespace {

using namespace veldar;

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static term_set set;
    static parsed_line parsed;
    std::vector<std::string_view> lines = split_lines({reinterpret_cast<const char*>(data), size});
    format_context first;
    first.modified_s = 1772000000;
    ST_ASSERT(log_zone_from_name(size % 2 == 0 ? "UTC" : "+02:00", &first.zone));
    ST_ASSERT(detect_format(lines, first) != nullptr);
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
