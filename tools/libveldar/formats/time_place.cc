#include "tools/libveldar/formats/time_place.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <vector>

#include "tools/libveldar/formats/line_format.h"

namespace veldar::tool {
namespace {

constexpr int64_t DAY_S = 86400;
constexpr size_t WORDS_MAX = TIME_HEAD;
constexpr size_t PLAIN_WORDS = 3;  // blanks before a time that is not at the file's place: access logs have these

// The shapes that are looked for. Of two that fit a log equally well at one place the earlier is taken.
constexpr const char* PATTERNS[] = {
    "%Y-%m-%d%t%T",           // ISO 8601 and its relatives
    "%Y-%m-%d%t%R",           //
    "%Y/%m/%d%t%T",           //
    "%Y/%m/%d%t%R",           //
    "%Y.%m.%d%t%T",           //
    "%Y:%m:%d%t%T",           // cameras
    "%Y-%m-%d%t%H.%M.%S%q",   // 2005-06-03-15.42.50.363779
    "%Y-%m-%d%t%H-%M-%S",     //
    "%Y%m%d%t%T",             //
    "%Y%m%d%t%H:%M:%S:%L",    // 20171223-22:15:29:606
    "%Y%m%d%t%H%M%S%q%z",     // basic ISO 8601
    "%Y%m%d%H%M%S%q%z",       //
    "%Y-%m-%d%t%H%M%S%q%z",   //
    "%Y-%j%t%T",              // the day of the year
    "%Y.%j%t%T",              //
    "%Y %b %d%t%T",           //
    "%Y-%b-%d%t%T",           //
    "%d/%b/%Y%t%T",           // web servers
    "%d-%b-%Y%t%T",           // Tomcat, Oracle
    "%d-%b-%Y::%T",           // Erlang
    "%d%b%Y%t%T",             //
    "%d %b %Y%t%T",           // RFC 1123
    "%d. %b %Y%t%T",          // German
    "%d %b %H:%M:%S %Z %Y",   // date
    "%b %d %T %Y",            // ctime
    "%b %d %H:%M:%S %Z %Y",   // date
    "%b %d %Y%t%T",           // routers
    "%b %d, %Y%t%T",          // java.util.logging
    "%b %d%t%T",              // syslog
    ".%b %d%t%T",             // routers whose clock is not set
    "%d %b%t%T",              //
    "%d.%m.%Y%t%T",           //
    "%d.%m.%Y%t%R",           //
    "%d/%m/%Y%t%T",           //
    "%m/%d/%Y%t%T",           //
    "%d/%m/%Y%t%R",           //
    "%m/%d/%Y%t%R",           //
    "date=%Y-%m-%d time=%T",  // firewalls
    "%T %Y-%m-%d",            // the clock first
    "%T %d.%m.%Y",            //
    "%T %d/%m/%Y",            //
    "%T %m/%d/%Y",            //
    "%T %d %b %Y",            //
    "%T %a %d %b %Y",         //
    "%d-%m-%Y%t%T",           //
    "%m-%d-%Y%t%T",           //
    "%y/%m/%d%t%T",           //
    "%d/%m/%y%t%T",           //
    "%m/%d/%y%t%T",           //
    "%d.%m.%y%t%T",           //
    "%y-%m-%d%t%T",           //
    "%d-%m-%y%t%T",           //
    "%m-%d-%y%t%T",           //
    "%d-%b-%y%t%T",
    "%y%m%d%t%T",        //
    "%y%m%d%t%H%M%S%q",  //
    "%l%m%d %T",         // klog, glog: I1120 10:00:00.123
    "%m-%d%t%T",         // telephones
    "%m/%d%t%T",         //
    "%d/%m%t%T",         //
    "[%m.%d %T]",        //
    "[%d.%m %T]",        //
    "audit(%s:",         //
    "@%n",               // TAI64N
    "[%u]",              // the kernel's ring
    "%s",                // seconds since 1970 in a column
    "%T",                // a time of day alone
    "%R",                //
    "%Y-%m-%d",          // a day alone
    "%Y/%m/%d",          //
    "%d/%b/%Y",          //
    "%d-%b-%Y",          //
    "%d %b %Y",          //
    "%b %d, %Y",         //
    "%d.%m.%Y",          //
    "%d/%m/%Y",          //
    "%m/%d/%Y",          //
    "%Y%m%d",            //
};
constexpr size_t COUNT = std::size(PATTERNS);

// A shape of a lower kind is taken only where there is none of the kinds before it.
enum kind_t : uint8_t { KIND_WHOLE, KIND_NUMBER, KIND_CLOCK, KIND_DAY, KINDS };

const std::array<time_shape, COUNT>& shapes() {
    static const std::array<time_shape, COUNT> all = [] {
        std::array<time_shape, COUNT> made;
        for (size_t i = 0; i < COUNT; i++) time_shape_compile(PATTERNS[i], &made[i]);
        return made;
    }();
    return all;
}

kind_t kind_of(size_t shape) {
    if (std::string_view(PATTERNS[shape]) == "%s") return KIND_NUMBER;
    return !shapes()[shape].has_date ? KIND_CLOCK : shapes()[shape].has_clock ? KIND_WHOLE : KIND_DAY;
}

bool means_one_time(const time_shape& shape) {
    return shape.has_year && shape.has_clock && shape.order.empty();
}

// Those that cannot be anything else wherever they stand.
const std::vector<time_shape>& plain_shapes() {
    static const std::vector<time_shape> plain = [] {
        std::vector<time_shape> made;
        for (size_t i = 0; i < COUNT; i++) {
            const std::string_view pattern = PATTERNS[i];
            const bool number =
                pattern.find_first_of("sun") != std::string_view::npos || pattern.starts_with("%Y%m%d%H");
            if (means_one_time(shapes()[i]) && !number) made.push_back(shapes()[i]);
        }
        return made;
    }();
    return plain;
}

// Whether a time may begin behind this byte: no word, number or path goes on there.
bool may_follow(char c) {
    return std::string_view(" \t[(<{\"'=|,;:>*").find(c) != std::string_view::npos;
}

// Calls `at(word, rest)` at every place of the line where a time may begin, until it returns true.
template <typename Function>
bool any_place(std::string_view line, size_t words, const Function& at) {
    size_t word = 0;
    for (size_t i = 0; i < line.size() && i < TIME_HEAD; i++) {
        const bool blank = line[i] == ' ' || line[i] == '\t';
        if (blank && i > 0 && line[i - 1] != ' ' && line[i - 1] != '\t' && ++word > words) return false;
        if (!blank && (i == 0 || may_follow(line[i - 1])) && at(word, line.substr(i))) return true;
    }
    return false;
}

// What the sample says of one shape.
struct candidate {
    size_t shape = 0, lines = 0, late = 0;
    kind_t kind = KIND_WHOLE;
    bool leads = false;  // at the front of a line only: so little may stand there by chance
    size_t words = 0;    // nine of ten of its times stand there or before
    std::array<uint16_t, WORDS_MAX> at{};
    shape_time first;
    int64_t earliest_s = INT64_MAX, latest_s = INT64_MIN;
    size_t first_line = 0;
    std::string_view example;
};

bool is_late(const shape_time& time, const time_hints& hints) {
    return time.has_year && time.stamp.local_s - time.stamp.offset_s > hints.now_s + DAY_S;
}

bool fits_order(const time_shape& shape, std::string_view order) {
    if (order.empty() || shape.order.empty() || shape.order == order) return true;
    return shape.order.size() == 2 && order.find(shape.order) != std::string_view::npos;
}

// Whether the text before a clock may be a date in a form that is not known: words in it begin with digits, and it is
// more than one number.
bool may_be_dated(std::string_view before) {
    size_t words = 0, numbers = 0;
    while (!before.empty()) {
        const std::string_view word = take_word(&before);
        words += !word.empty();
        if (word.empty() || word[0] < '0' || word[0] > '9') continue;
        if (word.find_first_not_of("0123456789") != std::string_view::npos) return true;
        numbers++;
    }
    return numbers > 0 && words > 1;
}

void count_line(std::vector<candidate>* all, std::string_view line, size_t number, const time_hints& hints) {
    std::array<bool, COUNT> seen{};
    bool whole = false;  // what follows in the line may be a part of that time
    any_place(line, WORDS_MAX, [&](size_t word, std::string_view rest) {
        const time_front front = time_front_of(rest);
        const bool dated_before = may_be_dated(line.substr(0, line.size() - rest.size()));
        for (candidate& one : *all) {
            const time_shape& shape = shapes()[one.shape];
            std::string_view left = rest;
            shape_time time;
            if ((whole && one.kind >= KIND_CLOCK) || (word > 0 && one.leads)) continue;
            if (one.kind == KIND_CLOCK && dated_before) continue;
            const bool found = !seen[one.shape] && time_shape_begins(shape, front) &&
                               time_shape_take(shape, &left, &time) && word < WORDS_MAX;
            if (!found) continue;
            seen[one.shape] = true;
            whole |= one.kind == KIND_WHOLE;
            if (one.lines++ == 0) {
                one.first = time;
                one.first_line = number;
                one.example = rest.substr(0, rest.size() - left.size());
            }
            one.at[word]++;
            one.late += is_late(time, hints);
            one.earliest_s = std::min(one.earliest_s, time.stamp.local_s);
            one.latest_s = std::max(one.latest_s, time.stamp.local_s);
        }
        return false;
    });
}

size_t words_of(const candidate& one) {
    size_t words = 0, left = (one.lines * 9 + 9) / 10;
    for (; words < WORDS_MAX && one.at[words] < left; words++) left -= one.at[words];
    while (words + 1 < WORDS_MAX && one.at[words + 1] > 0) words++;  // the same place behind a word more
    return words;
}

// How unlikely an order of day and month is: a file that is read to its end was written when its last line was; where
// the lines pass a midnight, the wrong order leaps over months; else a file was hardly written long after its lines.
std::tuple<bool, int64_t, int64_t> unlikeliness(const candidate& one, const time_hints& hints) {
    return {std::abs(one.latest_s - hints.modified_s) > DAY_S, (one.latest_s - one.earliest_s) / DAY_S,
            std::abs(one.first.stamp.local_s - hints.modified_s)};
}

// Whether a number is the time that the line also writes in words: zones differ by quarters of an hour.
bool agree(const candidate& number, const candidate& date) {
    constexpr int64_t QUARTER_S = 900;
    const int64_t apart = number.first.stamp.local_s - date.first.yearless.second_of_day;
    return number.first_line == date.first_line && (apart % QUARTER_S + 1 + QUARTER_S) % QUARTER_S <= 2;
}

time_place place_of(const candidate& one) {
    time_place place;
    place.pattern = PATTERNS[one.shape];
    place.shape = shapes()[one.shape];
    place.words = static_cast<uint8_t>(one.words);
    place.example = one.example;
    return place;
}

// The best of some candidates; of several that differ by the order of day and month only, the likeliest.
time_place choose(const std::vector<const candidate*>& dates, const time_hints& hints) {
    const auto key = [](const candidate* one) {
        return std::tuple(one->words, -static_cast<int64_t>(one->lines), one->late, one->shape);
    };
    const candidate* best =
        *std::min_element(dates.begin(), dates.end(), [&](auto* a, auto* b) { return key(a) < key(b); });
    const candidate* const first = best;
    const candidate* also = nullptr;
    for (const candidate* other : dates) {
        const bool rival = !shapes()[first->shape].order.empty() && !shapes()[other->shape].order.empty() &&
                           other->example == first->example && other->words == first->words &&
                           other->lines == first->lines && other->late == first->late && other != first;
        if (!rival) continue;
        also = other;
        if (first->first.has_year && unlikeliness(*other, hints) < unlikeliness(*best, hints)) best = other;
    }
    time_place place = place_of(*best);
    if (also != nullptr) place.also = PATTERNS[(best == first ? also : first)->shape];
    return place;
}

// Whether so many lines of the sample are enough. A bare number is easily there by chance, a time with its year hardly;
// and one that stands always in one place and never in the future may head many lines without a time.
bool suffices(const candidate& one, size_t records) {
    if (one.kind == KIND_NUMBER) return one.lines * 2 >= records && one.late * 10 <= one.lines;
    if (one.kind >= KIND_CLOCK) return one.lines * 2 >= records && one.words <= PLAIN_WORDS;
    if (!one.first.has_year) return one.lines * 4 >= records;
    const bool heads = one.lines >= 2 && one.late == 0 && one.at[one.words] == one.lines;
    return one.lines * (heads ? 100 : 10) >= records;
}

}  // namespace

std::span<const char* const> time_patterns() {
    return PATTERNS;
}

time_place time_place_find(std::span<const std::string_view> lines, const time_hints& hints) {
    std::vector<candidate> all;
    for (size_t i = 0; i < COUNT; i++) {
        if (!fits_order(shapes()[i], hints.order)) continue;
        candidate* const one = &all.emplace_back();
        one->shape = i;
        one->kind = kind_of(i);
        one->leads = std::string_view(PATTERNS[i]) == "%R" || std::string_view(PATTERNS[i]) == "%Y%m%d";
    }
    size_t records = 0;
    const auto written = [](std::string_view line) {
        return line.find_first_not_of(" \t\r") != std::string_view::npos;
    };
    // A log may pad a number at the front of its lines.
    const bool padded = std::count_if(lines.begin(), lines.end(), begins_record) * 2 <
                        std::count_if(lines.begin(), lines.end(), written);
    for (size_t i = 0; i < lines.size(); i++) {
        std::string_view line = lines[i];
        skip_utf8_mark(&line);
        if (padded ? !written(line) : !begins_record(line)) continue;
        count_line(&all, line, i, hints);
        records++;
    }
    size_t most[KINDS] = {};
    for (candidate& one : all) one.words = words_of(one);
    std::erase_if(all, [&](const candidate& one) { return one.lines == 0 || !suffices(one, records); });
    for (const candidate& one : all) most[one.kind] = std::max(most[one.kind], one.lines);
    std::vector<const candidate*> best[KINDS];
    for (const candidate& one : all) {
        if (one.lines * 4 >= most[one.kind] * 3) best[one.kind].push_back(&one);
    }
    // Lines that say the day now and then are among those that say the time of day.
    if (most[KIND_CLOCK] > 3 * most[KIND_WHOLE]) best[KIND_WHOLE].clear();
    const std::vector<const candidate*>& dates = best[KIND_WHOLE];
    const candidate* const number = best[KIND_NUMBER].empty() ? nullptr : best[KIND_NUMBER][0];
    if (dates.empty()) {
        if (number != nullptr) return place_of(*number);
        for (const kind_t kind : {KIND_CLOCK, KIND_DAY}) {
            if (!best[kind].empty()) return choose(best[kind], hints);
        }
        return {};
    }
    const bool numbered = number != nullptr && std::all_of(dates.begin(), dates.end(), [&](const candidate* date) {
                              return number->words <= date->words && number->lines >= date->lines;
                          });
    const bool agrees = numbered && std::any_of(dates.begin(), dates.end(),
                                                [&](const candidate* date) { return agree(*number, *date); });
    return agrees ? place_of(*number) : choose(dates, hints);
}

bool time_place_take(const time_place& place, std::string_view line, shape_time* out, std::string_view* where) {
    return any_place(line, place.words, [&](size_t, std::string_view rest) {
        std::string_view left = rest;
        const bool taken =
            time_shape_begins(place.shape, time_front_of(rest)) && time_shape_take(place.shape, &left, out);
        if (taken) *where = rest.substr(0, rest.size() - left.size());
        return taken;
    });
}

bool time_place_take_any(const time_place& place, std::string_view line, shape_time* out, std::string_view* where) {
    if (place.known() && time_place_take(place, line, out, where)) return true;
    if (line.empty() || line[0] == ' ' || line[0] == '\t') return false;
    return any_place(line, PLAIN_WORDS, [&](size_t, std::string_view rest) {
        const time_front front = time_front_of(rest);
        if (front.digits == 0 && !front.month) return false;
        return std::any_of(plain_shapes().begin(), plain_shapes().end(), [&](const time_shape& shape) {
            std::string_view left = rest;
            if (!time_shape_begins(shape, front) || !time_shape_take(shape, &left, out)) return false;
            *where = rest.substr(0, rest.size() - left.size());
            return true;
        });
    });
}

bool time_place_take_whole(std::string_view text, shape_time* out) {
    std::string_view date = text;
    const std::string_view day = take_word(&date);  // "Sun," perhaps
    if (day.empty() || (day[0] >= '0' && day[0] <= '9')) date = text;
    return std::any_of(shapes().begin(), shapes().end(), [&](const time_shape& shape) {
        for (std::string_view rest : {text, date}) {
            if (means_one_time(shape) && time_shape_take(shape, &rest, out) && rest.empty()) return true;
        }
        return false;
    });
}

std::string time_place_text(const time_place& place) {
    return place.known() ? std::to_string(place.words) + " " + place.pattern : std::string();
}

bool time_place_from_text(std::string_view text, time_place* out) {
    *out = {};
    const size_t blank = text.find(' ');
    if (blank == std::string_view::npos) return text.empty();
    time_place place;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + blank, place.words);
    place.pattern = text.substr(blank + 1);
    if (fault != std::errc() || end != text.data() + blank) return false;
    if (time_shape_compile(place.pattern, &place.shape) != nullptr) return false;
    *out = place;
    return true;
}

const char* time_place_from_pattern(std::string_view pattern, time_place* out) {
    *out = {};
    out->pattern = pattern;
    out->words = static_cast<uint8_t>(TIME_HEAD);
    return time_shape_compile(pattern, &out->shape);
}

}  // namespace veldar::tool
