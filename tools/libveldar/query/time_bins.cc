#include "tools/libveldar/query/time_bins.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>

#include "searchthing/search/select_spec.h"

namespace veldar::tool {

namespace {

constexpr int64_t SECOND_NS = 1000000000, DAY_S = 86400;
constexpr int64_t LONGEST_S = INT32_MAX;
constexpr int64_t MONDAY = 4;  // 1970-01-05, in days

int64_t floor_to(int64_t value, int64_t step) {
    return value - ((value % step) + step) % step;
}

struct unit_name {
    std::string_view name;
    bin_width one;
};
constexpr std::array<unit_name, 9> UNITS = {{{"ns", {bin_width::NANOSECONDS, 1, false}},
                                             {"ms", {bin_width::NANOSECONDS, 1000000, false}},
                                             {"s", {bin_width::NANOSECONDS, SECOND_NS, false}},
                                             {"m", {bin_width::NANOSECONDS, 60 * SECOND_NS, false}},
                                             {"h", {bin_width::NANOSECONDS, 3600 * SECOND_NS, false}},
                                             {"d", {bin_width::DAYS, 1, false}},
                                             {"w", {bin_width::DAYS, 7, true}},
                                             {"mo", {bin_width::MONTHS, 1, false}},
                                             {"y", {bin_width::MONTHS, 12, false}}}};

// Months since year 0 of a local time, and the first second of such a month.
int64_t month_of(int64_t local_s) {
    const auto days = std::chrono::sys_days(std::chrono::days(floor_to(local_s, DAY_S) / DAY_S));
    const std::chrono::year_month_day date(days);
    return int64_t{static_cast<int>(date.year())} * 12 + static_cast<unsigned>(date.month()) - 1;
}
int64_t month_begin(int64_t month) {
    const std::chrono::year_month_day date(std::chrono::year(static_cast<int>(month / 12)),
                                           std::chrono::month(static_cast<unsigned>(month % 12 + 1)),
                                           std::chrono::day(1));
    return std::chrono::sys_days(date).time_since_epoch().count() * DAY_S;
}

// The moment of a local time; of one that the clocks skip, when they did.
int64_t moment_of(log_zone* zone, int64_t local_s) {
    const int64_t epoch_s = log_zone_to_epoch(zone, local_s);
    const log_zone_span span = log_zone_at(*zone, epoch_s);
    return epoch_s + span.offset_s == local_s ? epoch_s : std::min(epoch_s, span.begin_s);
}

// Begins bins at local times from that of `earliest_s` on: `at` is the first, `next` gives the one behind. A last one
// or two behind the latest time take what came after the range was known.
template <typename Next>
bool cut(log_zone zone, int64_t at, int64_t latest_s, Next next, std::vector<int64_t>* starts) {
    for (int behind = 0; behind < 2; at = next(at)) {
        const int64_t moment = moment_of(&zone, at);
        if (!starts->empty() && moment <= starts->back()) continue;
        if (starts->size() == SELECT_MAX_BINS) return false;
        starts->push_back(moment);
        behind += moment > latest_s ? 1 : 0;
    }
    return true;
}

// Whether every change of the clocks in the range moves them by a multiple of the span.
bool keeps_step(const log_zone& zone, int64_t span_ns, int64_t earliest_s, int64_t latest_s) {
    log_zone_span here = log_zone_at(zone, earliest_s);
    while (here.end_s <= latest_s) {
        const log_zone_span next = log_zone_at(zone, here.end_s);
        if ((next.offset_s - here.offset_s) * SECOND_NS % span_ns != 0) return false;
        here = next;
    }
    return true;
}

void set_span(int64_t span_ns, int64_t offset_s, time_bins* out) {
    out->span = {static_cast<st_time_t>(span_ns / SECOND_NS), static_cast<uint64_t>(span_ns % SECOND_NS)};
    out->offset_s = offset_s;
}

}  // namespace

bool bin_width_parse(std::string_view text, bin_width* out) {
    int64_t count = 0;
    const auto [rest, fault] = std::from_chars(text.data(), text.data() + text.size(), count);
    const std::string_view name(rest, static_cast<size_t>(text.data() + text.size() - rest));
    const auto* const unit =
        std::find_if(UNITS.begin(), UNITS.end(), [&](const auto& one) { return one.name == name; });
    if (fault != std::errc() || count <= 0 || unit == UNITS.end()) return false;
    *out = unit->one;
    if (count > LONGEST_S * SECOND_NS / out->count) return false;
    out->count *= count;
    return bin_width_seconds(*out) <= static_cast<double>(LONGEST_S);
}

double bin_width_seconds(const bin_width& width) {
    constexpr std::array<double, 3> SECONDS = {1e-9, static_cast<double>(DAY_S), 30.0 * DAY_S};
    return static_cast<double>(width.count) * SECONDS[width.unit];
}

bin_width bin_width_for(int64_t earliest_s, int64_t latest_s, uint64_t bins) {
    static constexpr std::array<std::string_view, 25> ROUND = {
        "1s", "2s", "5s", "10s", "15s", "30s", "1m", "2m",  "5m",  "10m", "15m", "30m", "1h",
        "2h", "3h", "6h", "12h", "1d",  "2d",  "1w", "1mo", "3mo", "1y",  "5y",  "10y"};
    bin_width width;
    for (const std::string_view text : ROUND) {
        static_cast<void>(bin_width_parse(text, &width));
        const double needed = static_cast<double>(latest_s - earliest_s) / bin_width_seconds(width) + 1;
        if (needed <= static_cast<double>(std::max<uint64_t>(bins, 2))) break;
    }
    return width;
}

bool time_bins_make(const bin_width& width, const log_zone& zone, int64_t earliest_s, int64_t latest_s,
                    time_bins* out) {
    *out = {};
    const log_zone_span first = log_zone_at(zone, earliest_s);
    const int64_t local_s = earliest_s + first.offset_s;
    // A bin that begins before the clocks' last change begins at another offset.
    const auto same_offset_from = [&](int64_t local_begin) {
        return first.end_s > latest_s && first.begin_s <= local_begin - first.offset_s;
    };
    if (width.unit == bin_width::MONTHS) {
        const auto next = [&](int64_t at) { return month_begin(month_of(at) + width.count); };
        return cut(zone, month_begin(floor_to(month_of(local_s), width.count)), latest_s, next, &out->starts_s);
    }
    if (width.unit == bin_width::DAYS) {
        const int64_t span_s = width.count * DAY_S, from = width.weekly ? MONDAY * DAY_S : 0;
        const int64_t begin = floor_to(local_s - from, span_s) + from;
        if (same_offset_from(begin)) {
            set_span(span_s * SECOND_NS, from - first.offset_s, out);
            return true;
        }
        return cut(
            zone, begin, latest_s, [&](int64_t at) { return at + span_s; }, &out->starts_s);
    }
    const bool is_cut_daily = DAY_S * SECOND_NS % width.count == 0 && width.count % SECOND_NS == 0;
    if (!is_cut_daily) {
        // No day begins with them; one offset for all times lets the bins of several stores be the same.
        set_span(width.count, -log_zone_at(zone, 0).offset_s, out);
        return true;
    }
    const int64_t span_s = width.count / SECOND_NS, begin = floor_to(local_s, span_s);
    if (same_offset_from(begin) || keeps_step(zone, width.count, begin - first.offset_s, latest_s)) {
        set_span(width.count, -first.offset_s, out);
        return true;
    }
    return cut(
        zone, begin, latest_s, [&](int64_t at) { return at + span_s; }, &out->starts_s);
}

}  // namespace veldar::tool
