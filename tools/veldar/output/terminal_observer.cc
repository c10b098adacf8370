#include "tools/veldar/output/terminal_observer.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/store/visible_text.h"

namespace veldar::tool {

namespace {

void clear_line(terminal_observer* terminal) {
    if (std::exchange(terminal->has_line, false)) std::fputs("\r\033[K", stderr);
}

void say(void* context, notice_t kind, const std::string& message) {
    auto* const terminal = static_cast<terminal_observer*>(context);
    clear_line(terminal);
    std::string text = kind == NOTICE_TROUBLE ? "veldar: " : "";
    // Control characters of names in a message are not for a terminal to obey.
    terminal->is_terminal ? put_visible(&text, message) : static_cast<void>(text.append(message));
    text += '\n';
    std::fwrite(text.data(), 1, text.size(), stderr);
}

std::string rate_text(const work_progress& now) {
    return fmt::format("{:.1f} MB/s", static_cast<double>(now.done) / 1e6 / now.seconds);
}

void show(void* context, const work_progress& now) {
    auto* const terminal = static_cast<terminal_observer*>(context);
    if (!terminal->is_terminal || !terminal->shows_progress) return;
    std::string line =
        now.kind == work_progress::MERGING
            ? fmt::format("merging, {} of {}, {}", bytes_text(now.done), bytes_text(now.total), rate_text(now))
            : fmt::format("{} events, {}, {}", number_text(now.events), bytes_text(now.done), rate_text(now));
    if (now.total != 0) {
        constexpr uint64_t WIDTH = 30;
        const uint64_t filled = std::min(WIDTH, now.done * WIDTH / now.total);
        line = fmt::format("[{}{}] {:3}% {}", std::string(filled, '#'), std::string(WIDTH - filled, ' '),
                           std::min<uint64_t>(100, now.done * 100 / now.total), line);
    }
    terminal->has_line = true;
    std::fprintf(stderr, "\r%s\033[K", line.c_str());
    std::fflush(stderr);
}

}  // namespace

observer terminal_observer_open(terminal_observer* terminal) {
    terminal->is_terminal = ::isatty(STDERR_FILENO) == 1;
    return {.context = terminal,
            .say = say,
            .show = show,
            .shown_all = [](void* context) { clear_line(static_cast<terminal_observer*>(context)); },
            .has_options = true};
}

}  // namespace veldar::tool
