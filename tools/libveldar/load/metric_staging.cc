#include "tools/libveldar/load/metric_staging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "searchthing/directory/tsidx.h"
#include "searchthing/format/tsidx_names.h"
#include "searchthing/seal/slice_seal.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"

namespace veldar::tool {

namespace {

constexpr std::string_view SLICE = "slice ", NOTE = "note ";

std::string commit_path(const metric_staging& staging) {
    return staging.path + "/commit";
}

// Whether the place is there. Another's file or link of that name is left alone.
bool is_there(const metric_staging& staging) {
    struct stat status;
    if (::lstat(staging.path.c_str(), &status) != 0) {
        if (errno != ENOENT) fail_io("cannot read", staging.path, errno);
        return false;
    }
    if (!S_ISDIR(status.st_mode)) throw failure_t{OUTCOME_IO, staging.path + ": no directory, but in the way of one"};
    return true;
}

void rename_or_fail(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) fail_io("cannot move", from, errno);
}

bool have_same_bytes(const std::string& one, const std::string& other) {
    constexpr size_t PIECE = size_t{1} << 20;
    const unique_fd a(::open(one.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW)),
        b(::open(other.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    std::string left(PIECE, '\0'), right(PIECE, '\0');
    for (uint64_t offset = 0;; offset += PIECE) {
        const int64_t size = disk_read_at(a.get(), left.data(), PIECE, offset);
        if (size < 0 || disk_read_at(b.get(), right.data(), PIECE, offset) != size) return false;
        if (std::memcmp(left.data(), right.data(), static_cast<size_t>(size)) != 0) return false;
        if (static_cast<size_t>(size) < PIECE) return true;
    }
}

// A slice that is not there has been moved. Its seal goes first, as no slice is to be without.
void move_slice(const metric_staging& staging, const std::string& name) {
    const std::string from = staging.path + "/" + name, to = staging.target + "/" + name;
    struct stat here, there;
    if (::lstat(from.c_str(), &here) != 0 && errno == ENOENT) return;
    if (::lstat(to.c_str(), &there) == 0) {
        // Both names outlived a loss of power; or the directory was copied, and they are two files now.
        const bool is_one = here.st_ino == there.st_ino && here.st_dev == there.st_dev;
        if (!is_one && !have_same_bytes(from, to)) {
            throw failure_t{OUTCOME_IO, to + ": in the way of a slice of that name in " + staging.path};
        }
        if (::unlink(from.c_str()) != 0) fail_io("cannot remove", from, errno);
        return;
    }
    rename_or_fail(from + SEAL_SUFFIX, to + SEAL_SUFFIX);
    rename_or_fail(from, to);
}

// What a commit says is done, as far as it is not.
void finish(const metric_staging& staging, const std::string& commit, metric_notes* notes) {
    std::vector<std::string_view> lines;
    for (size_t at = 0, end; (end = commit.find('\n', at)) != std::string::npos; at = end + 1) {
        lines.push_back(std::string_view(commit).substr(at, end - at));
    }
    for (const std::string_view line : lines) {
        // The name of a file in this directory, or it is none of ours.
        const bool is_name = line.starts_with(SLICE) && line.find('/') == std::string_view::npos;
        if (is_name) move_slice(staging, std::string(line.substr(SLICE.size())));
    }
    if (staging.durable && (!disk_sync_directory(staging.target) || !disk_sync_directory(staging.path))) {
        fail_io("cannot sync", staging.target, errno);
    }
    for (const std::string_view line : lines) {
        if (line.starts_with(NOTE)) metric_notes_add_line(notes, line.substr(NOTE.size()));
    }
    const std::string path = commit_path(staging);
    if (::unlink(path.c_str()) != 0) fail_io("cannot remove", path, errno);
}

}  // namespace

metric_staging metric_staging_settle(const std::string& directory, metric_notes* notes, bool durable) {
    const metric_staging staging = {directory, directory + "/metrics.batch", durable};
    if (!is_there(staging)) return staging;
    if (disk_exists(commit_path(staging))) {
        std::string commit;
        if (!disk_read_file(commit_path(staging), &commit)) fail_io("cannot read", commit_path(staging), errno);
        finish(staging, commit, notes);
    }
    metric_staging_remove(staging);
    return staging;
}

void metric_staging_make(const metric_staging& staging) {
    disk_make_directory(staging.path);
    if (!is_there(staging)) fail_io("cannot make", staging.path, ENOENT);
}

void metric_staging_commit(const metric_staging& staging, const std::vector<metric_note>& added, metric_notes* notes) {
    std::string commit;
    for (const std::string& name : disk_list_directory(staging.path)) {
        st_filename_metadata_t meta;
        if (st_tsidx_file_parse(name.c_str(), &meta) != 0) commit.append(SLICE).append(name) += '\n';
    }
    for (const metric_note& note : added) commit.append(NOTE).append(metric_note_line(note)) += '\n';
    if (!disk_replace_file(commit_path(staging), commit, staging.durable)) {
        fail_io("cannot write", commit_path(staging), errno);
    }
    finish(staging, commit, notes);
}

bool metric_staging_is_committed(const metric_staging& staging) {
    return ::access(commit_path(staging).c_str(), F_OK) == 0;
}

void metric_staging_remove(const metric_staging& staging) {
    if (!is_there(staging)) return;
    for (const std::string& name : disk_list_directory(staging.path)) {
        if (name == "." || name == "..") continue;
        const std::string path = staging.path + "/" + name;
        if (::unlink(path.c_str()) != 0 && errno != ENOENT && errno != EISDIR && errno != EPERM) {
            fail_io("cannot remove", path, errno);
        }
    }
    ::rmdir(staging.path.c_str());
}

}  // namespace veldar::tool
