// A partial answer as a stream of bytes: what one or several stores answer to a question, for others to merge.
//
//   veldar partial 1\n
//   kind search\n               the question (question.h), a line a value
//   query status=500\n ...
//   \n
//   part SLICES RAW IDENTITY\n  for each index directory that answered, ascending: how many slices were asked; 1 when its
//   ...                         records can be read, else 0; who it is (index_identity), percent-encoded
//   \n
//   records                     binary, see below; a byte 0 behind the last one
//   lacks MESSAGE\n             what could not be read, ascending; percent-encoded
//   complete-back-to TIME\n     events before this time ("@seconds.nanoseconds") may lack; no line: none do
//   records N\n
//   end HASH\n                  XXH64 (seed 0) of all that precedes this line, 16 hexadecimal digits
//
// Everything ends up in one of a few hands: a stream without its end, or with another hash, is no answer at all. Streams
// may stand one behind the other.
//
// A number in a record is a varint, seven bits a byte and the low ones first; a signed one is zigzag. A text is its size
// and its bytes. A name is a number: twice the place of a name that came before in this stream, or an odd number and
// then the text of the next place. The records are all of one kind, which is the first byte:
//
//   1  event    time and nanoseconds; part; address; flags (1 raw is there, 2 lines are there,
//               4 the nanoseconds are the index's own, and order); directory, host, source,
//               sourcetype (names); raw; how many fields: name, how many values: texts; with lines: path (name), offset,
//               size, lines before and lines behind (how many: texts). Newest first, then by part, then by address, the
//               greater first
//   2  term     text; events; first and last time (signed). Ascending
//   3  sample   series (name); milliseconds (signed); value (8 bytes, little-endian). Newest first, then by series and by
//               the bits of the value
//   4  count    a number. One record
//   5  table    values refused as no number; such a value (text); a table's bytes (select_table.h; text). At most one
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "searchthing/lexicon/term_choice.h"
#include "tools/libveldar/load/event_record.h"
#include "tools/libveldar/partial/question.h"

struct XXH64_state_s;

namespace veldar::tool {

// An index directory that answered.
struct partial_part {
    std::string identity;
    uint64_t slices = 0;
    bool knows_raw = false;
    bool operator==(const partial_part&) const = default;
};

// What an answer covers besides.
struct partial_coverage {
    std::vector<std::string> lacks;                // ascending
    std::optional<st_timeval_t> complete_back_to;  // null: to the beginning
};

using partial_sink = std::function<void(std::string_view)>;

struct partial_hash_free {
    void operator()(XXH64_state_s* hash) const;
};

// Writes a stream: begin, records in their order, end. May throw what the sink throws, and std::bad_alloc.
struct partial_writer {
    partial_sink sink;
    std::string pending;
    std::unique_ptr<XXH64_state_s, partial_hash_free> hash;
    std::unordered_map<std::string, uint64_t> names;
    uint64_t records = 0;
};
void partial_begin(partial_writer* writer, const question& asked, const std::vector<partial_part>& parts,
                   partial_sink sink);
void partial_put_event(partial_writer* writer, uint64_t part, const event_record& event);
void partial_put_term(partial_writer* writer, std::string_view term, const term_totals_t& totals);
void partial_put_sample(partial_writer* writer, std::string_view series, int64_t time_ms, double value);
void partial_put_count(partial_writer* writer, uint64_t count);
void partial_put_table(partial_writer* writer, const select_table_t& table, uint64_t refused,
                       std::string_view no_number);
void partial_end(partial_writer* writer, const partial_coverage& coverage);

// A stream that is whole; it points into the bytes that were read.
struct partial {
    question asked;
    std::vector<partial_part> parts;
    partial_coverage coverage;
    std::string_view body;  // the records, without the byte behind them
    uint64_t records = 0;
    size_t longest_host = 0, longest_source = 0;
    bool knows_raw = true;  // every event is of a part whose records can be read
};
// Takes one stream off the front of the bytes. False with what is wrong with it; the bytes are then where they were. All
// records have been looked at, so that reading them cannot fail. May throw std::bad_alloc.
[[nodiscard]] bool partial_take(std::string_view* bytes, partial* out, std::string* fault);

// Reads the records of a stream one by one.
struct partial_reader {
    std::string_view body, rest;
    std::vector<std::string_view> names;

    // The record that was read last, by kind; texts point into the stream.
    event_record event;
    uint64_t part = 0;
    std::string_view term;
    term_totals_t totals;
    std::string_view series;
    int64_t time_ms = 0;
    double value = 0;
    uint64_t count = 0;  // also: the values refused
    std::string_view no_number, table;
};
partial_reader partial_read(const partial& from);
// Moves to the next record; false at the end.
bool partial_next(partial_reader* reader);
// Where the next record begins; and back to a record that was read before.
inline size_t partial_place(const partial_reader& reader) {
    return reader.body.size() - reader.rest.size();
}
inline void partial_go_to(partial_reader* reader, size_t place) {
    reader->rest = reader->body.substr(place);
}

}  // namespace veldar::tool
