// Logs whose head names their columns: CSV, W3C (IIS, CloudFront) and Zeek.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace veldar::tool {

inline constexpr int NO_COLUMN = -1;

// Copies are independent; a default one has no columns.
struct log_columns {
    char separator = 0;
    int time = NO_COLUMN;  // the column that holds the event's time, or its clock when there is a date
    int date = NO_COLUMN;
    std::vector<std::string> names;  // at most COLUMNS_MAX
    bool known() const { return !names.empty(); }
};

inline constexpr size_t COLUMNS_MAX = 256;

// The columns of a log that begins with these lines, and "csv", "w3c" or "zeek"; null when its head names none. With
// `wanted` only these count, and the head of CSV need not look like one.
const char* log_columns_find(std::span<const std::string_view> first_lines, std::string_view wanted, log_columns* out);
// The columns as one line of text, and back; the text of none is empty. False when the text is no columns'.
std::string log_columns_text(const log_columns& columns);
bool log_columns_from_text(std::string_view text, log_columns* out);

// Takes the next cell off the front of the record, which may be behind its last one: then false. `quoted` tells that
// the cell stood in quotes and holds some, doubled.
bool take_cell(std::string_view* rest, char separator, std::string_view* cell, bool* quoted);
// "#Fields: date time ..." or "#fields\tts\t...": the columns that it names.
bool log_columns_from_head(std::string_view line, log_columns* out);

}  // namespace veldar::tool
