// Lock files between processes, possibly on different hosts. The lock of a path P is the file P.lock, which holds the
// lock text of the process that made it: process id, host name and a tag, a line each. On local file systems a lock is
// an exclusive create; on NFS, where that is not reliable, a unique file is created and linked to the lock's name. On
// any other file system nothing can be locked, unless the environment variable OPTIMISTIC_ABOUT_FILE_LOCKING is "1",
// "t", "true" or "yes": then every file system is taken to be local.
//
// Locks are advisory and not re-entrant, and nothing but the file system holds their state. A path whose lock name does
// not fit 4095 bytes is an error. Every function but filemutex_init_contents may be called from any thread.
#pragma once

#include <ctime>

namespace veldar {

enum filemutex_result_t : int {
    FILEMUTEX_OK = 0,    // acquired or released
    FILEMUTEX_HELD = 1,  // held by another; from unlock: try again
    FILEMUTEX_ERROR = -1,
    FILEMUTEX_STUCK = -2,  // forced operations only: the stale lock could not be removed
};

inline constexpr char FILEMUTEX_UNINITIALIZED[] = "0\nuninitialized";

// Sets this process's lock text: "<process id>\n<host name>\n<tag>". Without a host name or memory it becomes
// FILEMUTEX_UNINITIALIZED, which it also is before the first call. Called before other threads use the engine.
void filemutex_init_contents(const char* tag);

// Whether locks work on the file system of the path, which must exist.
bool filemutex_path_supported(const char* path);

// OK, HELD or ERROR (also for a file system that is not supported).
[[nodiscard]] int filemutex_lock(const char* path);

// The create-and-link protocol, which filemutex_lock chooses on NFS; it works on every file system with hard links.
// Waits up to 5 seconds for a lock that appears while it tries. OK, HELD or ERROR.
[[nodiscard]] int filemutex_lock_by_link(const char* path);

// 1 when the lock file exists, 0 when it does not (or when its name does not fit), ERROR otherwise.
[[nodiscard]] int filemutex_is_locked(const char* path);

// Removes the lock file of a path that the caller has locked; OK also when it is gone already. The errors that only a
// path which never was locked can cause are assertions.
[[nodiscard]] int filemutex_unlock(const char* path);

// Tries every 10 ms until `seconds` have passed; the last result of filemutex_lock.
[[nodiscard]] int filemutex_lock_with_timeout(const char* path, int seconds);

// Removes a lock whose status-change time is earlier than `before`, under a lock on the lock file itself, so that of
// two processes only one does. OK when the lock was removed or was renewed meanwhile, ERROR when it is absent, too
// young or could not be examined, STUCK when it could not be removed.
[[nodiscard]] int filemutex_unlock_forced(const char* path, time_t before);

// Acquires the lock even when its holder has died: waits `seconds`, then removes a lock that is older than the wait,
// and begins again. OK, ERROR or STUCK.
[[nodiscard]] int filemutex_lock_forced(const char* path, int seconds);

// Whether files can be made and locked in a directory: 0, or 2 empty or too long, 3 cannot be examined, 5 not a
// directory, 7 no file can be made, 9 it cannot be locked. Leaves the process's umask with 066 added.
[[nodiscard]] int filemutex_test_capability(const char* directory);

}  // namespace veldar
