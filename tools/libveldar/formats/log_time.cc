#include "tools/libveldar/formats/log_time.h"

#include <date/tz.h>

#include <cstdlib>
#include <exception>
#include <limits>
#include <string>

namespace veldar::tool {
namespace {

constexpr int64_t DAY_S = 86400;

int digit_value(char c) {
    return c >= '0' && c <= '9' ? c - '0' : -1;
}

// "+02:00", "+0200", "+02" to seconds east of UTC.
bool parse_offset(std::string_view text, int64_t* out) {
    if (text.empty() || (text[0] != '+' && text[0] != '-')) return false;
    int digits[4] = {};
    size_t count = 0;
    for (char c : text.substr(1)) {
        if (c == ':' && count == 2) continue;
        if (digit_value(c) < 0 || count == 4) return false;
        digits[count++] = digit_value(c);
    }
    if (count != 2 && count != 4) return false;
    int hours = digits[0] * 10 + digits[1], minutes = digits[2] * 10 + digits[3];
    if (hours > 23 || minutes > 59) return false;
    *out = (hours * 60 + minutes) * (text[0] == '-' ? -60 : 60);
    return true;
}

// The machine's zone: $TZ, else what /etc/localtime names, else UTC.
const date::time_zone* local_zone() {
    if (const char* name = getenv("TZ"); name != nullptr && *name != '\0') {
        return date::locate_zone(*name == ':' ? name + 1 : name);
    }
    try {
        return date::current_zone();
    } catch (const std::exception&) {
        return date::locate_zone("UTC");
    }
}

}  // namespace

bool log_zone_from_name(std::string_view name, log_zone* out) {
    log_zone zone;
    if (name == "UTC" || name == "GMT" || name == "Z" || parse_offset(name, &zone.offset_s)) {
        *out = zone;
        return true;
    }
    try {
        const date::time_zone* named = name == "local" ? local_zone() : date::locate_zone(std::string(name));
        static_cast<void>(named->get_info(date::sys_seconds{}));  // reads the rules, so that nothing fails later
        zone.named = named;
    } catch (const std::exception&) {
        return false;
    }
    *out = zone;
    return true;
}

std::string log_zone_local_name() {
    try {
        return local_zone()->name();
    } catch (const std::exception&) {
        return "UTC";
    }
}

int64_t log_zone_to_epoch(log_zone* zone, int64_t local_s, int64_t last_s) {
    bool known = zone->named == nullptr || (local_s >= zone->holds_from && local_s < zone->holds_until);
    if (known) return local_s - zone->offset_s;

    const auto* named = static_cast<const date::time_zone*>(zone->named);
    date::local_info info = named->get_info(date::local_seconds{std::chrono::seconds{local_s}});
    int64_t offset_s = info.first.offset.count();
    if (info.result == date::local_info::unique) {
        // A day's distance from both changes keeps clear of the hours that occur twice or never.
        zone->offset_s = offset_s;
        zone->holds_from = info.first.begin.time_since_epoch().count() + DAY_S;
        zone->holds_until = info.first.end.time_since_epoch().count() - DAY_S;
    }
    const bool twice = info.result == date::local_info::ambiguous;
    const bool again = last_s >= info.first.end.time_since_epoch().count() || local_s - offset_s + 60 < last_s;
    return local_s - (twice && again ? info.second.offset.count() : offset_s);
}

log_zone_span log_zone_at(const log_zone& zone, int64_t epoch_s) {
    if (zone.named == nullptr) {
        return {zone.offset_s, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()};
    }
    const auto* named = static_cast<const date::time_zone*>(zone.named);
    const date::sys_info info = named->get_info(date::sys_seconds{std::chrono::seconds{epoch_s}});
    return {info.offset.count(), info.begin.time_since_epoch().count(), info.end.time_since_epoch().count()};
}

bool log_time_store(int64_t epoch_s, uint32_t nanoseconds, st_timeval_t* out) {
    if (epoch_s < INT32_MIN || epoch_s > INT32_MAX) return false;
    out->time_s = static_cast<st_time_t>(epoch_s);
    out->time_ns = nanoseconds;
    return true;
}

}  // namespace veldar::tool
