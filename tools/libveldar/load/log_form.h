// The form of a log's lines, as the options say it or the log's beginning shows it: its format, and of a text where the
// times stand.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/libveldar/load/loader.h"

namespace veldar::tool {

// The format of most lines of a log that begins with `head` and was `recorded` (empty: it is new). Sets what the context
// holds of times. Never null.
const line_format* log_form_choose(const load_options& options, std::string_view head, const std::string& recorded,
                                   format_context* context);
// The same for what log_form_changed looks at on the way: when a new log turns to another form within its head, the one
// of its first lines.
const line_format* log_form_of_file(const load_options& options, std::string_view head, const std::string& recorded,
                                    format_context* context);

// Where a log of this form that begins with `head` is cut into records.
record_cut log_form_cut(const line_format& format, std::string_view head, const format_context& context);

// The form of lines further on in a log.
struct log_form {
    const line_format* format = nullptr;
    format_context context;
    record_cut cut;
};
// Whether a log goes on in another form: hardly one of the first lines of this text is as the maker's format and place
// have it, nearly all are as those that are found in them. Never when options say the form.
bool log_form_changed(const load_options& options, const log_event_maker& maker, std::string_view text, log_form* out);

// False with a message when the options force a form that no line of the log's beginning has: all of it would be dated
// wrongly, and what is loaded once is not loaded again.
bool log_form_check(const load_options& options, const log_zone& zone, std::string_view head, std::string* error);

// False with a message when under half of the records at the log's beginning say a time that is understood.
bool log_form_is_dated(const load_options& options, const log_zone& zone, std::string_view head, std::string* error);

// The zone of times that are written without one.
std::string log_form_zone(const load_options& options);

// What is to be said of the times of a log that was loaded.
struct log_form_counts {
    uint64_t events = 0;
    uint64_t dated_by_file = 0;  // the first of these
    uint64_t dated_by_line = 0;
    bool is_pipe = false;
    bool is_told = false;  // there are enough of them to say that few are dated
};
std::vector<std::string> log_form_notes(const load_options& options, const format_context& context,
                                        const log_form_counts& counts);

}  // namespace veldar::tool
