// What has been loaded into a metric directory, and how far, so that a file that is loaded again adds only what is new.
//
// One line a note in "metrics.loaded", appended when the samples are in slices; an incomplete last line does not count:
//
//   <size> <hash> <head> <options> <offset> <check>
//
// The first `size` bytes of the file as it lies on the disk have the XXH64 `hash` and the first 4096 of them (or all)
// `head`; loaded with what `options` hashes, its first `offset` bytes (of the text, once decompressed) are in the
// index. Numbers are hexadecimal. `check` is the XXH64 of the line before it; a line without one is taken as it is.
#pragma once

#include <xxhash.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/log_input.h"

namespace veldar::tool {

struct metric_note {
    uint64_t size = 0, hash = 0, head = 0, options = 0, offset = 0;
    bool operator==(const metric_note&) const = default;
};

// The hash of ever longer beginnings of one file.
struct file_hash {
    file_hash();
    file_hash(const file_hash&) = delete;
    file_hash& operator=(const file_hash&) = delete;
    ~file_hash();

    XXH64_state_t* state;
    uint64_t at = 0;
};

struct metric_notes {
    line_file file;
    std::vector<metric_note> notes;
};

// Opens the notes of a directory and says which of them are damaged. Throws failure_t, as do all of these for the
// notes' own file.
void metric_notes_open(metric_notes* notes, const std::string& directory, bool durable);
// How much of the input's text is in the index. False with a message when the input cannot be read.
bool metric_notes_find(const metric_notes& notes, const log_input& input, uint64_t options, uint64_t* offset,
                       std::string* error);
// Makes the note that the text before `offset` of a regular file is in the index; offsets ascend from note to note of
// one hash. False as above.
bool metric_note_make(file_hash* hash, const log_input& input, uint64_t options, uint64_t offset, metric_note* note,
                      std::string* error);
// Its line, without an end.
std::string metric_note_line(const metric_note& note);
// Adds the note that a line holds, unless it is there. One that is damaged is named and left out.
void metric_notes_add_line(metric_notes* notes, std::string_view line);

}  // namespace veldar::tool
