#include "tools/libveldar/partial/budget.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "tools/libveldar/query/time_bins.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/percent_text.h"

namespace veldar::tool {

namespace {

constexpr char CURSOR_MARK[] = "veldar cursor 1\n";
constexpr uint64_t ASKED_BETWEEN = 64;  // the system is asked for the bytes read once in so many times

// Bytes that this process has read, from memory too; none when the system does not tell.
std::optional<uint64_t> bytes_read() {
    FILE* const file = std::fopen("/proc/self/io", "re");
    unsigned long long bytes = 0;
    const bool known = file != nullptr && std::fscanf(file, "rchar: %llu", &bytes) == 1;
    if (file != nullptr) std::fclose(file);
    return known ? std::optional<uint64_t>(bytes) : std::nullopt;
}

double seconds_since(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

}  // namespace

// Hands on what the outer observer is to hear.
observer budget_watch::forwarding(budget_watch* watch) {
    observer own;
    if (watch->outer_ != nullptr) own = *watch->outer_;
    own.context = watch;
    if (own.say != nullptr) {
        own.say = [](void* context, notice_t kind, const std::string& message) {
            const observer* const outer = static_cast<budget_watch*>(context)->outer_;
            outer->say(outer->context, kind, message);
        };
    }
    if (own.show != nullptr) {
        own.show = [](void* context, const work_progress& progress) {
            const observer* const outer = static_cast<budget_watch*>(context)->outer_;
            outer->show(outer->context, progress);
        };
    }
    if (own.shown_all != nullptr) {
        own.shown_all = [](void* context) {
            const observer* const outer = static_cast<budget_watch*>(context)->outer_;
            outer->shown_all(outer->context);
        };
    }
    own.stops = [](void* context) {
        auto* const one = static_cast<budget_watch*>(context);
        const observer* const outer = one->outer_;
        return one->is_over() || (outer != nullptr && outer->stops != nullptr && outer->stops(outer->context));
    };
    return own;
}

budget_watch::budget_watch(const answer_budget& budget)
    : budget_(budget),
      begin_(std::chrono::steady_clock::now()),
      outer_(observer_current()),
      own_(forwarding(this)),
      scope_(&own_) {
    if (budget.max_read == 0) return;
    const std::optional<uint64_t> bytes = bytes_read();
    if (!bytes) throw failure_t{OUTCOME_IO, "the system does not tell how much is read (/proc/self/io)"};
    read_before_ = *bytes;
}

bool budget_watch::is_over() {
    if (is_patient_) return false;
    if (over_) return true;
    const bool asks = budget_.max_read != 0 && asked_++ % ASKED_BETWEEN == 0;
    const bool is_late =
        budget_.deadline_ns != 0 && seconds_since(begin_) * 1e9 >= static_cast<double>(budget_.deadline_ns);
    if (is_late || (asks && used() >= 1)) over_ = true;
    return over_;
}

double budget_watch::used() const {
    double part = 0;
    if (budget_.deadline_ns != 0) part = seconds_since(begin_) * 1e9 / static_cast<double>(budget_.deadline_ns);
    if (budget_.max_read != 0) {
        const uint64_t bytes = bytes_read().value_or(read_before_) - read_before_;
        part = std::max(part, static_cast<double>(bytes) / static_cast<double>(budget_.max_read));
    }
    return part;
}

int64_t deadline_parse(const std::string& text) {
    bin_width width;
    const bool is_time = bin_width_parse(text, &width) && width.unit == bin_width::NANOSECONDS;
    if (!is_time) throw failure_t{OUTCOME_USAGE, input_name("deadline") + " " + text + ": expected 500ms, 2s, 1m ..."};
    return width.count;
}

std::optional<answer_cursor> cursor_read(const std::string& path, const std::string& identity, question* asked) {
    std::string text;
    if (!disk_read_file(path, &text)) {
        if (errno == ENOENT) return std::nullopt;
        fail_io("cannot read", path, errno);
    }
    // No value of a question begins a line.
    const size_t end = text.find("\nstore "), place = text.find("\nbefore @");
    question before;
    const bool is_cursor = text.starts_with(CURSOR_MARK) && end < place && place != std::string::npos &&
                           question_parse(text.substr(sizeof CURSOR_MARK - 1, end - (sizeof CURSOR_MARK - 2)), &before);
    char time[64];
    long long width = 0;
    unsigned long long told = 0;
    answer_cursor cursor;
    log_zone utc;
    const bool is_place = is_cursor &&
                          std::sscanf(text.c_str() + place, "\nbefore %63s width %lld used %lf told %llu", time, &width,
                                      &cursor.used, &told) == 4 &&
                          time_input_parse(time, &utc, 0, &cursor.before) && width >= 0 && cursor.used >= 0;
    if (!is_place) {
        throw failure_t{.status = OUTCOME_USAGE, .message = path + ": no cursor that an answer left", .file = path};
    }
    // Times such as "-1h" were made absolute when the question was asked first.
    question now = *asked;
    for (const char* const name : {"since", "until"}) {
        now.values.erase(name);
        now.set(name, before.value(name));
    }
    if (question_text(now) != question_text(before)) {
        throw failure_t{.status = OUTCOME_USAGE,
                        .message = path + " is the cursor of another question: expected that one, or another file",
                        .file = path};
    }
    if (percent_decode(text.substr(end, place - end).substr(sizeof "\nstore " - 1)) != identity) {
        throw failure_t{.status = OUTCOME_USAGE,
                        .message = path + " is the cursor of another store: expected that one, or another file",
                        .file = path};
    }
    *asked = now;
    cursor.width_s = width;
    cursor.told = told;
    return cursor;
}

void cursor_write(const std::string& path, const std::string& identity, const question& asked,
                  const std::optional<answer_cursor>& cursor) {
    if (!cursor) {
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) fail_io("cannot remove", path, errno);
        return;
    }
    const std::string text = CURSOR_MARK + question_text(asked) +
                             fmt::format("store {}\nbefore {} width {} used {} told {}\n", percent_encode(identity),
                                         time_input_text(cursor->before), cursor->width_s, cursor->used, cursor->told);
    if (!disk_replace_file(path, text, false)) fail_io("cannot write", path, errno);
}

}  // namespace veldar::tool
