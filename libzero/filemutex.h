// Lock files between processes, possibly on different hosts.
#pragma once

#include <ctime>

namespace veldar {

void filemutex_init_contents(const char* tag);
bool filemutex_path_supported(const char* path);
int filemutex_lock(const char* path);
int filemutex_is_locked(const char* path);
int filemutex_unlock(const char* path);
int filemutex_lock_with_timeout(const char* path, int seconds);
int filemutex_unlock_forced(const char* path, time_t before);
int filemutex_lock_forced(const char* path, int seconds);
int filemutex_test_capability(const char* directory);

}  // namespace veldar
