// Arbitrary bytes as the beginning of a log: what discovery finds is kept as text, and what is read from that text dates
// every line the same. The last byte says the options.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "libzero/assertions.h"
#include "tools/libveldar/formats/line_format.h"
#include "tools/libveldar/load/log_form.h"

namespace {

using namespace veldar;
using namespace veldar::tool;

constexpr int64_t MODIFIED = 1772000000;

void set_known(format_context* context, uint8_t choice) {
    context->modified_s = MODIFIED;
    context->year = choice & 64 ? 2004 : 0;
    ST_ASSERT(log_zone_from_name(choice & 32 ? "Europe/Berlin" : "UTC", &context->zone));
}

void check_place(const time_place& place, std::string_view line) {
    shape_time time;
    std::string_view where;
    if (!time_place_take_any(place, line, &time, &where)) return;
    ST_ASSERT(where.data() >= line.data() && where.data() + where.size() <= line.data() + line.size());
    ST_ASSERT(!where.empty() && time.stamp.nanoseconds < 1000000000);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr const char* ORDERS[] = {"", "dmy", "mdy", "ymd"};
    static parsed_line one, other;
    if (size == 0) return 0;
    const uint8_t choice = data[size - 1];
    std::string_view head(reinterpret_cast<const char*>(data), size - 1);
    load_options options;
    options.date_order = ORDERS[choice & 3];
    if (choice & 4) options.time_field = "time";
    if (choice & 8) options.time_format = "%H:%M";
    format_context found, again;
    set_known(&found, choice);
    set_known(&again, choice);
    const line_format* const format = log_form_choose(options, head, {}, &found);
    const std::string record = format_record(*format, found);
    const line_format* const same = format_by_record(record, &again);
    ST_ASSERT(same == format && format_record(*same, again) == record);
    again.boot_s = found.boot_s;
    std::string error;
    static_cast<void>(log_form_is_dated(options, found.zone, head, &error));
    static_cast<void>(log_form_check(options, found.zone, head, &error));
    while (!head.empty()) {
        const std::string_view line = head.substr(0, head.find('\n'));
        head.remove_prefix(std::min(line.size() + 1, head.size()));
        ST_ASSERT(parse_log_line(*format, line, &found, &one) == parse_log_line(*format, line, &again, &other));
        ST_ASSERT(one.has_time == other.has_time);
        ST_ASSERT(!one.has_time || (one.time.time_s == other.time.time_s && one.time.time_ns == other.time.time_ns));
        check_place(found.times, line);
    }
    return 0;
}
