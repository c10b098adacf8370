#include "tools/libveldar/store/line_reader.h"

#include <cstring>

namespace veldar::tool {

namespace {

// Moves the unread bytes to the front and reads behind them. False when nothing was added.
bool fill(line_reader* reader) {
    if (reader->at_end) return false;
    char* const bytes = reader->bytes.data();
    std::memmove(bytes, bytes + reader->begin, reader->end - reader->begin);
    reader->end -= reader->begin;
    reader->begin = 0;
    const int64_t got =
        log_input_read(reader->input, bytes + reader->end, reader->bytes.size() - reader->end, &reader->error);
    if (got > 0 && !log_input_is_uncut(*reader->input, &reader->error)) {  // what came may be of another content
        if (reader->error.empty()) reader->error = "was cut while it was read; load it again";
        reader->at_end = true;
        return false;
    }
    if (got > 0) reader->end += static_cast<size_t>(got);
    reader->at_end = got <= 0;
    return got > 0;
}

// Where the first newline of the unread bytes is, from `from` bytes on; null when there is none.
char* find_newline(const line_reader& reader, size_t from) {
    char* const begin = reader.bytes.data() + reader.begin;
    return static_cast<char*>(std::memchr(begin + from, '\n', reader.end - reader.begin - from));
}

void pass(line_reader* reader, size_t count) {
    reader->begin += count;
    reader->offset += count;
}

// Passes over the rest of a line that is too long.
void skip_rest(line_reader* reader) {
    while (find_newline(*reader, 0) == nullptr) {
        pass(reader, reader->end - reader->begin);
        if (!fill(reader)) return;
    }
    pass(reader, static_cast<size_t>(find_newline(*reader, 0) + 1 - (reader->bytes.data() + reader->begin)));
}

}  // namespace

void line_reader_open(line_reader* reader, log_input* input) {
    reader->input = input;
    reader->offset = input->offset;
    if (!reader->bytes.alloc(2 * LINE_MAX_BYTES)) throw std::bad_alloc();
}

bool line_reader_next(line_reader* reader, std::span<char>* line, bool* too_long) {
    *too_long = false;
    size_t searched = 0;
    char* newline;
    while ((newline = find_newline(*reader, searched)) == nullptr) {
        searched = reader->end - reader->begin;
        if (searched > LINE_MAX_BYTES) {
            skip_rest(reader);
            *line = {};
            *too_long = true;
            return true;
        }
        if (!fill(reader)) break;
    }
    char* const begin = reader->bytes.data() + reader->begin;
    if (newline == nullptr && (reader->begin == reader->end || !reader->error.empty())) return false;
    *line = {begin, newline != nullptr ? static_cast<size_t>(newline - begin) : reader->end - reader->begin};
    pass(reader, line->size() + (newline != nullptr ? 1 : 0));
    *too_long = line->size() > LINE_MAX_BYTES;
    return true;
}

}  // namespace veldar::tool
