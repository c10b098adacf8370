// Turns the records of one log into events: a time, the names of its host, source and sourcetype, and its terms.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "searchthing/base/st_timeval.h"
#include "tools/libveldar/formats/line_format.h"
#include "tools/libveldar/formats/terms.h"
#include "tools/libveldar/store/record_cut.h"

namespace veldar::tool {

struct log_event_maker {
    const line_format* format = nullptr;
    format_context context;
    std::string source, sourcetype, host;  // host: of lines that do not name theirs, or of all when host_fixed
    bool host_fixed = false;
    bool with_parts = false;  // parts of words are terms too
    st_timeval_t time;        // of the last record: what a record without a time takes
    bool has_time = false;
    bool from_file = false;  // it is not from a record, but from the file

    bool formed = false;  // the last record's line has the format's form
    parsed_line first, continued;
    term_set terms;
    std::string plain, decoded;  // scratch
    std::string_view line_host;  // of the last record made
};

// Takes over the time of a record, and what its format remembers from line to line, without making an event.
void log_event_note(log_event_maker* maker, std::string_view record);
// The fields of a record as it writes them, those of its continued lines too; the views are valid until the next record.
void log_event_fields(log_event_maker* maker, std::string_view record, std::vector<field_view>* fields);
// When no time is known yet: takes the first that stands in these records, else `otherwise`.
void log_event_look_ahead(log_event_maker* maker, const record_cut& cut, std::string_view records, int64_t otherwise);
// Makes the event of a record: maker->time, ->line_host and ->terms, the views valid until the next record.
void log_event_make(log_event_maker* maker, std::string_view record);

}  // namespace veldar::tool
