// Standard output of the commands that answer questions: collected in large pieces, and shown record by record on a
// terminal. When the reader has gone away (a closed pipe), what follows is dropped and `closed` says so.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "tools/veldar/command.h"

namespace CLI {
class App;
}

namespace veldar {

struct text_output {
    std::string bytes;
    bool terminal = false;
    bool colour = false;
    bool closed = false;
};

// `when` is "auto" (colour on a terminal unless NO_COLOR is set), "always" or "never". From here on a closed pipe is an
// error of a write and no signal.
void output_open(text_output* out, const std::string& when);
inline void output_put(text_output* out, std::string_view text) {
    out->bytes.append(text);
}
// Ends a record: whole records reach a terminal at once, and anything else in pieces of 64 KiB. Throws tool_failure
// when standard output cannot be written.
void output_end_record(text_output* out);
void output_flush(text_output* out);

// Adds --color.
void add_color_option(CLI::App* command, std::string* when);

// What kept an answer from being complete. Each message is said once, on standard error.
struct troubles {
    bool incomplete = false;
    std::set<std::string> said;
};
void troubles_add(troubles* list, const std::string& message);
// The exit status of a command that found something, or nothing, and may have missed some.
exit_status_t answer_status(bool found, const troubles& list);

}  // namespace veldar
