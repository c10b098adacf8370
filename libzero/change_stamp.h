// Whether a file or a directory may have changed since something was read from it, at the price of one fstat or stat.
//
// The kernel stamps an inode whose bytes or names are changed with its clock, which moves in ticks: two changes within
// one tick may leave the same stamp. So a stamp tells of later changes only once it is older than the coarsest tick of
// the file systems that are trusted here: local ones, whose stamps no server hands out late.
#pragma once

#include <cstdint>

namespace veldar {

struct change_stamp {
    uint64_t device = 0, inode = 0;
    int64_t modified_ns = 0, changed_ns = 0;
    bool operator==(const change_stamp&) const = default;
};

// False when there is no such file or directory.
bool change_stamp_of(int fd, change_stamp* stamp);
bool change_stamp_of(const char* path, change_stamp* stamp);
// Whether every later change will have another stamp than this one. Asked right after the stamp was taken, before
// anything is read: what matters is how old it was then.
bool change_stamp_lasts(int fd, const change_stamp& stamp);
bool change_stamp_lasts(const char* path, const change_stamp& stamp);
// Stamps a file whose mapping was written to, which not every file system does by itself. 0, or -1 and errno.
[[nodiscard]] int change_stamp_renew(int fd);

}  // namespace veldar
