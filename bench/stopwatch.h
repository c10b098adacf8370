// Processor time of this process.
#pragma once

#include <sys/resource.h>

#include <functional>

namespace veldar {

inline double processor_seconds() {
    rusage usage;
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](timeval time) {
        return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Of one call of `work`, which is called more often until that takes `least` seconds.
inline double processor_seconds_of(const std::function<void()>& work, double least) {
    for (int times = 1;; times *= 4) {
        const double begin = processor_seconds();
        for (int i = 0; i < times; i++) work();
        const double taken = processor_seconds() - begin;
        if (taken >= least) return taken / times;
    }
}

}  // namespace veldar
