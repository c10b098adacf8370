#include "tools/veldar/commands/hosts.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "libzero/resource.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/observer.h"

extern char** environ;

namespace veldar::tool {

namespace {

constexpr int RETRIES = 2;         // how often a machine is asked at most
constexpr size_t SAID_MAX = 1000;  // bytes of what a machine says that are told
constexpr char SSH_OPTIONS[] = "-n -o BatchMode=yes -o ConnectTimeout=10 -o ServerAliveInterval=5";

std::string shell_word(std::string_view word) {
    std::string out = "'";
    for (const char c : word) c == '\'' ? out.append("'\\''") : out.append(1, c);
    return out + "'";
}

std::string from_environment(const char* name, const std::string& otherwise) {
    const char* const value = std::getenv(name);
    return value == nullptr || *value == '\0' ? otherwise : value;
}

std::string this_program() {
    char path[PATH_MAX];
    const ssize_t size = ::readlink("/proc/self/exe", path, sizeof path);
    return size > 0 ? std::string(path, static_cast<size_t>(size)) : "veldar";
}

// A directory for what the machines say, removed in the end.
class scratch_directory {
  public:
    scratch_directory() : path_(from_environment("TMPDIR", "/tmp") + "/veldar-hosts-XXXXXX") {
        if (::mkdtemp(path_.data()) == nullptr) fail_io("cannot make", path_, errno);
    }
    ~scratch_directory() { disk_remove_tree(path_); }
    scratch_directory(const scratch_directory&) = delete;
    scratch_directory& operator=(const scratch_directory&) = delete;
    std::string file(size_t host, const char* what) const { return fmt::format("{}/{}.{}", path_, host, what); }

  private:
    std::string path_;
};

std::string words_of(const hosts_request& request, const std::string& store) {
    std::string text = store.empty() ? "" : "-s " + shell_word(store);
    for (const std::string& word : request.words) text += " " + shell_word(word);
    return text;
}

// What a shell is to do for one machine: the answer goes to a file, and then the machine's number and how it ended to
// standard output.
std::string job_of(const host_line& host, size_t number, const std::string& words, const scratch_directory& scratch) {
    std::string command = shell_word(this_program()) + " " + words;
    if (!host.host.empty()) {
        const std::string there = from_environment("VELDAR_REMOTE", "veldar") + " " + words;
        command = from_environment("VELDAR_SSH", "ssh") + " " + SSH_OPTIONS + " " + shell_word(host.host) + " " +
                  shell_word(there);
    }
    return fmt::format("{} > {} 2> {}; s=$?; echo {} $s; case $s in 3) exit 0;; *) exit $s;; esac", command,
                       shell_word(scratch.file(number, "part")), shell_word(scratch.file(number, "says")), number);
}

// A running GNU parallel: jobs go in, numbers come out.
struct runner {
    pid_t pid = -1;
    unique_fd jobs, done;
    std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
};

runner start(uint32_t timeout_s) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0) fail_io("cannot make a pipe", "", errno);
    runner run;
    unique_fd read_jobs(in[0]);
    run.jobs.reset(in[1]);
    if (::pipe2(out, O_CLOEXEC) != 0) fail_io("cannot make a pipe", "", errno);
    run.done.reset(out[0]);
    const unique_fd write_done(out[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, read_jobs.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, write_done.get(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const std::string timeout = std::to_string(timeout_s), retries = std::to_string(RETRIES);
    const char* const words[] = {
        "parallel",  "--plain",       "--will-cite",   "-0",   "--jobs", "0", "--timeout", timeout.c_str(),
        "--retries", retries.c_str(), "--line-buffer", nullptr};
    ::setenv("PARALLEL_SHELL", "/bin/sh", 1);
    const int error = ::posix_spawnp(&run.pid, words[0], &actions, nullptr, const_cast<char* const*>(words), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error == ENOENT) {
        throw failure_t{
            .status = OUTCOME_USAGE,
            .message = "GNU parallel, which asks the machines, is not installed: 'apt-get install parallel'",
            .next_step = "apt-get install parallel"};
    }
    if (error != 0) fail_io("cannot run", "parallel", error);
    return run;
}

// It reads all jobs before it ends, so that a pipe that is full drains.
void give_jobs(runner* run, std::string_view jobs) {
    // One that ends early is an error of writing. Not before it runs: what it runs expects the signal.
    std::signal(SIGPIPE, SIG_IGN);
    while (!jobs.empty()) {
        const ssize_t size = ::write(run->jobs.get(), jobs.data(), jobs.size());
        if (size < 0 && errno == EINTR && !work_stops()) continue;
        if (size < 0) break;
        jobs.remove_prefix(static_cast<size_t>(size));
    }
    run->jobs.reset();
}

// What a machine said last on standard error, or the end of that; empty for nothing.
std::string last_line(const std::string& path) {
    const unique_fd fd = disk_open(path, O_RDONLY);
    struct stat status;
    if (!fd.valid() || ::fstat(fd.get(), &status) != 0) return {};
    std::string text(SAID_MAX, '\0');
    const auto size = static_cast<uint64_t>(status.st_size), from = size - std::min<uint64_t>(size, SAID_MAX);
    text.resize(static_cast<size_t>(std::max<int64_t>(disk_read_at(fd.get(), text.data(), SAID_MAX, from), 0)));
    while (text.ends_with('\n') || text.ends_with('\r')) text.pop_back();
    const size_t begin = text.rfind('\n');
    return text.substr(begin == std::string::npos ? 0 : begin + 1);
}

void show_progress(size_t done, size_t all) {
    if (::isatty(STDERR_FILENO) == 1) std::fprintf(stderr, "\r%zu of %zu machines have answered", done, all);
}

void end_progress() {
    if (::isatty(STDERR_FILENO) == 1) std::fputs("\r\x1B[K", stderr);
}

// Gives the numbers of those that have ended, and how, to `take`, as they come, until there are no more to come; true
// for an answer.
void wait_for(runner* run, size_t hosts, const std::function<bool(size_t, unsigned long)>& take) {
    std::string line;
    size_t done = 0;
    show_progress(0, hosts);
    char piece[4096];
    int64_t size;
    while ((size = disk_read_pipe(run->done.get(), piece, sizeof piece)) > 0) {
        for (const char c : std::string_view(piece, static_cast<size_t>(size))) {
            if (c != '\n') {
                line += c;
                continue;
            }
            char* rest = nullptr;
            const size_t number = std::strtoul(line.c_str(), &rest, 10);
            if (number < hosts && take(number, std::strtoul(rest, nullptr, 10))) done++;
            line.clear();
            show_progress(done, hosts);
        }
    }
    end_progress();
    if (work_stops()) ::kill(run->pid, SIGTERM);
    int status = 0;
    while (::waitpid(run->pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (work_stops()) throw failure_t{OUTCOME_INTERRUPTED, "interrupted"};
}

// What one machine said.
struct host_answer {
    bool is_there = false, has_ended = false;
    named_partial answer;
    std::string why;  // there is none
};

bool take_answer(const host_line& host, const std::string& path, std::string* bytes, host_answer* out) {
    out->has_ended = true;
    if (!disk_read_file(path, bytes)) {
        out->why = std::strerror(errno);
        return false;
    }
    std::string_view rest = *bytes;
    out->answer.name = host.name;
    out->is_there = partial_take(&rest, &out->answer.answer, &out->why);
    return out->is_there;
}

// Why a machine that has not ended has not.
std::string missing_reason(const runner& run, uint32_t timeout_s) {
    const bool is_late = std::chrono::steady_clock::now() - run.begin >= std::chrono::seconds(timeout_s);
    return is_late ? "not in time" : "not asked: 'parallel' ended, which has to be GNU parallel";
}

// One answer of those that are there; it lacks the others. `missing` is why one that has not ended has not.
merged_answer merge_what_came(const std::vector<host_line>& hosts, std::vector<host_answer>* came,
                              const std::string& missing) {
    std::vector<named_partial> answers;
    std::vector<std::string> lacks;
    for (size_t i = 0; i < hosts.size(); i++) {
        host_answer& one = (*came)[i];
        if (one.is_there) {
            answers.push_back(std::move(one.answer));
        } else {
            lacks.push_back(hosts[i].name + ": no answer: " + (one.has_ended ? one.why : missing));
        }
    }
    if (answers.empty()) {
        for (const std::string& one : lacks) say_trouble(one);
        throw failure_t{OUTCOME_INCOMPLETE, "no machine has answered"};
    }
    merged_answer merged = partials_merge(std::move(answers));
    merged_lack(&merged, lacks);
    return merged;
}

}  // namespace

std::vector<host_line> hosts_parse(std::string_view content, const std::string& file) {
    std::vector<host_line> hosts;
    size_t line_number = 0;
    while (!content.empty()) {
        const size_t end = std::min(content.find('\n'), content.size());
        std::string_view line = content.substr(0, end);
        content.remove_prefix(std::min(end + 1, content.size()));
        line_number++;
        while (!line.empty() && std::strchr(" \t\r", line.back()) != nullptr) line.remove_suffix(1);
        while (!line.empty() && std::strchr(" \t", line.front()) != nullptr) line.remove_prefix(1);
        if (line.empty() || line[0] == '#') continue;
        // A colon inside of [ ] belongs to an address.
        const size_t address_end = line[0] == '[' ? line.find(']') : 0;
        const size_t colon = address_end == std::string_view::npos ? address_end : line.find(':', address_end);
        host_line host = {std::string(line.substr(0, colon)), "", std::string(line)};
        if (colon != std::string_view::npos) host.store = line.substr(colon + 1);
        if (host.host.starts_with('[') && host.host.ends_with(']'))
            host.host = host.host.substr(1, host.host.size() - 2);
        const bool is_host = host.host.find_first_of(" \t'\"\\;&|<>$`[]") == std::string::npos;
        if (!is_host || host.host.starts_with('-') || (host.host.empty() && colon != 0)) {
            throw failure_t{.status = OUTCOME_USAGE,
                            .message = fmt::format("{}:{}: '{}': expected HOST[:STORE], or ':' for this machine", file,
                                                   line_number, host.name),
                            .file = file,
                            .line = line_number};
        }
        hosts.push_back(std::move(host));
    }
    if (hosts.empty()) throw failure_t{.status = OUTCOME_USAGE, .message = file + " names no machines", .file = file};
    return hosts;
}

merged_answer hosts_ask(const hosts_request& request, std::vector<std::string>* bytes) {
    std::string content;
    if (!disk_read_input(request.file, &content)) {
        throw failure_t{
            .status = OUTCOME_USAGE, .message = request.file + ": " + std::strerror(errno), .file = request.file};
    }
    const std::vector<host_line> hosts = hosts_parse(content, request.file);
    const scratch_directory scratch;
    std::string jobs;
    for (size_t i = 0; i < hosts.size(); i++) {
        const std::string& store = hosts[i].store.empty() ? request.store : hosts[i].store;
        jobs += job_of(hosts[i], i, words_of(request, store), scratch);
        jobs += '\0';
    }
    work_catch_interrupts();
    runner run = start(request.timeout_s);
    give_jobs(&run, jobs);
    std::vector<host_answer> came(hosts.size());
    bytes->resize(hosts.size());
    wait_for(&run, hosts.size(), [&](size_t number, unsigned long status) {
        host_answer* const one = &came[number];
        if (status == OUTCOME_DONE || status == OUTCOME_INCOMPLETE) {
            return take_answer(hosts[number], scratch.file(number, "part"), &(*bytes)[number], one);
        }
        one->has_ended = true;
        one->why = last_line(scratch.file(number, "says"));
        if (one->why.empty()) one->why = "ended with status " + std::to_string(status);
        return false;
    });
    return merge_what_came(hosts, &came, missing_reason(run, request.timeout_s));
}

}  // namespace veldar::tool
