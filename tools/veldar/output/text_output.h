// Standard output of the commands that answer questions: collected in large pieces, and shown record by record on a
// terminal. When the reader has gone away (a closed pipe), what follows is dropped and `closed` says so.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "tools/veldar/commands/command.h"

namespace CLI {
class App;
}

namespace veldar {

struct text_output {
    std::string bytes;
    size_t made_visible = 0;  // on a terminal: how many of the bytes can be shown as they are
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
// Ends a record: whole records reach a terminal at once, and anything else in pieces of 64 KiB. Throws tool_failure
// when standard output cannot be written.
void output_end_record(text_output* out);
void output_flush(text_output* out);

// Appends the text with its control characters visible, newlines and tabs aside: "^[", "^M", and "\\x9B" for the bytes
// that begin a command in an 8-bit set.
void put_visible(std::string* out, std::string_view text);
// The bytes of the UTF-8 character at the beginning of a text that is not empty; 0 when it is none.
size_t utf8_length(std::string_view text);

// Adds --color.
void add_color_option(CLI::App* command, std::string* when);

// Prints "veldar: message" on standard error; on a terminal the control characters of names in it are visible.
void say_trouble(const std::string& message);

// What kept an answer from being complete. Each message is said once, on standard error.
struct troubles {
    bool incomplete = false;
    exit_status_t status = EXIT_DONE;  // of a command that found something all the same
    std::set<std::string> said;
};
void troubles_add(troubles* list, const std::string& message, exit_status_t status = EXIT_INCOMPLETE);
// The exit status of a command that found something, or nothing, and may have missed some.
exit_status_t answer_status(bool found, const troubles& list);

}  // namespace veldar
