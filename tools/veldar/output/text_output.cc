#include "tools/veldar/output/text_output.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace veldar {

namespace {

constexpr size_t PIECE = size_t{64} << 10;
constexpr size_t MESSAGES_MAX = 20;  // one message a missing file is useful, one an event is not

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
            fail_io("cannot write to standard output", failure);
        }
    }
    out->bytes.clear();
}

void put_visible(std::string* out, std::string_view text) {
    constexpr std::string_view HEX = "0123456789ABCDEF";
    for (size_t at = 0; at < text.size();) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const size_t length = std::max<size_t>(utf8_length(text.substr(at)), 1);
        const bool wide_control = length == 2 && byte == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0;
        const bool line_end = byte == '\r' && at + 1 < text.size() && text[at + 1] == '\n';
        if ((byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7F) {
            if (!line_end) out->append({'^', static_cast<char>(byte ^ 0x40)});
        } else if (wide_control || (length == 1 && byte >= 0x80 && byte < 0xA0)) {
            const auto code = static_cast<unsigned char>(text[at + length - 1]);
            out->append({'\\', 'x', HEX[code >> 4], HEX[code & 15]});
        } else {
            out->append(text.substr(at, length));
        }
        at += length;
    }
}

size_t utf8_length(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    const size_t length = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
    if (length == 0 || length > text.size()) return 0;
    uint32_t code = length == 1 ? lead : lead & (0x7Fu >> length);
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        code = code << 6 | (byte(i) & 0x3F);
    }
    constexpr std::array<uint32_t, 5> LEAST = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800 && code < 0xE000;
    return code < LEAST[length] || surrogate || code > 0x10FFFF ? 0 : length;
}

void add_color_option(CLI::App* command, std::string* when) {
    command->add_option("--color", *when, "auto, always or never")->check(CLI::IsMember({"auto", "always", "never"}));
}

void say_trouble(const std::string& message) {
    std::string text = "veldar: ";
    ::isatty(STDERR_FILENO) == 1 ? put_visible(&text, message) : static_cast<void>(text.append(message));
    std::fputs(text.append("\n").c_str(), stderr);
}

void troubles_add(troubles* list, const std::string& message, exit_status_t status) {
    list->incomplete = true;
    list->status = std::max(list->status, status);
    if (list->said.size() > MESSAGES_MAX || !list->said.insert(message).second) return;
    say_trouble(list->said.size() > MESSAGES_MAX ? "further messages are left out" : message);
}

exit_status_t answer_status(bool found, const troubles& list) {
    if (list.incomplete) return list.status;
    return found ? EXIT_DONE : EXIT_NOT_FOUND;
}

}  // namespace veldar
