// Reads a log record by record, as a rule cuts it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "libzero/resource.h"
#include "tools/libveldar/store/log_input.h"
#include "tools/libveldar/store/record_cut.h"

namespace veldar::tool {

inline constexpr size_t RECORD_TAIL_MAX = 4096;

struct record_reader {
    log_input* input = nullptr;
    record_cut cut;
    bool waits = false;             // the last record is not given while it is open: it waits for its rest
    uint64_t limit = ~uint64_t{0};  // no byte from this offset on is taken
    int spool = -1;                 // gets a copy of every byte that is read, at the same offset; -1: none
    buffer<char> bytes;
    size_t begin = 0, end = 0;  // the unread bytes
    uint64_t offset = 0;        // of bytes[begin]
    bool at_end = false;
    bool is_broken =
        false;              // the end is none: a file was cut, or could not be read further; its last part is no record
    bool held = false;      // the last record waits
    bool skipping = false;  // inside a long line whose first bytes have been given
    std::string error;      // why the input ended early; empty for its real end
    int spool_errno = 0;    // why the spool could not be written
};

// Reads from the input's present offset, by the cut as it is set. Throws std::bad_alloc.
void record_reader_open(record_reader* reader, log_input* input, uint64_t limit);
// The next record: its offset and at most RECORD_MAX bytes of its content, valid until the next call. False at the end:
// reader->offset then stands behind the last record.
bool record_reader_next(record_reader* reader, uint64_t* offset, std::string_view* text);
// Gives the bytes from this offset on back, which is inside the record given last; that one was not a long line.
void record_reader_back(record_reader* reader, uint64_t offset);
// Skips what is left of a long line, so that reader->offset is the end of the last record given.
void record_reader_finish_record(record_reader* reader);
// The bytes before reader->offset: at most RECORD_TAIL_MAX, and not before where the reader began.
std::string_view record_reader_tail(const record_reader* reader);
// The unread bytes at hand, after a try to have at least RECORD_MAX: for a look ahead.
std::string_view record_reader_peek(record_reader* reader);

}  // namespace veldar::tool
