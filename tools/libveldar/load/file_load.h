// The records of one file on their way into the buckets of a store, and what is told of their times.
#pragma once

#include <cstdint>

#include "tools/libveldar/load/loader.h"
#include "tools/libveldar/load/log_form.h"

namespace veldar::tool {

// What becomes of a last line, or record, without an end.
enum last_line_t : uint8_t { LINE_WAITS_WHILE_YOUNG, LINE_WAITS, LINE_IS_TAKEN };

// What is loaded from one file in one run.
struct file_load {
    log_input input;
    record_reader reader;
    std::string name, place;  // the log's, and where the file really is; both absolute
    std::string shown;        // the name as it was given
    last_line_t last_line = LINE_WAITS_WHILE_YOUNG;
    source_file file;
    uint32_t cut = 0;  // line of the file's rules
    int64_t odd = 0;   // records in a row that have not the format's form; below zero: so many are passed over
    log_form form;     // what the log goes on with, once it takes another form
    source_file next_file;
    uint32_t next_cut = 0;
    uint64_t from = 0;  // where reading begins
    bool in_stretch = false;
    uint64_t events = 0;
    uint64_t dated_by_file = 0, dated_by_line = 0;  // of these
    uint64_t line = 0;                              // number of the line that the next record begins with; 0: not known
};

// The bucket that records go into. The functions below throw failure_t for failures of the store.
store_bucket& load_bucket(loader* load);
// Opens the bucket that the next record goes into: the last one, or a new one.
void load_open_bucket(loader* load);
// Syncs it and says that what it has is indexed.
void load_sync_bucket(loader* load);
// Syncs and closes it, and says that what it has is indexed.
void load_close_bucket(loader* load);

// Puts every record up to the end of the input, or until the command is interrupted. A log whose lines take another
// form goes on as another file of the source map: one->file is the last one then.
void file_load_records(loader* load, file_load* one);
// Tells what a reader of the file's times has to know.
void file_load_tell(loader* load, const file_load& one);

}  // namespace veldar::tool
