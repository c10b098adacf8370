// What the parts of slices cost: by field, and what is no field.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tools/libveldar/check/slice_image.h"

namespace veldar::tool {

struct part_bytes {
    uint64_t terms = 0;
    uint64_t lexicon = 0;  // the terms' text, front-coded
    uint64_t lists = 0;    // which events have them; a list that equals another one's costs nothing
    uint64_t records = 0;  // where the lists are, counts and times
    uint64_t all() const { return lexicon + lists + records; }
};

struct byte_account {
    std::map<std::string, part_bytes> fields;
    part_bytes words;         // the rest of them
    part_bytes value_words;   // words that are a whole value of a field of their slice, too
    part_bytes single_words;  // other words of one event
    uint64_t values = 0;      // times, addresses and the like of the events
    uint64_t rest = 0;        // headers, tables and padding
};

// Adds a slice; one without a lexicon, or a damaged one, has its bytes in `rest`. May throw std::bad_alloc; needs 8 bytes
// of memory a term.
void account_slice(const slice_image& image, byte_account* account);

}  // namespace veldar::tool
