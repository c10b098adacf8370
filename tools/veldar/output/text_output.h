// Standard output of the commands that answer questions: collected in large pieces, and shown record by record on a
// terminal. When the reader has gone away (a closed pipe), what follows is dropped and `closed` says so.
#pragma once

#include <string>
#include <string_view>

#include "tools/libveldar/formats/log_time.h"
#include "tools/libveldar/store/troubles.h"
#include "tools/libveldar/store/visible_text.h"

namespace veldar::tool {

struct text_output {
    std::string bytes;
    size_t made_visible = 0;  // on a terminal: how many of the bytes can be shown as they are
    log_zone zone;            // in which times are printed; UTC unless a command sets it
    bool terminal = false;
    bool colour = false;
    bool closed = false;
};

// `when` is "auto" (colour on a terminal unless NO_COLOR is set), "always" or "never". From here on a closed pipe is an
// error of a write and no signal.
void output_open(text_output* out, const std::string& when);
// What is put may come from a log, and on a terminal its control characters are shown and not obeyed.
inline void output_put(text_output* out, std::string_view text) {
    out->bytes.append(text);
}
// Puts text that has commands to the terminal in it, with what came from elsewhere made visible already.
void output_put_commands(text_output* out, std::string_view text);
// Ends a record: whole records reach a terminal at once, and anything else in pieces of 64 KiB. Throws failure_t
// when standard output cannot be written.
void output_end_record(text_output* out);
void output_flush(text_output* out);

}  // namespace veldar::tool
