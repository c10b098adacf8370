// The lines of a log_input, one after another, for parsers that decode them where they stand.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "libzero/resource.h"
#include "tools/libveldar/store/log_input.h"

namespace veldar::tool {

inline constexpr size_t LINE_MAX_BYTES = size_t{1} << 20;

struct line_reader {
    log_input* input = nullptr;
    buffer<char> bytes;
    size_t begin = 0, end = 0;  // the unread bytes
    uint64_t offset = 0;        // of bytes[begin] in the input
    bool at_end = false;
    std::string error;  // why the input ended early; empty for its real end
};

// Reads from the input's present offset. Throws std::bad_alloc.
void line_reader_open(line_reader* reader, log_input* input);
// The next line without its newline; the caller may change it, and it is valid until the next call. One of more than
// LINE_MAX_BYTES is passed over: then `too_long` is set. False at the end; the beginning of a line that could not be
// read to its end is not given.
bool line_reader_next(line_reader* reader, std::span<char>* line, bool* too_long);

}  // namespace veldar::tool
