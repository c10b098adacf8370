#include "tools/libveldar/store/record_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/libveldar/store/disk_file.h"

namespace veldar::tool {

namespace {

constexpr size_t BUFFER_SIZE = 4 * RECORD_MAX;

size_t line_end(std::string_view bytes, size_t from) {
    const size_t newline = bytes.find('\n', from);
    return newline == std::string_view::npos ? std::string_view::npos : newline + 1;
}

// Moves the unread bytes to the front, behind the tail that is kept, and reads more behind them. False when nothing
// came.
bool fill(record_reader* reader) {
    if (reader->at_end) return false;
    if (reader->begin > RECORD_TAIL_MAX) {
        const size_t drop = reader->begin - RECORD_TAIL_MAX;
        std::memmove(reader->bytes.data(), reader->bytes.data() + drop, reader->end - drop);
        reader->end -= drop;
        reader->begin -= drop;
    }
    const uint64_t position = reader->offset + (reader->end - reader->begin);
    const uint64_t room =
        std::min<uint64_t>(reader->bytes.size() - reader->end, reader->limit > position ? reader->limit - position : 0);
    char* const into = reader->bytes.data() + reader->end;
    const int64_t got = room == 0 ? 0 : log_input_read(reader->input, into, static_cast<size_t>(room), &reader->error);
    const bool is_cut = !log_input_is_uncut(*reader->input, &reader->error);
    if (got <= 0 || is_cut) {
        reader->at_end = true;
        reader->is_broken = (got < 0 || is_cut) && !reader->input->pipe && reader->input->packed == nullptr;
        return false;
    }
    if (reader->spool >= 0 && !disk_write_at(reader->spool, {into, static_cast<size_t>(got)}, position)) {
        reader->spool_errno = errno;
        reader->at_end = true;
        return false;
    }
    reader->end += static_cast<size_t>(got);
    return true;
}

std::string_view unread(const record_reader* reader) {
    return {reader->bytes.data() + reader->begin, reader->end - reader->begin};
}

void consume(record_reader* reader, size_t size) {
    reader->begin += size;
    reader->offset += size;
}

}  // namespace

void record_reader_open(record_reader* reader, log_input* input, uint64_t limit) {
    reader->input = input;
    reader->limit = limit;
    reader->offset = input->offset;
    if (!reader->bytes.alloc(BUFFER_SIZE)) throw std::bad_alloc();
}

bool record_reader_next(record_reader* reader, uint64_t* offset, std::string_view* text) {
    record_reader_finish_record(reader);
    size_t size;
    while ((size = record_length(reader->cut, unread(reader), reader->at_end && !reader->is_broken)) == 0) {
        if (reader->end - reader->begin > RECORD_MAX) {
            reader->skipping = true;
            size = RECORD_MAX;
            break;
        }
        if (!fill(reader) && (reader->is_broken || reader->begin == reader->end)) return false;
    }
    reader->held = reader->at_end && reader->waits && record_is_open(reader->cut, unread(reader));
    if (reader->held) return false;
    *offset = reader->offset;
    *text = record_content(reader->cut, unread(reader).substr(0, size), reader->offset).substr(0, RECORD_MAX);
    consume(reader, size);
    return true;
}

void record_reader_back(record_reader* reader, uint64_t offset) {
    reader->begin -= static_cast<size_t>(reader->offset - offset);
    reader->offset = offset;
}

void record_reader_finish_record(record_reader* reader) {
    while (reader->skipping) {
        const size_t end = line_end(unread(reader), 0);
        consume(reader, end == std::string_view::npos ? reader->end - reader->begin : end);
        reader->skipping = end == std::string_view::npos && fill(reader);
    }
}

std::string_view record_reader_tail(const record_reader* reader) {
    const size_t size = std::min(reader->begin, RECORD_TAIL_MAX);
    return {reader->bytes.data() + reader->begin - size, size};
}

std::string_view record_reader_peek(record_reader* reader) {
    while (reader->end - reader->begin < RECORD_MAX && fill(reader)) {
    }
    return unread(reader);
}

}  // namespace veldar::tool
