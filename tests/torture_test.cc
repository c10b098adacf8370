// One workload, load, sync, delete, query, minify, close, with every file call and every allocation of it failing or
// killing the process. VELDAR_TORTURE set to a number of seconds asks for the long form.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "searchthing/seal/slice_seal.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/st.h"
#include "tests/support/faults.h"
#include "tests/support/hot_events.h"
#include "tests/support/leak_listener.h"
#include "tests/support/seals.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

constexpr int BATCHES = 3;
constexpr uint32_t BATCH_EVENTS = 6;

// How far something got: it was begun, or its failure or success was reported.
enum outcome_t { NOT_BEGUN, BEGUN, FAILED, DONE };

// What the workload reports, in memory that a killed process leaves behind.
struct progress_t {
    outcome_t put[BATCHES][BATCH_EVENTS];
    outcome_t sync[BATCHES];
    outcome_t removal;
    bool unmoved;  // the handle named a slice that it could not move
    bool wrong_answer;
    bool hopeless;  // calls go on failing, so that a failed step may not have been undone
    bool finished;
};

template <typename T>
struct shared {
    T* at = static_cast<T*>(::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ~shared() { ::munmap(at, sizeof(T)); }
    T* operator->() const { return at; }
};

uint32_t address_of(int batch, uint32_t i) {
    return static_cast<uint32_t>(batch) * 100 + i;
}
bool is_doomed(uint32_t address) {
    return address % 3 == 0;
}

struct addresses_t {
    st_addr_t held[1000];
    size_t count = 0;
};

std::vector<st_addr_t> read_addresses(THING* thing, int64_t* status) {
    addresses_t found;
    QUERY query;
    st_query_init(&query);
    query.latest = {INT32_MAX, 0};
    query.lispy = "[AND a]";
    const auto collect = [](const st_tsval* event, void* context) {
        auto* const addresses = static_cast<addresses_t*>(context);
        if (addresses->count < std::size(addresses->held)) addresses->held[addresses->count++] = event->address;
        return 0;
    };
    *status = st_apply_events(thing, &query, collect, &found);
    const fault_truce truce;
    return {found.held, found.held + found.count};
}

// Whether the events found, each once, are what the reports allow.
testing::AssertionResult agrees(const progress_t& progress, std::vector<st_addr_t> found) {
    std::sort(found.begin(), found.end());
    const auto has = [&](uint32_t address) { return std::binary_search(found.begin(), found.end(), address); };
    if (std::adjacent_find(found.begin(), found.end()) != found.end()) {
        return testing::AssertionFailure() << "an event is there twice";
    }
    size_t known = 0;
    for (int batch = 0; batch < BATCHES; batch++) {
        size_t wanted = 0, held = 0;
        for (uint32_t i = 0; i < BATCH_EVENTS; i++) {
            const uint32_t address = address_of(batch, i);
            known += has(address) ? 1 : 0;
            if (progress.put[batch][i] != DONE) {
                if (has(address)) return testing::AssertionFailure() << address << " was refused and is there";
                continue;
            }
            if (is_doomed(address) && progress.removal != NOT_BEGUN) {
                if (progress.removal == DONE && progress.sync[batch] == DONE && has(address)) {
                    return testing::AssertionFailure() << address << " was deleted and is there";
                }
                continue;
            }
            wanted++;
            held += has(address) ? 1 : 0;
        }
        const outcome_t sync = progress.sync[batch];
        if (sync == DONE && held != wanted) return testing::AssertionFailure() << "batch " << batch << " lost events";
        if (sync == FAILED && held != 0 && !progress.hopeless)
            return testing::AssertionFailure() << "batch " << batch << " was refused";
        if (held != 0 && held != wanted) return testing::AssertionFailure() << "batch " << batch << " is half there";
    }
    if (known != found.size()) return testing::AssertionFailure() << "an event that nobody put";
    return testing::AssertionSuccess();
}

void run_workload(const std::string& index, const std::string& mini, progress_t* progress) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_set_defaults(&opts);
    THING* const thing = st_open_for_write(index.c_str(), 0, TSIDX_ORDINARY_WRITER, &opts);
    if (thing == nullptr) return;
    st_tsidx_set_lock_timeout(st_directory(thing), 0);
    // The smallest hot slice, so that it costs no time.
    st_set_params(thing, 512, 4096, 512, 64, 64, 64);
    for (int batch = 0; batch < BATCHES; batch++) {
        for (uint32_t i = 0; i < BATCH_EVENTS; i++) {
            progress->put[batch][i] = BEGUN;
            const uint32_t address = address_of(batch, i);
            const std::string term = "only::" + std::to_string(address);
            const bool started = st_txn_start(thing, static_cast<st_time_t>(1000 + address), address, 0, 0, 0) == 0 &&
                                 st_txn_put(thing, "a", 1) == 0 && st_txn_put(thing, term.data(), term.size()) == 0;
            progress->put[batch][i] = started && st_txn_close(thing) == 0 ? DONE : FAILED;
        }
        progress->sync[batch] = BEGUN;
        progress->sync[batch] = st_sync(thing) == 0 ? DONE : FAILED;
        progress->unmoved = progress->unmoved || *st_tsidx_unmoved_slice(st_directory(thing)) != '\0';
    }
    st_addr_t doomed[BATCHES * BATCH_EVENTS];
    size_t count = 0;
    for (int batch = 0; batch < BATCHES; batch++) {
        for (uint32_t i = 0; i < BATCH_EVENTS; i++) {
            if (is_doomed(address_of(batch, i))) doomed[count++] = address_of(batch, i);
        }
    }
    progress->removal = BEGUN;
    progress->removal = st_delete_by_addrs(thing, doomed, count) >= 0 ? DONE : FAILED;
    int64_t status = 0;
    const std::vector<st_addr_t> found = read_addresses(thing, &status);
    {
        const fault_truce truce;
        progress->wrong_answer = status >= 0 && !agrees(*progress, found);
    }
    static_cast<void>(st_minify(thing, mini.c_str()));
    static_cast<void>(st_close(thing));
    progress->finished = true;
}

class Torture : public testing::Test {
  protected:
    void SetUp() override {
        st_init("torture");
        reset();
    }

    void reset() {
        dir_ = std::make_unique<temp_dir>();
        index_ = dir_->file("index");
        mini_ = dir_->file("mini");
        fs::create_directory(index_);
        fs::create_directory(mini_);
        *progress_.at = {};
    }

    // After a workload in trouble: what it reported is true, and the directory is as usable as ever.
    void check(bool files_may_stay) {
        EXPECT_FALSE(progress_->wrong_answer);
        if (!files_may_stay) {
            for (const std::string& directory : {index_, mini_, dir_->path()}) {
                for (const std::string& path : files_in(directory, "")) {
                    const bool kept = progress_->unmoved && path.ends_with(TSIDX_PRE_SUFFIX);
                    EXPECT_TRUE(kept || path.ends_with(".tsidx") || path.ends_with(SEAL_SUFFIX) ||
                                path.ends_with(".dat") || path == index_ || path == mini_)
                        << "left behind: " << path;
                }
            }
        }
        THING* const reader = st_open_for_read(index_.c_str());
        int64_t status = 0;
        EXPECT_TRUE(agrees(*progress_.at, read_addresses(reader, &status)));
        EXPECT_EQ(status, 0) << st_tsidx_last_failure(st_directory(reader))->message;
        EXPECT_EQ(st_close(reader), 0);
        EXPECT_EQ(seal_troubles(index_) + seal_troubles(mini_), "");
        check_usable();
        for (const std::string& path : files_in(mini_, TSIDX_MINI_SUFFIX)) {
            warm_rc_t rc;
            WARM* const mini = st_warm_slice_open_rdonly(path.c_str(), &rc);
            EXPECT_NE(mini, nullptr) << "half a mini slice: " << path;
            if (mini != nullptr) st_warm_slice_close(mini);
        }
    }

    // Another writer goes on where the first one stopped: deletes everything, by repeating what may be half done.
    void check_usable() {
        TSWRITEOPTS opts;
        st_tsidx_write_opts_set_defaults(&opts);
        THING* const writer = st_open_for_write(index_.c_str(), 0, TSIDX_ORDINARY_WRITER, &opts);
        ASSERT_NE(writer, nullptr);
        EXPECT_EQ(st_txn_start(writer, 5, 5000, 0, 0, 0), 0);
        EXPECT_EQ(st_txn_put(writer, "a", 1), 0);
        EXPECT_EQ(st_txn_close(writer), 0);
        std::vector<st_addr_t> all;
        for (int batch = 0; batch < BATCHES; batch++) {
            for (uint32_t i = 0; i < BATCH_EVENTS; i++) all.push_back(address_of(batch, i));
        }
        EXPECT_GE(st_delete_by_addrs(writer, all.data(), all.size()), 0);
        int64_t status = 0;
        EXPECT_EQ(read_addresses(writer, &status), std::vector<st_addr_t>{5000});
        EXPECT_EQ(st_close(writer), 0);
        EXPECT_EQ(files_in(index_, ".tsidx").size(), 1u);
    }

    const lock_optimism optimism_;
    const no_pauses pauses_;
    const no_flushes flushes_;
    std::unique_ptr<temp_dir> dir_;
    std::string index_, mini_;
    shared<progress_t> progress_;
};

TEST_F(Torture, EveryFileCallFails) {
    uint64_t calls = 0, allocations = 0;
    std::vector<uint64_t> numbers;  // of allocations, each from a place of its own
    {
        const fault_step counting(fault_action::allocation, ~uint64_t{0});
        run_workload(index_, mini_, progress_.at);
        calls = counting.calls();
        allocations = counting.allocations();
        numbers = counting.firsts();
    }
    EXPECT_TRUE(progress_->finished);
    EXPECT_EQ(progress_->removal, DONE);
    EXPECT_GT(calls, 100u);
    EXPECT_GT(allocations, 100u);
    check(false);

    const std::set<std::string> descriptors = leak_listener::open_descriptors();
    const auto run = [&](fault_action action, uint64_t n, int error, uint64_t times) {
        SCOPED_TRACE(testing::Message() << "action " << static_cast<int>(action) << " at " << n << " errno " << error
                                        << " times " << times);
        reset();
        progress_->hopeless = times > 1;
        bool unlink_failed = false;
        {
            const fault_step trouble(action, n, error, times);
            run_workload(index_, mini_, progress_.at);
            unlink_failed = action == fault_action::fail && trouble.struck(fault_call::unlink);
            if (error == EINTR && trouble.struck_where_signals_do()) {
                const auto done = [](outcome_t outcome) { return outcome == DONE; };
                const auto* const puts = &progress_->put[0][0];
                EXPECT_TRUE(progress_->removal == DONE &&
                            std::all_of(progress_->sync, std::end(progress_->sync), done) &&
                            std::all_of(puts, puts + BATCHES * BATCH_EVENTS, done))
                    << "it is called again";
            }
        }
        check(unlink_failed);
        EXPECT_EQ(leak_listener::open_descriptors(), descriptors);
    };
    const bool brief = ::getenv("VELDAR_TORTURE") == nullptr;
    for (uint64_t n = 1; n <= calls && !HasFailure(); n++) {
        for (const int error : {ENOSPC, EIO, EMFILE, EINTR}) {
            run(fault_action::fail, n, error, 1);
            if (!brief) run(fault_action::fail, n, error, 1000000);
        }
        run(fault_action::shorten, n, 0, 1);
    }
    for (uint64_t n = 1; n <= allocations && !brief; n++) numbers.push_back(n);
    for (size_t i = 0; i < numbers.size() && !HasFailure(); i++) {
        run(fault_action::allocation, numbers[i], 0, 1);
        if (!brief) run(fault_action::allocation, numbers[i], 0, 1000000);
    }
}

TEST_F(Torture, KilledAtEveryFileCall) {
    for (const fault_action action : {fault_action::kill_before, fault_action::kill_after}) {
        for (uint64_t n = 1; !HasFailure(); n++) {
            SCOPED_TRACE(testing::Message() << "action " << static_cast<int>(action) << " at " << n);
            reset();
            const pid_t child = ::fork();
            if (child == 0) {
                const fault_step death(action, n);
                run_workload(index_, mini_, progress_.at);
                ::_exit(0);
            }
            int status = 0;
            ASSERT_EQ(::waitpid(child, &status, 0), child);
            check(true);
            if (!WIFSIGNALED(status)) {
                EXPECT_TRUE(progress_->finished);
                EXPECT_GT(n, 100u);
                break;
            }
        }
    }
}

}  // namespace
}  // namespace veldar
