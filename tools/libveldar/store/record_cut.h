// Where a log is cut into records. Each rule needs nothing but the bytes from a record's beginning on, so whoever knows
// where a record begins, and the rule, finds the same end.
//
//   indents  a line, and those behind it that are empty or begin with a blank
//   times    a line, and those behind it that say no time: what begins with a blank says none unless the record does
//   lines    a line
//   quotes   a line, and those behind it that begin inside a quoted cell of a table
//   journal  up to the next line "__CURSOR=..."
//   objects  a JSON object, wherever its lines end; what separates it from others is no record: "[", "]" and ","; nor is
//            the {"Records": [ around them. Other lines are cut as by indents.
//
// Lines join while the record stays within 1 MiB and, by times and quotes, 500 lines; an object or a quoted cell that
// goes on behind that, or does not end at all, ends with its first line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/libveldar/formats/line_format.h"

namespace veldar::tool {

inline constexpr size_t RECORD_MAX = size_t{1} << 20;  // what is indexed of a record, and what continuations may fill
inline constexpr size_t RECORD_LINES_MAX = 500;

struct record_cut {
    record_rule rule = record_rule::indents;
    time_place times;  // of the rule times
};

// The rule as one line of text, and back; a text that is none gives `indents`, whose text is empty.
std::string record_cut_text(const record_cut& cut);
record_cut record_cut_from_text(std::string_view text);
// That of one line of a file's rules.
record_cut record_cut_of(std::string_view rules, uint32_t line);
// The line of a rule, which is added when none has it.
uint32_t record_cut_add(std::string* rules, const record_cut& cut);

// The size of the record at the beginning of `bytes`, its last newline included; 0 when that takes more bytes than
// these. With `at_end` nothing follows them, and only empty bytes give 0.
size_t record_length(const record_cut& cut, std::string_view bytes, bool at_end);
// Whether the record at the beginning of all bytes there are is one that what follows may still end: an object, a cell.
bool record_is_open(const record_cut& cut, std::string_view bytes);
// A line or record without the newline (or CR LF) that ends it.
std::string_view record_text(std::string_view record);
// What is shown and indexed of a record that stands at this offset of its file: without the newline, the mark of UTF-8
// at the front of a file, and what separates objects. Empty for what is no record.
std::string_view record_content(const record_cut& cut, std::string_view record, uint64_t offset);

}  // namespace veldar::tool
