#include "tools/libveldar/load/watch.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <utility>

#include "tools/libveldar/load/change_notice.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/packed_stream.h"
#include "tools/libveldar/store/raw_reader.h"

namespace veldar::tool {

namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds LOOK_ANYWAY{10000};        // inotify may miss what is in new directories
constexpr milliseconds LOOK_OFTEN{1000};          // without it
constexpr milliseconds OVER_AFTER{10000};         // a file that lost its name and does not change any more is let go
constexpr milliseconds ROTATES_FOR{600000};       // so long its older pieces may be compressed yet
constexpr milliseconds PIECES_SETTLE_FOR{30000};  // those of a rotation of before
constexpr uint64_t SURELY_LOADED_NS = 600'000'000'000;  // before the last load
constexpr uint64_t BEING_WRITTEN_NS = 2'000'000'000;    // one that is compressed right now
constexpr milliseconds FINISHED_AFTER{4000};            // one that was being written and does not change any more
constexpr size_t ALIKE_MAX = 65536;                     // bytes that tell a copy
constexpr size_t OVER_MAX = 64;
constexpr unsigned LAST_SECONDS = 3;

// What tells that a file has changed.
struct file_stamp {
    uint64_t device = 0, inode = 0, size = 0, modified_ns = 0;
    bool operator==(const file_stamp&) const = default;
};

struct followed_file {
    std::string name;
    unique_fd fd;
    file_stamp loaded;      // as it was when it was loaded last
    uint32_t number = 0;    // of the store
    uint64_t since_ns = 0;  // what was written under the name before has been loaded
    clock::time_point changed{};
};

// The older pieces of a log.
struct rotation {
    uint64_t since_ns = 0;      // what was written before has been loaded
    clock::time_point until{};  // looked for so long
    std::map<std::string, file_stamp> loaded, unfinished, failed;
};

struct watcher {
    loader* load = nullptr;
    const watch_options* options = nullptr;
    change_notice notice;
    std::map<std::string, followed_file> files;  // by name
    std::vector<followed_file> over;             // that have lost their names
    std::map<std::string, rotation> rotations;   // by name
    line_file notes;
    std::map<std::string, uint64_t> noted;  // logs of the store's notes, and when they began to be followed
};

bool is_pattern(const std::string& name) {
    struct stat status;
    return name.find_first_of("*?[") != std::string::npos && ::stat(name.c_str(), &status) != 0;
}

std::string parent_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

std::vector<std::string> expand(const std::string& pattern) {
    glob_t found = {};
    std::vector<std::string> paths;
    if (::glob(pattern.c_str(), 0, nullptr, &found) == 0) {
        paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    }
    ::globfree(&found);
    return paths;
}

uint64_t nanoseconds(const timespec& time) {
    return static_cast<uint64_t>(time.tv_sec) * 1000000000u + static_cast<uint64_t>(time.tv_nsec);
}

file_stamp stamp_of(const struct stat& status) {
    return {status.st_dev, status.st_ino, static_cast<uint64_t>(status.st_size), nanoseconds(status.st_mtim)};
}

bool is_same_file(const file_stamp& a, const file_stamp& b) {
    return a.device == b.device && a.inode == b.inode;
}

std::string descriptor_path(const unique_fd& fd) {
    return "/proc/self/fd/" + std::to_string(fd.get());
}

void tell(watcher* w, const std::string& name, const std::string& error) {
    loader_tell(w->load, name + ": " + error);
}

// Older pieces of the log are to be looked through for some time.
void begin_rotation(watcher* w, const std::string& name, uint64_t since_ns, milliseconds time) {
    const auto [known, is_new] = w->rotations.try_emplace(name);
    known->second.since_ns = is_new ? since_ns : std::min(known->second.since_ns, since_ns);
    known->second.until = std::max(known->second.until, clock::now() + time);
}

uint64_t now_ns() {
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return nanoseconds(now);
}

// From when on pieces of the log may hold what is not loaded: 0 when nothing was loaded from it. What is told of times
// is that of the last loads, which a kill may have undone in part.
uint64_t loaded_until(const watcher& w, const std::string& source) {
    uint64_t latest = 0, incomplete = UINT64_MAX;
    for (const auto& [number, known] : w.load->known.by_number) {
        const std::vector<std::string>& names = w.load->st.sources.names;
        if (known.file.source >= names.size() || names[known.file.source] != source) continue;
        latest = std::max(latest, known.file.modified_ns);
        if (known.progress < known.file.size) incomplete = std::min(incomplete, known.file.modified_ns);
    }
    return std::min(latest - std::min(latest, SURELY_LOADED_NS), incomplete);
}

// A log that was followed or loaded before may have been rotated meanwhile. One that was not is noted, before anything
// of it is loaded.
void begin_name(watcher* w, const std::string& name, uint64_t since_ns) {
    const std::string source = loader_source_name(name);
    const auto noted = w->noted.find(source);
    const uint64_t until_ns = loaded_until(*w, source);
    if (noted != w->noted.end()) return begin_rotation(w, name, std::max(noted->second, until_ns), PIECES_SETTLE_FOR);
    if (until_ns != 0) begin_rotation(w, name, until_ns, PIECES_SETTLE_FOR);
    if (source.find('\n') != std::string::npos) return;
    line_file_add(&w->notes, std::to_string(until_ns != 0 ? until_ns : since_ns) + " " + source + "\n");
    w->noted[source] = until_ns != 0 ? until_ns : since_ns;
}

void open_notes(watcher* w) {
    const std::string lines = line_file_open(&w->notes, w->load->st.path + "/" + STORE_WATCHED, w->load->st.durable);
    for (size_t at = 0; at < lines.size();) {
        const size_t blank = lines.find(' ', at), end = lines.find('\n', at);
        if (blank < end) w->noted[lines.substr(blank + 1, end - blank - 1)] = std::strtoull(&lines[at], nullptr, 10);
        at = end + 1;
    }
}

bool is_wanted(const watch_options& options, const std::string& source) {
    return std::any_of(options.names.begin(), options.names.end(), [&](const std::string& name) {
        return is_pattern(name) &&
               ::fnmatch(loader_source_name(name).c_str(), source.c_str(), FNM_PATHNAME | FNM_PERIOD) == 0;
    });
}

// Logs of a pattern that were followed before and have not the name any more: what was written to them since may be in
// their pieces.
void begin_vanished(watcher* w) {
    for (const auto& [source, since_ns] : w->noted) {
        const bool is_there = ::access(source.c_str(), F_OK) == 0;
        if (is_there || ::access(parent_of(source).c_str(), R_OK) != 0 || !is_wanted(*w->options, source)) continue;
        begin_rotation(w, source, std::max(since_ns, loaded_until(*w, source)), PIECES_SETTLE_FOR);
    }
}

void let_go(watcher* w, followed_file* file) {
    if (!file->fd.valid()) return;
    begin_rotation(w, file->name, file->since_ns, ROTATES_FOR);
    file->changed = clock::now();
    followed_file next;
    next.name = file->name;
    next.since_ns = file->since_ns;
    w->over.push_back(std::move(*file));
    *file = std::move(next);
}

// Looks which file has the name now.
void look(watcher* w, const std::string& name) {
    const auto [place, is_new] = w->files.try_emplace(name);
    followed_file* const file = &place->second;
    file->name = name;
    struct stat status, held;
    const bool exists = ::stat(name.c_str(), &status) == 0;
    const int why = errno;
    if (is_new) begin_name(w, name, exists ? nanoseconds(status.st_mtim) : now_ns());
    if (!exists) {
        if (why != ENOENT && why != ENOTDIR) return tell(w, name, std::strerror(why));
        return let_go(w, file);
    }
    const bool holds = file->fd.valid() && ::fstat(file->fd.get(), &held) == 0;
    if (holds && is_same_file(stamp_of(held), stamp_of(status))) return;
    let_go(w, file);
    if (!S_ISREG(status.st_mode)) return tell(w, name, "no regular file; it is left out");
    file->fd.reset(::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file->fd.valid()) tell(w, name, std::strerror(errno));
    file->loaded = {};
    if (file->since_ns == 0) file->since_ns = nanoseconds(status.st_mtim);
}

// Brings what is followed up to date with the names in the directories.
void look_round(watcher* w) {
    std::set<std::string> names, directories;
    for (const std::string& name : w->options->names) {
        directories.insert(parent_of(name));
        if (!is_pattern(name)) {
            names.insert(name);
            continue;
        }
        for (const std::string& directory : expand(parent_of(name))) directories.insert(directory);
        for (const std::string& path : expand(name)) names.insert(path);
        std::erase_if(directories, is_pattern);
    }
    for (const std::string& name : names) look(w, name);
    for (auto i = w->files.begin(); i != w->files.end();) {
        if (!names.contains(i->first)) let_go(w, &i->second);
        i = names.contains(i->first) ? std::next(i) : w->files.erase(i);
    }
    for (const auto& [name, file] : w->files) {
        char real[PATH_MAX];
        struct stat status;
        const bool is_link = ::lstat(name.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
        if (is_link && ::realpath(name.c_str(), real) != nullptr) directories.insert(parent_of(real));
    }
    change_notice_set(&w->notice, directories);
}

bool has_changed(const followed_file& file, file_stamp* now) {
    struct stat status;
    if (!file.fd.valid() || ::fstat(file.fd.get(), &status) != 0) return false;
    *now = stamp_of(status);
    return *now != file.loaded;
}

// Loads what is new in a file.
void load_file(watcher* w, followed_file* file, bool is_over) {
    file_stamp now;
    const bool changed = has_changed(*file, &now);
    if (!changed && !is_over) return;
    const bool is_cut = is_same_file(now, file->loaded) && now.size < file->loaded.size;
    const uint32_t number = file->number;
    std::string error;
    if (!loader_follow(w->load, {descriptor_path(file->fd), file->name, is_over}, &file->number, &error)) {
        tell(w, file->name, error);
    }
    // What it had before it was written anew may be in a copy.
    const bool is_other = number != 0 && file->number != number && is_same_file(now, file->loaded);
    if (is_cut || is_other) begin_rotation(w, file->name, file->since_ns, ROTATES_FOR);
    if (changed) file->changed = clock::now();
    if (work_stops()) return;
    file->loaded = now;
    file->since_ns = now.modified_ns;
}

void load_over(watcher* w) {
    for (followed_file& file : w->over) {
        const bool is_over = clock::now() - file.changed >= OVER_AFTER || w->over.size() > OVER_MAX;
        load_file(w, &file, is_over);
        if (is_over && !work_stops()) file.fd.reset();
    }
    std::erase_if(w->over, [](const followed_file& file) { return !file.fd.valid(); });
}

bool is_followed(const watcher& w, const file_stamp& stamp) {
    const auto same = [&](const followed_file& file) { return file.fd.valid() && is_same_file(file.loaded, stamp); };
    return std::any_of(w.over.begin(), w.over.end(), same) ||
           std::any_of(w.files.begin(), w.files.end(), [&](const auto& file) { return same(file.second); });
}

// The pieces of a log in its directory, the oldest first.
std::vector<std::pair<std::string, struct stat>> pieces_of(const std::string& name,
                                                           const std::vector<std::string>& others) {
    const std::string front = name.substr(0, name.rfind('/') + 1), last = name.substr(front.size());
    std::vector<std::pair<std::string, struct stat>> pieces;
    for (const std::string& other : others) {
        struct stat status;
        if (other == last || !is_rotation_of(last, other)) continue;
        if (::stat((front + other).c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
            pieces.emplace_back(front + other, status);
        }
    }
    std::sort(pieces.begin(), pieces.end(), [](const auto& a, const auto& b) {
        return nanoseconds(a.second.st_mtim) < nanoseconds(b.second.st_mtim);
    });
    return pieces;
}

// True too when they cannot be read.
bool may_be_same(int a, int b, uint64_t offset, size_t size) {
    std::string one(size, '\0'), other(size, '\0');
    const int64_t got = disk_read_at(a, one.data(), size, offset),
                  of_other = disk_read_at(b, other.data(), size, offset);
    return got < 0 || of_other < 0 || (got == of_other && one == other);
}

// Whether the piece is nothing but a beginning of the log as it stands: a copy that is being made before the log is
// truncated. The log has all of it, and what is known of the log does not tell a half copy from another log: so one that
// cannot be looked at now waits like one.
bool may_be_half_copy(watcher* w, const std::string& name, const std::string& path) {
    struct stat log, piece;
    const auto file = w->files.find(name);
    if (file == w->files.end() || !file->second.fd.valid()) return false;
    const unique_fd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    const int held = file->second.fd.get();
    if (!fd.valid() || ::fstat(fd.get(), &piece) != 0 || ::fstat(held, &log) != 0) {
        const int why = errno;
        if (why != ENOENT) tell(w, path, std::strerror(why));
        return why != ENOENT;
    }
    if (is_same_file(stamp_of(piece), stamp_of(log)) || piece.st_size >= log.st_size) return false;
    const auto size = static_cast<uint64_t>(piece.st_size);
    const size_t part = static_cast<size_t>(std::min<uint64_t>(size, ALIKE_MAX));
    return may_be_same(fd.get(), held, 0, part) && may_be_same(fd.get(), held, size - part, part);
}

// Whether a compressed piece may be in the making: what it is made of is there, and no later than it. The log itself is
// no such thing: it goes on, and nothing but the piece may have what was cut off it.
bool may_be_unfinished(const std::string& name, const std::string& stem, const file_stamp& packed) {
    struct stat status;
    if (stem == name) return false;
    if (::stat(stem.c_str(), &status) != 0) return errno != ENOENT;
    return nanoseconds(status.st_mtim) <= packed.modified_ns;
}

// One that is being compressed is not whole yet; when it is, it has the time of what it was made of, which goes.
bool is_being_written(watcher* w, const std::string& name, const std::string& path, const file_stamp& stamp) {
    const std::string stem(packed_name_stem(path));
    if (stem.size() == path.size()) return may_be_half_copy(w, name, path);
    return now_ns() < stamp.modified_ns + BEING_WRITTEN_NS || may_be_unfinished(name, stem, stamp);
}

// The rotation is not over while a piece grows.
void wait_for_piece(rotation* rotated, const std::string& path, const file_stamp& stamp) {
    const auto [known, is_new] = rotated->unfinished.try_emplace(path, stamp);
    if (!is_new && known->second == stamp) return;
    known->second = stamp;
    rotated->until = std::max(rotated->until, clock::now() + FINISHED_AFTER);
}

void load_pieces(watcher* w, const std::string& name, const std::vector<std::string>& others, rotation* rotated) {
    std::map<std::string, file_stamp> loaded;
    for (const auto& [path, status] : pieces_of(name, others)) {
        const file_stamp stamp = stamp_of(status);
        if (stamp.modified_ns < rotated->since_ns || is_followed(*w, stamp) || work_stops()) continue;
        if (is_being_written(w, name, path, stamp)) {
            wait_for_piece(rotated, path, stamp);
            continue;
        }
        const auto known = rotated->loaded.find(path);
        uint32_t number = 0;
        std::string error;
        if (known == rotated->loaded.end() || known->second != stamp) {
            const bool read = loader_follow(w->load, {path, name, true}, &number, &error);
            if (!read && ::access(path.c_str(), F_OK) != 0) continue;  // it has another name by now
            if (!read) tell(w, path, error);
            // What fails for a moment is tried once more; one that is damaged stays so.
            if (!read && std::exchange(rotated->failed[path], stamp) != stamp) {
                rotated->until = std::max(rotated->until, clock::now() + FINISHED_AFTER);
                continue;
            }
        }
        if (!work_stops()) loaded[path] = stamp;
    }
    rotated->loaded = std::move(loaded);
}

std::vector<std::string> list_or_tell(watcher* w, const std::string& directory) {
    try {
        return disk_list_directory(directory);
    } catch (const failure_t& failure) {
        tell(w, directory, failure.message);
        return {};
    }
}

void load_rotations(watcher* w) {
    std::map<std::string, std::vector<std::string>> listings;
    for (auto i = w->rotations.begin(); i != w->rotations.end();) {
        const std::string directory = parent_of(i->first);
        if (!listings.contains(directory)) listings[directory] = list_or_tell(w, directory);
        load_pieces(w, i->first, listings[directory], &i->second);
        const bool is_over = clock::now() >= i->second.until;
        i = is_over ? w->rotations.erase(i) : std::next(i);
    }
}

// Everything that is new. Older lines first. With `names` a log may have a new piece beside it: all of what was in it
// since it was looked at last, when it was copied and truncated meanwhile.
void load_all(watcher* w, bool names) {
    w->load->totals.waiting = 0;
    for (const auto& [name, file] : w->files) {
        if (names && file.since_ns != 0) begin_rotation(w, name, file.since_ns, milliseconds(0));
    }
    load_over(w);
    load_rotations(w);
    for (auto& [name, file] : w->files) {
        if (!work_stops()) load_file(w, &file, false);
    }
    loader_sync(w->load);
}

bool anything_new(const watcher& w) {
    file_stamp now;
    const auto is_new = [&](const followed_file& file) { return has_changed(file, &now); };
    return std::any_of(w.over.begin(), w.over.end(), is_new) ||
           std::any_of(w.files.begin(), w.files.end(), [&](const auto& file) { return is_new(file.second); });
}

// What is there when the signal comes is loaded, as far as some seconds allow.
void load_last(watcher* w) {
    w->load->merges += merge_aside_wait(&w->load->merging);
    work_interrupted = 0;
    ::alarm(LAST_SECONDS);
    look_round(w);
    load_all(w, true);
    ::alarm(0);
    work_interrupted = 1;
}

}  // namespace

void watch_logs(loader* load, const watch_options& options) {
    watcher w;
    w.load = load;
    w.options = &options;
    open_notes(&w);
    begin_vanished(&w);
    const milliseconds patience = options.sync_every * 3 / 4, often = std::min(LOOK_OFTEN, options.sync_every / 5);
    look_round(&w);
    load_all(&w, false);
    clock::time_point loaded = clock::now(), changed{};
    bool has_change = false, names = false;
    while (!work_stops()) {
        const auto now = clock::now();
        const auto due = has_change ? changed + patience
                                    : loaded + (w.rotations.empty() ? LOOK_ANYWAY : std::max(LOOK_OFTEN, patience));
        const auto wait = std::chrono::ceil<milliseconds>(due - now);
        if (wait.count() > 0) {
            const milliseconds time = w.notice.is_complete ? wait : std::min(wait, often);
            names = change_notice_wait(&w.notice, !has_change, time) || names;
        }
        if (work_stops()) break;
        look_round(&w);
        if (!has_change && (names || anything_new(w))) {
            has_change = true;
            changed = clock::now();
        }
        if (clock::now() < due) continue;
        load_all(&w, names);
        has_change = names = false;
        loaded = clock::now();
    }
    load_last(&w);
}

}  // namespace veldar::tool
