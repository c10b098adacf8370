#include "tools/veldar/text_output.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace veldar {

namespace {

constexpr size_t PIECE = size_t{64} << 10;
constexpr size_t MESSAGES_MAX = 20;  // one message a missing file is useful, one an event is not

}  // namespace

void output_open(text_output* out, const std::string& when) {
    std::signal(SIGPIPE, SIG_IGN);
    out->terminal = ::isatty(STDOUT_FILENO) == 1;
    const char* const no_color = std::getenv("NO_COLOR");
    const bool wanted = out->terminal && (no_color == nullptr || *no_color == '\0');
    out->colour = when == "always" || (when != "never" && wanted);
    out->bytes.reserve(PIECE + PIECE / 4);
}

void output_end_record(text_output* out) {
    if (out->terminal || out->bytes.size() >= PIECE) output_flush(out);
}

void output_flush(text_output* out) {
    size_t at = 0;
    while (at < out->bytes.size() && !out->closed) {
        const ssize_t written = ::write(STDOUT_FILENO, out->bytes.data() + at, out->bytes.size() - at);
        if (written >= 0) {
            at += static_cast<size_t>(written);
        } else if (errno == EPIPE) {
            out->closed = true;
        } else if (errno != EINTR) {
            const int failure = errno;
            out->bytes.clear();
            fail_io("cannot write to standard output", failure);
        }
    }
    out->bytes.clear();
}

void add_color_option(CLI::App* command, std::string* when) {
    command->add_option("--color", *when, "auto, always or never")->check(CLI::IsMember({"auto", "always", "never"}));
}

void troubles_add(troubles* list, const std::string& message) {
    list->incomplete = true;
    if (list->said.size() > MESSAGES_MAX || !list->said.insert(message).second) return;
    std::fprintf(stderr, "veldar: %s\n",
                 list->said.size() > MESSAGES_MAX ? "further messages are left out" : message.c_str());
}

exit_status_t answer_status(bool found, const troubles& list) {
    if (list.incomplete) return EXIT_INCOMPLETE;
    return found ? EXIT_DONE : EXIT_NOT_FOUND;
}

}  // namespace veldar
