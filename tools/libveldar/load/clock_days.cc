#include "tools/libveldar/load/clock_days.h"

#include <new>

#include "tools/libveldar/formats/uncoloured.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/record_reader.h"
#include "tools/libveldar/store/source_map.h"

namespace veldar::tool {

namespace {

constexpr int64_t DAY_S = 86400, LATE_S = 60;
constexpr int64_t FIRST_DATE_S = 7000 * DAY_S;  // no log counts so many days, and none has an earlier date

int64_t day_of(int64_t local_s) {
    return local_s - local_s % DAY_S;
}

}  // namespace

bool clock_days_find(log_event_maker* maker, log_input* input, uint64_t start, std::string* error) {
    format_context* const context = &maker->context;
    if (!context->times.known() || context->times.shape.has_date) return true;
    record_reader reader;
    if (!log_input_seek(input, start, error)) return false;
    record_reader_open(&reader, input, SOURCE_NO_LIMIT);
    format_context walk = *context;  // counts its days from zero
    walk.modified_s = 0;
    walk.zone = log_zone();
    int64_t first_s = NO_TIME_SEEN, last_s = 0, date_s = NO_TIME_SEEN;
    uint64_t offset;
    std::string_view text;
    std::string plain;
    while (date_s == NO_TIME_SEEN && !work_stops() && record_reader_next(&reader, &offset, &text)) {
        parse_log_line(*maker->format, uncoloured(text.substr(0, text.find('\n')), &plain), &walk, &maker->first);
        if (walk.last_local_s >= FIRST_DATE_S) {
            date_s = walk.last_local_s;
            continue;
        }
        last_s = walk.last_local_s;
        if (first_s == NO_TIME_SEEN) first_s = last_s;
    }
    if (first_s == NO_TIME_SEEN) return true;
    const int64_t modified_s = context->modified_s + log_zone_at(context->zone, context->modified_s).offset_s;
    int64_t end_s = date_s == NO_TIME_SEEN ? modified_s : date_s;
    if (last_s % DAY_S > end_s % DAY_S + LATE_S) end_s -= DAY_S;
    context->last_local_s = day_of(end_s) - day_of(last_s) + first_s;
    return true;
}

}  // namespace veldar::tool
