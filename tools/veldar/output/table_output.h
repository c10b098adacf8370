// Prints rows of named columns.
//
//   table   aligned, with a line of names above; the same in a pipe. Numbers are rounded to six digits, estimates say so
//   tsv     with a line of names; \t, \n, \r and \\ for those characters; numbers to the last digit
//   csv     the same columns, RFC 4180
//   jsonl   one object a line
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

enum class table_format { table, tsv, csv, jsonl };
inline const std::vector<std::string> TABLE_FORMATS = {"table", "tsv", "csv", "jsonl"};
table_format table_format_from_name(const std::string& name);  // of TABLE_FORMATS; "" is table

struct table_cell {
    enum kind_t { NOTHING, TEXT, COUNT, NUMBER, TEXTS };
    kind_t kind = NOTHING;
    std::string text = {};
    uint64_t count = 0;
    double number = 0;
    bool is_estimate = false;
    std::vector<std::string> texts = {};
};
table_cell text_cell(std::string_view text);
table_cell count_cell(uint64_t count);
table_cell number_cell(double number);

struct table_column {
    std::string name;
    bool is_number = false;  // aligned to the right
};

struct table_output {
    text_output* out = nullptr;
    table_format format = table_format::table;
    std::vector<table_column> columns;
    // A bar beside each row of a table, for the value of this column; none without a peak.
    size_t bar_column = 0;
    double bar_peak = 0;
    size_t line_width = 0;  // 0: lines are as long as they are

    std::vector<std::vector<std::string>> held;  // rows that the widths of a table are to be learned from
    std::vector<double> held_bars;
    std::vector<size_t> widths;
    bool is_settled = false;
};

void table_begin(table_output* table);  // prints the names
void table_put_row(table_output* table, const std::vector<table_cell>& cells);
void table_end(table_output* table);

// As a table shows a number: six digits, all those before the point.
std::string number_text(double number);
// The shortest text that gives the number back, without an exponent where that is readable.
std::string exact_number_text(double number);
// How many characters a terminal shows for a text.
size_t text_width(std::string_view text);
// A bar of eighths of a block, as long as `part` is of `width` characters.
std::string bar_text(double part, size_t width);
// The characters of a line of the terminal, or of $COLUMNS, but at least 20; 80 when nobody says.
size_t terminal_width();

}  // namespace veldar::tool
