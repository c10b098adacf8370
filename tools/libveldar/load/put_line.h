// One line of `veldar put`: an event as numbers and terms, separated by tabs.
//
//   time[.fraction] address source sourcetype host measure terms
//
// The terms are separated by blanks; "%20" and the like stand for one byte, so a term may hold any byte but NUL.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "searchthing/values/st_tsval.h"

namespace veldar::tool {

struct put_event {
    st_txn txn;
    std::vector<std::string_view> terms;
};

// Parses a line without its newline; percent codes are decoded in place and the terms point into the line. Null, or
// what is wrong with it (constant text).
const char* put_line_parse(std::span<char> line, put_event* event);

// A fraction of a second as transactions carry it: ((2 d + 1) << z) for z zeros followed by the digits of d; 0 for
// none.
uint64_t encode_subsecond(uint32_t nanoseconds);

}  // namespace veldar::tool
