#include "time_window.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "sql_values.h"

SQLITE_EXTENSION_INIT3

namespace veldar::sql {

namespace {

constexpr int64_t NS = 1'000'000'000;
// Events have 32 bits for their seconds.
constexpr int64_t FIRST_NS = int64_t{INT_MIN} * NS, END_NS = (int64_t{INT_MAX} + 1) * NS;
// The last second as a bound of a question stands for none.
constexpr int64_t LAST_NS = int64_t{INT_MAX} * NS;

int64_t floor_s(int64_t time_ns) {
    return time_ns / NS - (time_ns % NS < 0 ? 1 : 0);
}

bool is_bounded(int64_t time_ns) {
    return time_ns > FIRST_NS && time_ns < END_NS;
}

// `least` is the first time that is not less than the value, `greater` the first one that is greater.
void narrow(time_window* window, const std::string& op, int64_t least, int64_t greater) {
    if (op == ">=" || op == "=") window->from = std::max(window->from, least);
    if (op == ">") window->from = std::max(window->from, greater);
    if (op == "<=" || op == "=") window->to = std::min(window->to, greater);
    if (op == "<") window->to = std::min(window->to, least);
}

void make_empty(time_window* window) {
    window->from = window->to = 0;
}

// The first time whose text is greater than this one, or equal when that counts. Texts are in the order of the times.
int64_t first_not_below(const std::string& text, bool equal_counts) {
    int64_t low = FIRST_NS, high = END_NS;
    while (low < high) {
        const int64_t middle = low + (high - low) / 2;
        const int order = time_text(middle).compare(text);
        if (order > 0 || (order == 0 && equal_counts)) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return low == END_NS ? INT64_MAX : low == FIRST_NS ? INT64_MIN : low;
}

bool is_date(const std::string& text) {
    return text.size() > 10 && text[4] == '-' && text[7] == '-' && (text[10] == 'T' || text[10] == 't');
}

int64_t saturated(double value) {
    if (value >= 9223372036854775807.0) return INT64_MAX;
    if (value <= -9223372036854775808.0) return INT64_MIN;
    return static_cast<int64_t>(value);
}

}  // namespace

bool time_window::is_whole() const {
    return (!is_bounded(from) || from % NS == 0) && (!is_bounded(to) || (to % NS == 0 && to < LAST_NS));
}

std::string time_window::since() const {
    return is_bounded(from) ? "@" + std::to_string(floor_s(from)) : "";
}

std::string time_window::until() const {
    return is_bounded(to) && to <= LAST_NS - NS ? "@" + std::to_string(floor_s(to - 1) + 1) : "";
}

const char* window_narrow_text(time_window* window, const std::string& op, sqlite3_value* value) {
    const int type = sqlite3_value_type(value);
    if (type == SQLITE_NULL) return make_empty(window), nullptr;
    if (type != SQLITE_TEXT) return "time is a text such as '2015-05-17 10:05:03'; numbers compare with time_ns";
    const auto* const bytes = reinterpret_cast<const char*>(sqlite3_value_text(value));
    const std::string text(bytes == nullptr ? "" : bytes, static_cast<size_t>(sqlite3_value_bytes(value)));
    if (is_date(text)) return "time is compared as text: write '2015-05-17 10:05:03', or datetime('2015-05-17T10:05Z')";
    narrow(window, op, first_not_below(text, true), first_not_below(text, false));
    return nullptr;
}

const char* window_narrow_ns(time_window* window, const std::string& op, sqlite3_value* value) {
    switch (sqlite3_value_numeric_type(value)) {
        case SQLITE_NULL:
            make_empty(window);
            break;
        case SQLITE_INTEGER: {
            const int64_t number = sqlite3_value_int64(value);
            narrow(window, op, number, number == INT64_MAX ? number : number + 1);
            break;
        }
        case SQLITE_FLOAT: {
            const double number = sqlite3_value_double(value);
            const int64_t least = saturated(std::ceil(number)), below = saturated(std::floor(number));
            narrow(window, op, least, below == INT64_MAX || below == INT64_MIN ? below : below + 1);
            break;
        }
        default:  // texts and BLOBs are greater than numbers
            if (op != "<" && op != "<=") make_empty(window);
    }
    return nullptr;
}

}  // namespace veldar::sql
