// Log formats: how a line of a log becomes the time and the fields of an event.
//
// A format is a row of a table: a name and a function that takes one line. The functions never throw on any byte, run
// in time linear in the line, and allocate nothing once `parsed_line` has grown to the log's usual size.
#pragma once

#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/libveldar/formats/log_columns.h"
#include "tools/libveldar/formats/log_time.h"
#include "tools/libveldar/formats/time_place.h"

namespace veldar::tool {

struct field_view {
    std::string_view name, value;
};

struct json_scratch;
struct json_scratch_delete {
    void operator()(json_scratch* scratch) const;
};

// What one line holds. One record serves a whole load: each parse clears it first. The views point into the line, into
// constant text or into this record; they are valid until the next parse and as long as the line is. Values are as they
// stand in the log, without the escapes of JSON, of logfmt and of URLs (not folded, never empty; "-" of an access log is
// left out); a name may occur more than once.
struct parsed_line {
    bool has_time = false;
    bool elsewhere = false;  // the time is not at the place of the file's, but can mean one only
    st_timeval_t time;
    std::vector<field_view> fields;
    std::string_view host;   // the machine that the line names as its own; empty: none
    bool no_event = false;   // the line is the head of a table
    bool form_only = false;  // set by who only asks whether the line has a form: then it gets no pairs without it

    // Room for texts that do not stand in the line.
    std::deque<std::string> made;  // a deque keeps them in place
    size_t made_used = 0;
    std::unique_ptr<json_scratch, json_scratch_delete> json;  // made by the first line that needs it
    std::unique_ptr<parsed_line> inner;                       // of a line inside the line; the same
    bool inner_used = false;                                  // the line has one
    int depth = 0;                                            // inside how many others this one is
};

inline constexpr int64_t NO_TIME_SEEN = std::numeric_limits<int64_t>::min();

// What a file tells about its lines, and what its lines told so far. One per file being loaded; when a load goes on in
// the middle of a file, set `last_local_s` from the checkpoint so that the years go on too.
struct format_context {
    log_zone zone;                        // for times written without one
    int year = 0;                         // for times without a year: that of the first line; 0 infers it
    int64_t modified_s = NO_TIME_SEEN;    // the file's modification time, or now for a pipe: no inferred time is later
                                          // than a day after it
    int64_t last_local_s = NO_TIME_SEEN;  // state: the last time with an inferred year or day, in local seconds
    time_place times;                     // where lines say their time: what tells records from the lines that continue
                                          // them, and to the text format their times
    log_columns columns;            // of the formats whose head names them; a new head inside the log changes them
    std::string time_field;         // the field that says the time, at `times` in its value; empty: the format
                                    // knows, or lines say it at `times`
    int64_t boot_s = NO_TIME_SEEN;  // what seconds since the machine started count from; unknown: no time
    int64_t last_s = NO_TIME_SEEN;  // state: the last time; of an hour that occurs twice it tells which one
    std::string unclear_zone;       // state: the first zone's name that means several offsets
    uint64_t unclear_zones = 0;     // state: how many times had one
    std::string named_zone;         // state: the last zone that a line named, such as Europe/Berlin
    log_zone named;                 // state: that one
    bool zone_taken = false;        // state: `zone` was taken for a time without one
};

// What begins a record of a format.
enum class record_rule : uint8_t {
    indents,  // a line that is not empty and does not begin with a blank: where no times are known
    times,    // a line that says a time; the others continue it
    lines,    // every line
    quotes,   // a line before which no quote is open
    journal,  // a line "__CURSOR=..."
    objects,  // a JSON object
};

struct user_format;

struct line_format {
    const char* name;         // for --format and the checkpoint
    const char* description;  // for --help
    // Fills `out` from `line` (without its newline; a carriage return at its end is ignored). True when the line has
    // this format's form. When it has not, `out` still holds the `key=value` pairs of the line and no time.
    bool (*parse)(std::string_view line, format_context* context, parsed_line* out);
    bool is_json = false;       // the words of a record are those of its json_text
    bool whole_record = false;  // `parse` takes all lines of a record; else the first
    record_rule records = record_rule::times;
    bool is_placed = false;             // its times are, or may be, where format_context::times says
    const user_format* user = nullptr;  // it is from a file of formats, and `parse` that of text
};

// Parses a line and finds the time of one that the format finds none in, as in a file of mixed formats. True when the
// line has the format's form, and its time, if any, where that of the file is.
bool parse_log_line(const line_format& format, std::string_view line, format_context* context, parsed_line* out);
// The `key=value` pairs of a line that continues a record.
void parse_continued_line(std::string_view line, parsed_line* out);

// What begins a record of a log of this format.
record_rule record_rule_of(const line_format& format, const format_context& context);

// Every format, the most specific first; the last is "text": no time, only `key=value` pairs.
std::span<const line_format> line_formats();
const line_format* format_by_name(std::string_view name);  // null when unknown
// What a store keeps of a file's format, and back: the name, behind a blank the place of the times (behind "=NAME" and a
// tab when a field says them), and in a second line the columns.
std::string format_record(const line_format& format, const format_context& context);
// A format that is not known any more, from a file of formats, is text.
const line_format* format_by_record(std::string_view record, format_context* context);
std::string format_names();  // "access, syslog, ...", for --help

// The format that most of `first_lines` have (a hundred lines are plenty), the more specific of two that fit about
// equally well; "text" when no format fits a quarter of the lines that begin a record. Never null.
const line_format* detect_format(std::span<const std::string_view> first_lines, const format_context& context);

// The format of a log whose head names its columns, which are set in the context; null when it names none. With `wanted`
// only that format counts.
const line_format* detect_columns(std::span<const std::string_view> first_lines, const line_format* wanted,
                                  format_context* context);

// What of a record its format's parse takes; a prefix of the record.
std::string_view parsed_part(const line_format& format, std::string_view record);

// False for lines that continue the record before: empty ones and those that begin with a blank or a tab.
bool begins_record(std::string_view line);

}  // namespace veldar::tool
