// veldar put: events that are tokenised already, one a line, into a bare index directory.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "libzero/resource.h"
#include "tools/libveldar/load/index_writer.h"
#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/load/put_line.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"

namespace veldar::tool {

namespace {

constexpr size_t PIECE = size_t{1} << 20;

struct put_options {
    std::string directory, input = "-";
    uint32_t level = 4;
    bool streaming = false, skip_bad = false, no_fsync = false;
    index_limits limits;
};

struct put_run {
    const put_options* options = nullptr;
    index_writer writer;
    load_totals totals;
    progress shown;
    put_event event;
    uint64_t line = 0;
    uint64_t slices = 0, lines_in_slices = 0;  // what is not in one goes with a failure
    bool is_told = false;                      // how much was put
};

std::string input_name(const put_options& options) {
    return options.input == "-" ? "standard input" : options.input;
}

unique_fd open_input(const std::string& path, uint64_t* size) {
    unique_fd fd(path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st;
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0) {
        throw failure_t{OUTCOME_INCOMPLETE, path + ": " + std::strerror(errno)};
    }
    *size = S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
    return fd;
}

// Ends the command over a line, unless bad lines are only counted.
void refuse_line(put_run* run, const char* reason) {
    run->totals.refused++;
    if (run->options->skip_bad) return;
    throw failure_t{OUTCOME_USAGE, input_name(*run->options) + ": line " + std::to_string(run->line) + ": " + reason};
}

void put_line(put_run* run, std::span<char> line) {
    run->line++;
    if (const char* const reason = put_line_parse(line, &run->event); reason != nullptr) {
        return refuse_line(run, reason);
    }
    if (!index_writer_put(&run->writer, run->event.txn, run->event.terms)) {
        return refuse_line(run, "the event is larger than an index can hold");
    }
    run->totals.add_event(run->event.txn.time);
    const uint64_t slices = index_writer_slices(&run->writer);
    if (slices == run->slices) return;
    run->slices = slices;
    run->lines_in_slices = run->line - 1;
}

// Puts the whole lines of `bytes` and returns how many bytes they are; with `last`, also a line without its newline.
size_t put_lines(put_run* run, std::span<char> bytes, bool last) {
    size_t at = 0;
    while (at < bytes.size() && !work_stops()) {
        char* const begin = bytes.data() + at;
        char* const newline = static_cast<char*>(std::memchr(begin, '\n', bytes.size() - at));
        if (newline == nullptr && !last) break;
        const size_t size = newline == nullptr ? bytes.size() - at : static_cast<size_t>(newline - begin);
        put_line(run, {begin, size});
        at += size + (newline == nullptr ? 0 : 1);
    }
    return at;
}

void put_input(put_run* run, int fd) {
    std::vector<char> bytes(2 * PIECE);
    size_t have = 0;
    for (;;) {
        if (bytes.size() - have < PIECE) bytes.resize(bytes.size() * 2);
        const int64_t got = disk_read_pipe(fd, bytes.data() + have, bytes.size() - have);
        if (got < 0) throw failure_t{OUTCOME_INCOMPLETE, input_name(*run->options) + ": " + std::strerror(errno)};
        have += static_cast<size_t>(got);
        run->totals.bytes_in += static_cast<uint64_t>(got);
        const size_t used = put_lines(run, {bytes.data(), have}, got == 0);
        if (got == 0 || work_stops()) return;
        std::memmove(bytes.data(), bytes.data() + used, have - used);
        have -= used;
        progress_show(&run->shown, run->totals.bytes_in, run->totals.events);
    }
}

// What the user can do after a failure.
std::string advice(const put_run& run) {
    if (run.lines_in_slices == 0) return "nothing was put; put all of it again once this is mended";
    return "the first " + std::to_string(run.lines_in_slices) + " lines are put; put those behind them again";
}

int put_run_all(const put_options& options) {
    put_run run;
    run.options = &options;
    uint64_t size;
    const unique_fd input = open_input(options.input, &size);
    struct stat st;
    const std::string part = store_part(options.directory);
    if (!part.empty()) {
        throw failure_t{OUTCOME_USAGE,
                        options.directory + " is " + part + ": 'veldar load' and 'veldar metrics load' fill it"};
    }
    disk_make_directory(options.directory);
    if (::stat(options.directory.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
        throw failure_t{OUTCOME_USAGE, options.directory + ": " + std::strerror(ENOTDIR)};
    }
    const std::vector<std::string> before = slice_names(options.directory);
    if (before.empty() && !options.no_fsync) disk_sync_name(options.directory);
    work_catch_interrupts();
    run.shown = progress_begin(size);
    index_writer_open(&run.writer, options.directory, options.level, options.streaming, options.limits,
                      !options.no_fsync);
    const auto finish = [&](const char* how) {
        index_writer_close(&run.writer);
        run.lines_in_slices = run.line;
        progress_end();
        totals_add_slices(&run.totals, options.directory, before);
        say_summary(how + totals_text(run.shown, run.totals));
    };
    try {
        try {
            put_input(&run, input.get());
        } catch (const failure_t&) {
            if (run.writer.thing == nullptr) throw;
            finish("put so far: ");
            run.is_told = true;
            throw;
        }
        finish(work_stops() ? "interrupted; put so far: " : "");
    } catch (failure_t& failure) {
        progress_end();
        if (!run.is_told) failure.message += "\nveldar: " + advice(run);
        throw;
    } catch (const std::bad_alloc&) {
        progress_end();
        throw failure_t{OUTCOME_IO, "out of memory\nveldar: " + advice(run)};
    }
    if (work_stops()) return OUTCOME_INTERRUPTED;
    return run.totals.events == 0 && run.totals.refused != 0 ? OUTCOME_INCOMPLETE : OUTCOME_DONE;
}

}  // namespace

void add_put_command(const command& veldar) {
    static put_options options;
    const command put = veldar.subcommand("put", "Put tokenised events into an index directory");
    put.footer(
        "One event a line, separated by tabs:\n  time[.fraction] address source sourcetype host measure terms\n"
        "The terms are separated by blanks; %20, %25 and so on stand for a byte.");
    put.text("DIR", &options.directory, "The index directory; made when it does not exist").required();
    put.text("FILE", &options.input, "The events; - for standard input").with_default();
    put.number("--level", &options.level, 1, 4, "Write level, which selects the kind of slice").with_default();
    put.flag("--streaming", &options.streaming, "The events come in the order of their times");
    put.flag("--skip-bad", &options.skip_bad, "Count malformed lines instead of ending at the first");
    put.flag("--no-fsync", &options.no_fsync, "Leave out every fsync, for throw-away indexes");
    index_limits* const limits = &options.limits;
    put.number("--max-terms", &limits->max_terms, 1024, 1u << 26, "Distinct terms in memory");
    put.number("--max-postings", &limits->max_postings, 1024, 1u << 28, "Term and event pairs in memory");
    put.number("--max-values", &limits->max_values, 1024, 1u << 28, "Events in memory");
    put.number("--lexicon-bytes", &limits->lexicon_bytes, 1024, 1u << 30, "Bytes of terms in memory");
    put.run([](const tool_context&) { return put_run_all(options); });
}

}  // namespace veldar::tool
