#include "tools/veldar/output/zone_time.h"

#include <fmt/format.h>

#include <array>
#include <cstdlib>
#include <ctime>

namespace veldar::tool {

namespace {

constexpr int64_t SECOND_NS = 1000000000;

int64_t floor_seconds(int64_t epoch_ns) {
    return epoch_ns / SECOND_NS - (epoch_ns % SECOND_NS < 0 ? 1 : 0);
}

}  // namespace

std::string zone_time_format(int64_t epoch_ns, const log_zone& zone, const char* format) {
    const int64_t seconds = floor_seconds(epoch_ns);
    const time_t local = seconds + log_zone_at(zone, seconds).offset_s;
    struct tm parts = {};
    ::gmtime_r(&local, &parts);
    std::array<char, 64> text;
    return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

std::string zone_time_text(int64_t epoch_ns, const log_zone& zone) {
    const int64_t seconds = floor_seconds(epoch_ns);
    std::string text = zone_time_format(epoch_ns, zone, "%Y-%m-%dT%H:%M:%S");
    if (const int64_t fraction = epoch_ns - seconds * SECOND_NS; fraction > 0) {
        text += fmt::format(".{:09}", fraction);
        text.erase(text.find_last_not_of('0') + 1);
    }
    const int64_t offset_s = log_zone_at(zone, seconds).offset_s;
    if (offset_s == 0) return text + "Z";
    const int64_t minutes = std::abs(offset_s) / 60;
    return text + fmt::format("{}{:02}:{:02}", offset_s < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

}  // namespace veldar::tool
