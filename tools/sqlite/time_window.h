// Comparisons of the columns `time` and `time_ns` as one window of nanoseconds.
#pragma once

#include <sqlite3ext.h>

#include <cstdint>
#include <string>

namespace veldar::sql {

// from <= t < to, in nanoseconds since 1970.
struct time_window {
    int64_t from = INT64_MIN, to = INT64_MAX;
    bool is_empty() const { return from >= to; }
    bool holds(int64_t time_ns) const { return time_ns >= from && time_ns < to; }
    // Whether --since and --until, given whole seconds, say all of it.
    bool is_whole() const;
    // The least whole seconds around it as veldar.h takes them, "@1431857103"; empty for none.
    std::string since() const;
    std::string until() const;
};

// Narrows the window to the times that compare so with the value; `op` is "=", "<", "<=", ">" or ">=". Returns null, or
// what is wrong with the value.
const char* window_narrow_text(time_window* window, const std::string& op, sqlite3_value* value);
const char* window_narrow_ns(time_window* window, const std::string& op, sqlite3_value* value);

}  // namespace veldar::sql
