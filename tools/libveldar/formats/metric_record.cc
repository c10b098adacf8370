#include "tools/libveldar/formats/metric_record.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>

#include "tools/libveldar/formats/log_time.h"

namespace veldar::tool {

namespace {

constexpr std::array<std::string_view, 3> RESERVED = {"metric_name", "_catalog", "_dims"};
constexpr char TIME_NO_NUMBER[] = "the time is not a number";
constexpr char TIME_TOO_FAR[] = "the time is beyond what 32-bit seconds hold";
constexpr int64_t NANOSECONDS = 1000000000, MILLISECOND_NS = 1000000;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// The seconds and nanoseconds of `whole` units and a fraction of one, rounded down to a millisecond.
const char* store_time(int64_t whole, int64_t fraction_ns, bool negative, int64_t units_per_second,
                       st_timeval_t* time) {
    int64_t seconds = whole / units_per_second;
    int64_t nanoseconds = (whole % units_per_second) * (NANOSECONDS / units_per_second) + fraction_ns;
    if (negative) {
        seconds = -seconds - (nanoseconds != 0 ? 1 : 0);
        nanoseconds = nanoseconds != 0 ? NANOSECONDS - nanoseconds : 0;
    }
    nanoseconds -= nanoseconds % MILLISECOND_NS;
    return log_time_store(seconds, static_cast<uint32_t>(nanoseconds), time) ? nullptr : TIME_TOO_FAR;
}

const char* time_of_double(std::string_view text, metric_time_unit unit, st_timeval_t* time) {
    double value = 0;
    if (metric_value_parse(text, &value) != nullptr || !std::isfinite(value)) return TIME_NO_NUMBER;
    if (unit == metric_time_unit::milliseconds) value /= 1000;
    if (std::abs(value) >= 4294967296.0) return TIME_TOO_FAR;
    const double seconds = std::floor(value);
    const auto milliseconds = static_cast<int64_t>((value - seconds) * 1000);
    return log_time_store(static_cast<int64_t>(seconds), static_cast<uint32_t>(milliseconds * MILLISECOND_NS), time)
               ? nullptr
               : TIME_TOO_FAR;
}

int64_t units_per_second(metric_time_unit unit, int64_t whole, bool has_fraction) {
    if (unit == metric_time_unit::milliseconds) return 1000;
    if (unit == metric_time_unit::seconds || has_fraction || whole < 100000000000) return 1;
    if (whole < 100000000000000) return 1000;
    return whole < 100000000000000000 ? 1000000 : NANOSECONDS;
}

bool percent_digits(std::string_view text, char* out) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    *out = static_cast<char>(value);
    return error == std::errc() && end == text.data() + 2;
}

void put_percent(std::string* out, char c) {
    constexpr char DIGITS[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    *out += {'%', DIGITS[byte >> 4], DIGITS[byte & 15]};
}

}  // namespace

const char* metric_time_parse(std::string_view text, metric_time_unit unit, st_timeval_t* time) {
    std::string_view rest = text;
    const bool negative = rest.starts_with('-');
    if (negative || rest.starts_with('+')) rest.remove_prefix(1);
    int64_t whole = 0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), whole);
    if (rest.empty() || !is_digit(rest[0])) return TIME_NO_NUMBER;
    if (error != std::errc()) return TIME_TOO_FAR;
    rest.remove_prefix(static_cast<size_t>(end - rest.data()));
    if (rest.empty()) return store_time(whole, 0, negative, units_per_second(unit, whole, false), time);
    if (rest[0] != '.') return time_of_double(text, unit, time);
    rest.remove_prefix(1);
    if (!std::all_of(rest.begin(), rest.end(), is_digit)) return time_of_double(text, unit, time);
    if (unit == metric_time_unit::milliseconds) return "a time in milliseconds has no fraction";
    int64_t fraction_ns = 0;
    for (size_t i = 0; i < 9; i++) fraction_ns = fraction_ns * 10 + (i < rest.size() ? rest[i] - '0' : 0);
    return store_time(whole, fraction_ns, negative, 1, time);
}

const char* metric_value_parse(std::string_view text, double* value) {
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    if (error == std::errc::result_out_of_range) return "the value is beyond what a double holds";
    if (error != std::errc() || end != text.data() + text.size() || text.back() == ')') {
        return "the value is not a number";
    }
    if (std::isnan(*value)) *value = std::numeric_limits<double>::quiet_NaN();
    return nullptr;
}

const char* metric_labels_settle(std::vector<metric_label>* labels) {
    const auto before = [](const metric_label& a, const metric_label& b) { return a.name < b.name; };
    const auto same = [](const metric_label& a, const metric_label& b) { return a.name == b.name; };
    if (!std::is_sorted(labels->begin(), labels->end(), before)) std::sort(labels->begin(), labels->end(), before);
    if (std::adjacent_find(labels->begin(), labels->end(), same) != labels->end()) return "a label stands twice";
    std::erase_if(*labels, [](const metric_label& label) { return label.value.empty(); });
    return nullptr;
}

void metric_value_put(std::string* out, double value) {
    if (std::isnan(value)) {
        *out += "NaN";
    } else if (std::isinf(value)) {
        *out += value < 0 ? "-Inf" : "+Inf";
    } else {
        std::array<char, 32> text;
        *out += std::string_view(text.data(), std::to_chars(text.data(), text.data() + text.size(), value).ptr);
    }
}

void metric_time_put(std::string* out, st_time_t seconds, uint32_t nanoseconds) {
    int64_t milliseconds = int64_t{seconds} * 1000 + nanoseconds / MILLISECOND_NS;
    if (milliseconds < 0) *out += '-';
    milliseconds = std::abs(milliseconds);
    *out += std::to_string(milliseconds / 1000);
    int64_t fraction = milliseconds % 1000;
    if (fraction == 0) return;
    *out += '.';
    for (int64_t unit = 100; fraction != 0; unit /= 10) {
        *out += static_cast<char>('0' + fraction / unit);
        fraction %= unit;
    }
}

void metric_term_put(std::string* out, std::string_view label, std::string_view value) {
    const bool reserved = std::find(RESERVED.begin(), RESERVED.end(), label) != RESERVED.end();
    *out += ' ';
    for (size_t i = 0; i < label.size(); i++) {
        if (label[i] == '%' || label[i] == ':' || (reserved && i == 0)) {
            put_percent(out, label[i]);
        } else {
            *out += label[i];
        }
    }
    out->append("::").append(value);
}

void metric_term_split(std::string_view term, std::string* label, std::string_view* value) {
    const size_t colons = term.find("::");
    const std::string_view name = term.substr(0, colons);
    *value = colons == std::string_view::npos ? std::string_view() : term.substr(colons + 2);
    label->clear();
    for (size_t i = 0; i < name.size(); i++) {
        char decoded = name[i];
        if (decoded == '%' && percent_digits(name.substr(i + 1, 2), &decoded)) i += 2;
        *label += decoded;
    }
}

}  // namespace veldar::tool
