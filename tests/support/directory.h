// What the tests of index directories share: handles that close themselves, queries as text, answers as keys.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "searchthing/base/st_init.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/search/search_literals.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/faults.h"
#include "tests/support/reference.h"
#include "tests/support/temp_dir.h"

namespace veldar {

struct directory_closer {
    void operator()(TSIDX* tsidx) const { EXPECT_EQ(st_tsidx_close(tsidx), 0); }
};
using directory_ptr = std::unique_ptr<TSIDX, directory_closer>;

// Null without memory.
inline directory_ptr open_directory(const std::string& path, uint32_t level = 4, bool streaming = false,
                                    bool is_metric = false, bool milliseconds = false) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, level);
    opts.millisecond_mode = milliseconds ? 1 : 0;
    directory_ptr tsidx(st_tsidx_open(path.c_str(), streaming, is_metric, &opts, TSIDX_ORDINARY_WRITER));
    if (tsidx != nullptr) st_tsidx_set_durable(tsidx.get(), 0);
    return tsidx;
}
inline directory_ptr open_for_reading(const std::string& path) {
    return open_directory(path, 0);
}

inline int merge_all(TSIDX* tsidx) {
    return st_tsidx_optimize_n(tsidx, TSIDX_OPTIMIZE_ALL, 2, 0, 0, nullptr, 0, 0, false);
}
// Asked whether to stop, says so from question number `end` on.
struct stop_at {
    int end = INT_MAX, asked = 0;
    static bool ask(void* context) {
        auto* const self = static_cast<stop_at*>(context);
        return ++self->asked >= self->end;
    }
};

// Deletes lock.
class directory_test : public testing::Test {
    const lock_optimism optimism_;
    const no_flushes flushes_;
};

// A process of this host that has ended.
inline pid_t process_that_is_gone() {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ::waitpid(child, nullptr, 0);
    return child;
}
// Gives a file a time years ago.
inline void make_old(const std::string& path) {
    std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() - std::chrono::hours(99999));
}

// Slices of the directory that this process has open, removed ones included.
inline size_t open_slices(const std::string& directory) {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
        count += target.find(directory) == 0 && target.find("tsidx", directory.size()) != target.npos ? 1 : 0;
    }
    return count;
}

// What is logged meanwhile.
template <typename F>
std::string logged(const F& act) {
    stSetupLogger(0, 1);
    testing::internal::CaptureStderr();
    act();
    stSetupLogger(0, 0);
    return testing::internal::GetCapturedStderr();
}

using event_key = std::pair<st_time_t, st_addr_t>;

// Borrows the text.
inline st_query_spec make_query(const char* text, const reference_bounds& bounds = {}) {
    st_query_spec query;
    query.earliest = {bounds.earliest, 0};
    query.latest = {bounds.latest, 0};
    query.cumspan = bounds.cumspan;
    query.opt_a = bounds.neq_matches_missing ? QUERY_NEQ_MATCHES_MISSING : 0;
    query.lispy = text;
    query.opt_a = bounds.neq_matches_missing ? QUERY_NEQ_MATCHES_MISSING : 0;
    return query;
}

inline std::vector<event_key> keys_of(const st_tsval* answers, int count) {
    std::vector<event_key> keys;
    for (int i = 0; i < count; i++) keys.push_back({answers[i].time, answers[i].address});
    return keys;
}
inline std::vector<event_key> query_keys(TSIDX* tsidx, const std::string& text, const reference_bounds& bounds = {},
                                         uint32_t capacity = 5000) {
    std::vector<st_tsval> answers(capacity);
    const st_query_spec query = make_query(text.c_str(), bounds);
    const int count = st_tsidx_query(tsidx, &query, answers.data(), capacity, 1);
    EXPECT_GE(count, 0) << st_tsidx_last_failure(tsidx)->message;
    return keys_of(answers.data(), count);
}

}  // namespace veldar
