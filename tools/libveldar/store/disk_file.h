// Reads, and durable writes for the files that a store keeps beside its slices.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "libzero/resource.h"

namespace veldar::tool {

// Set by the handler of SIGINT, SIGTERM and SIGHUP: finish what is begun, save the progress and end.
extern volatile std::sig_atomic_t work_interrupted;
// Installs that handler, for SIGALRM too; a SIGHUP that is ignored (nohup) stays so.
void work_catch_interrupts();
// A descriptor that can be read once the handler has run, for a wait that it is to end. Throws failure_t.
int work_interrupt_descriptor();

// Opens a file of a store's own: a regular file, and nothing else that may stand there under its name (EINVAL, EISDIR);
// never waits. One that is written is not behind a symbolic link (ELOOP), so that nothing outside of the store is. Invalid
// with errno set.
unique_fd disk_open(const std::string& path, int flags);
// Reads such a file to its end. False with errno set.
[[nodiscard]] bool disk_read_file(const std::string& path, std::string* content);
// Reads what a command was given to its end: a file, a pipe by name, or "-", standard input. False with errno set.
[[nodiscard]] bool disk_read_input(const std::string& path, std::string* content);
// Whether anything is at the path. Throws failure_t when that cannot be told.
bool disk_exists(const std::string& path);
// Every name in a directory. Throws failure_t when it cannot be read to its end.
std::vector<std::string> disk_list_directory(const std::string& path);
// Writes all of it at an offset. False with errno set.
[[nodiscard]] bool disk_write_at(int fd, std::string_view bytes, uint64_t offset);
// Reads up to `size` bytes at an offset, fewer only at the end of the file. Negative with errno set.
[[nodiscard]] int64_t disk_read_at(int fd, char* out, size_t size, uint64_t offset);
// Reads what a pipe has, waiting for some: 0 at its end and when the command is interrupted. Negative with errno set.
[[nodiscard]] int64_t disk_read_pipe(int fd, char* out, size_t size);
// Makes what happened to the names in a directory durable. False with errno set.
[[nodiscard]] bool disk_sync_directory(const std::string& path);
// Makes a directory unless it exists. Throws failure_t.
void disk_make_directory(const std::string& path);
// Removes a file or a directory with all that is in it, as far as that can be done: for what only passes.
void disk_remove_tree(const std::string& path) noexcept;
// Makes a directory's own name durable. One that exists may lack that, when who made it was killed: for directories
// that hold nothing yet. Throws failure_t.
void disk_sync_name(const std::string& directory);
// Writes a file beside `path` and renames it into place. False with errno set; the old file is then as it was.
[[nodiscard]] bool disk_replace_file(const std::string& path, std::string_view content, bool durable);

// Opens a lock file and waits until this process alone holds it, saying so. Throws failure_t, also when interrupted.
unique_fd disk_lock(const std::string& path, const std::string& directory);

// A file of lines that only grows; what a killed writer left of a line is cut off.
struct line_file {
    std::string path;
    unique_fd fd;       // writers only
    uint64_t size = 0;  // of its whole lines
    bool durable = true;
};
// Opens it, making it when it does not exist, and returns its whole lines. Throws failure_t, as does the other.
std::string line_file_open(line_file* file, const std::string& path, bool durable);
// `line` ends with a newline.
void line_file_add(line_file* file, std::string_view line);

}  // namespace veldar::tool
