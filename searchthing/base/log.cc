#include "searchthing/base/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "searchthing/base/st_init.h"

namespace veldar {

namespace {

uint8_t verbose_flag = 0;
uint8_t log2veldar_flag = 0;

}  // namespace

void stSetupLogger(int verbose, int log2veldar) {
    verbose_flag = verbose != 0;
    log2veldar_flag = log2veldar != 0;
    if (verbose != 0) {
        std::fprintf(stderr, "Logging configuration: verbose=%d, log2veldar=%d\n", verbose, log2veldar);
    }
}

void _log(int debug, const char* format, ...) {
    if (verbose_flag == 0 && (debug != 0 || log2veldar_flag == 0)) return;
    const int kept_errno = errno;  // a site logs first and stores its status afterwards
    ::flockfile(stderr);
    if (log2veldar_flag == 0) std::fprintf(stderr, "tm= %lu ", static_cast<unsigned long>(std::time(nullptr)));
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    ::funlockfile(stderr);
    errno = kept_errno;
}

}  // namespace veldar
