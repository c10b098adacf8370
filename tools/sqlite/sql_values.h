// Values of veldar.h as SQLite's: texts that are UTF-8, times as SQLite writes them, JSON.
#pragma once

#include <sqlite3ext.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "veldar.h"

namespace veldar::sql {

inline std::string_view view_of(const veldar_text& text) {
    return {text.data, text.size};
}

// "2015-05-17 10:05:03.25": UTC, as datetime() writes it, with the fraction without zeros at its end. The texts of times
// from year 1 to 9999 are in the order of the times.
std::string time_text(int64_t time_ns);

// What is no UTF-8 becomes U+FFFD, and NUL too: SQLite's functions would end there.
std::string utf8_text(std::string_view bytes);
void put_text(sqlite3_context* to, std::string_view bytes);
// As it is: TEXT when it is UTF-8 without NUL, else BLOB.
void put_raw(sqlite3_context* to, std::string_view bytes);

// With quotes around it.
void json_put_string(std::string* json, std::string_view bytes);
// Of "a=b,c=d", in which a backslash is before each comma, '=' and backslash that is meant.
std::string json_of_labels(std::string_view labels);

}  // namespace veldar::sql
