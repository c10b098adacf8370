#include "tools/veldar/output/text_output.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace veldar::tool {

namespace {

constexpr size_t PIECE = size_t{64} << 10;

// Makes visible what was put since the last time.
void show_controls(text_output* out) {
    if (!out->terminal) return;
    const std::string fresh = out->bytes.substr(out->made_visible);
    out->bytes.resize(out->made_visible);
    put_visible(&out->bytes, fresh);
    out->made_visible = out->bytes.size();
}

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

void output_put_commands(text_output* out, std::string_view text) {
    show_controls(out);
    out->bytes.append(text);
    out->made_visible = out->bytes.size();
}

void output_flush(text_output* out) {
    show_controls(out);
    out->made_visible = 0;
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
            fail_io("cannot write to standard output", {}, failure);
        }
    }
    out->bytes.clear();
}

}  // namespace veldar::tool
