// Readers, a writer, mergers, a deleter and a retainer on one directory, each a process, while one after the other is
// killed, stopped, or finds the disk full. VELDAR_TORTURE set to a number of seconds asks for the long form: such a
// trouble every three seconds.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <numeric>
#include <random>
#include <span>
#include <thread>

#include "searchthing/st.h"
#include "tests/support/directory.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/face/veldar.h"
#include "tools/libveldar/load/retention.h"
#include "tools/libveldar/store/failure.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;
using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Event number i is at address i; those of a batch are put together and have one time. They go in order, from both ends
// of the numbers that are there: written at the top, retained at the bottom.
constexpr uint32_t CAPACITY = 1 << 22, BATCH = 5, KEPT_BATCHES = 40;
constexpr st_time_t FIRST_TIME = 1000000;

enum removal_t : uint8_t { NOT_BEGUN, BEGUN, DONE };
enum role_t : uint8_t { READER, ASKER, OTHER_ASKER, WRITER, MERGER, OTHER_MERGER, DELETER, RETAINER, ROLES };
enum trouble_t : uint8_t { KILLED, STOPPED, FULL, TROUBLES };

// What each process tells, in memory that outlives it.
struct world_t {
    std::atomic<uint32_t> synced, begun;      // events below are in the index; none from here on has been put
    std::atomic<uint32_t> dropped, dropping;  // events below are gone; none from here on is being retained away
    std::atomic<removal_t> removal[CAPACITY];
    uint32_t doomed[4];  // what the deleter is at
    uint32_t doomed_count;
    std::atomic<uint64_t> done[ROLES];  // searches, slices, merges, deletes, retentions
    std::atomic<uint32_t> full[ROLES];  // odd while its disk is full
    std::atomic<bool> stop;
    char failure[500];
};

// One process; whatever is not as it should be ends it.
struct actor {
    world_t* world;
    std::string path;
    role_t role;
    std::mt19937 random;

    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random() % n); }
    [[noreturn]] void fail(const std::string& what) const {
        std::snprintf(world->failure, sizeof world->failure, "role %d: %s", role, what.c_str());
        ::_exit(1);
    }
    void require(bool holds, const std::string& what) const {
        if (!holds) fail(what);
    }
    // True when `work` did what it has to, which it may leave undone only while the disk is full.
    bool done(const std::function<std::string()>& work) {
        const uint32_t full = world->full[role];
        const std::string trouble = work();
        if (trouble.empty()) return true;
        require(full % 2 == 1 || full != world->full[role], trouble);
        return false;
    }
};

struct thing_closer {
    void operator()(THING* thing) const { st_abandon(thing); }
};
using thing_ptr = std::unique_ptr<THING, thing_closer>;

std::string failure_of(THING* thing) {
    return st_tsidx_last_failure(st_directory(thing))->message;
}

thing_ptr open_thing(const actor& self) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_set_defaults(&opts);
    thing_ptr thing(st_open_for_write(self.path.c_str(), 0, TSIDX_ORDINARY_WRITER, &opts));
    self.require(thing != nullptr, "it cannot be opened");
    st_set_params(thing.get(), 512, 4096, 512, 64, 64, 64);
    return thing;
}

// A question about events from..to - 1, and what was known when it was asked.
class question {
  public:
    explicit question(actor* self) : self_(self), world_(self->world) {
        from = dropped_ = world_->dropped;
        synced_ = world_->synced;
        const uint32_t end = world_->begun;
        if (const uint32_t kind = self->below(16); kind == 0) {
            to = CAPACITY;
        } else if (kind < 4) {
            from = (from / BATCH + self->below(end / BATCH - from / BATCH + 1)) * BATCH;
            to = from + 4 * BATCH;
            bounds = {FIRST_TIME + static_cast<st_time_t>(from / BATCH), 0, 0};
            bounds.latest = bounds.earliest + 3;
        } else {
            from -= std::min(from, self->below(10));
            from += self->below(end + BATCH - from);
            to = from + 1;
            text = "n" + std::to_string(from);
        }
        for (uint32_t i = from; i < std::min(to, end); i++) removed_.push_back(world_->removal[i] == DONE);
    }

    void check_found(std::vector<uint32_t> found) const {
        std::sort(found.begin(), found.end());
        const uint32_t begun = world_->begun;
        const auto tell = [&](uint32_t event, const char* what) {
            self_->fail(text + ": " + std::to_string(event) + what + ", of " + std::to_string(found.size()) + " in " +
                        std::to_string(from) + " to " + std::to_string(to));
        };
        const auto twice = std::adjacent_find(found.begin(), found.end());
        if (twice != found.end()) tell(*twice, " is there twice");
        for (const uint32_t event : found) {
            if (event < from || event >= to || event >= begun) tell(event, " is not to be there");
            if (is_gone(event)) tell(event, " is there again");
        }
        for (const uint32_t event : wanted()) {
            if (!std::binary_search(found.begin(), found.end(), event)) tell(event, " is missing");
        }
    }
    void check_count(uint64_t count) const {
        uint64_t most = 0;
        for (uint32_t i = from, end = std::min<uint32_t>(to, world_->begun); i < end; i++) most += is_gone(i) ? 0 : 1;
        const uint64_t least = wanted().size();
        self_->require(count >= least && count <= most,
                       text + " counted " + std::to_string(count) + " in " + std::to_string(from) + " to " +
                           std::to_string(to) + ", not " + std::to_string(least) + " to " + std::to_string(most));
    }

    uint32_t from, to;
    std::string text = "alpha";
    reference_bounds bounds;

  private:
    bool is_gone(uint32_t event) const {
        return event < dropped_ || (event - from < removed_.size() && removed_[event - from]);
    }
    // Those that were there all the time.
    std::vector<uint32_t> wanted() const {
        std::vector<uint32_t> events;
        for (uint32_t i = std::max<uint32_t>(from, world_->dropping); i < std::min(to, synced_); i++) {
            if (world_->removal[i] == NOT_BEGUN) events.push_back(i);
        }
        return events;
    }

    actor* self_;
    world_t* world_;
    uint32_t dropped_ = 0, synced_ = 0;
    std::vector<bool> removed_;
};

void read_events(actor* self) {
    const thing_ptr thing(st_open_for_read(self->path.c_str()));
    const auto collect = [](const st_tsval* event, void* context) {
        static_cast<std::vector<uint32_t>*>(context)->push_back(event->address);
        return 0;
    };
    world_t* const world = self->world;
    for (; !world->stop; world->done[self->role]++) {
        while (world->done[READER] > world->done[ASKER] + world->done[OTHER_ASKER] + 100 && !world->stop) ::usleep(500);
        const question asked(self);
        const std::string text = "[AND " + asked.text + "]";
        const st_query_spec query = make_query(text.c_str(), asked.bounds);
        const uint32_t way = self->below(3);
        std::vector<uint32_t> found;
        if (way == 0) {
            uint64_t count = 0;
            self->require(st_event_count(thing.get(), &query, &count) == 0, failure_of(thing.get()));
            asked.check_count(count);
            continue;
        }
        if (way == 1 && asked.to - asked.from < 64) {
            st_tsval answers[64];
            const int count = st_query(thing.get(), &query, answers, 64, 1);
            self->require(count >= 0, failure_of(thing.get()));
            for (int i = 0; i < count; i++) found.push_back(answers[i].address);
        } else {
            self->require(st_apply_events(thing.get(), &query, collect, &found) >= 0, failure_of(thing.get()));
        }
        asked.check_found(found);
    }
}

void ask_libveldar(actor* self) {
    veldar_store* store = nullptr;
    const auto fine = [&](veldar_status status) {
        self->require(status <= VELDAR_END, veldar_last_error()->message);
        return status == VELDAR_OK;
    };
    fine(veldar_open(self->path.c_str(), 0, nullptr, &store));
    for (; !self->world->stop; self->world->done[self->role]++) {
        const question asked(self);
        const std::string since = "@" + std::to_string(asked.bounds.earliest);
        const std::string until = "@" + std::to_string(int64_t{asked.bounds.latest} + 1);
        veldar_query query = {};
        query.size = sizeof query;
        query.text = asked.text.c_str();
        if (asked.to - asked.from > 1 && asked.to != CAPACITY) {
            query.since = since.c_str();
            query.until = until.c_str();
        }
        if (self->below(2) == 0) {
            uint64_t count = 0;
            fine(veldar_count(store, &query, &count));
            asked.check_count(count);
            continue;
        }
        veldar_events* events = nullptr;
        fine(veldar_search(store, &query, 0, &events));
        std::vector<uint32_t> found;
        veldar_event event = {};
        event.size = sizeof event;
        while (fine(veldar_events_next(events, &event))) found.push_back(event.address);
        veldar_events_close(events);
        asked.check_found(found);
    }
    veldar_close(store);
}

// Where events are put: through the engine, or through libveldar.
struct put_handle {
    explicit put_handle(actor* self) : thing(self->below(2) == 0 ? open_thing(*self) : nullptr) {
        if (thing == nullptr) self->require(veldar_writer_open(self->path.c_str(), &writer) == VELDAR_OK, "opening");
    }
    ~put_handle() { static_cast<void>(veldar_writer_close(writer)); }

    std::string put(uint32_t event) const {
        const std::string own = "n" + std::to_string(event);
        const st_time_t time = FIRST_TIME + static_cast<st_time_t>(event / BATCH);
        if (thing == nullptr) {
            const veldar_text terms[] = {{"alpha", 5}, {own.data(), own.size()}};
            return veldar_writer_put(writer, time, event, terms, 2) == VELDAR_OK ? "" : veldar_last_error()->message;
        }
        const std::string_view terms[] = {"alpha", own};
        st_txn txn;
        txn.time = time;
        txn.address = event;
        return st_put_event(thing.get(), &txn, terms) == 0 ? "" : failure_of(thing.get());
    }
    std::string sync() const {
        if (thing == nullptr) return veldar_writer_sync(writer) == VELDAR_OK ? "" : veldar_last_error()->message;
        return st_sync(thing.get()) == 0 ? "" : failure_of(thing.get());
    }

    thing_ptr thing;
    veldar_writer* writer = nullptr;
};

// A writer that was killed may have written its last batch, or not.
void settle(actor* self) {
    world_t* const world = self->world;
    const thing_ptr reader(st_open_for_read(self->path.c_str()));
    const reference_bounds bounds = {FIRST_TIME + static_cast<st_time_t>(world->synced / BATCH), INT32_MAX, 0};
    const st_query_spec query = make_query("[AND alpha]", bounds);
    uint64_t count = 0;
    self->require(st_event_count(reader.get(), &query, &count) == 0, failure_of(reader.get()));
    self->require(count == 0 || count == world->begun - world->synced, "half a batch is there");
    count == 0 ? world->begun = world->synced.load() : world->synced = world->begun.load();
}

void write_events(actor* self) {
    world_t* const world = self->world;
    auto handle = std::make_unique<put_handle>(self);
    settle(self);
    while (!world->stop && world->synced + BATCH < CAPACITY) {
        world->begun = world->synced + BATCH;
        const bool is_in = self->done([&] {
            std::string trouble;
            for (uint32_t i = world->synced; i < world->begun && trouble.empty(); i++) trouble = handle->put(i);
            return trouble.empty() ? handle->sync() : trouble;
        });
        is_in ? world->synced = world->begun.load() : world->begun = world->synced.load();
        if (!is_in && handle->thing == nullptr) handle = std::make_unique<put_handle>(self);
        world->done[self->role] += is_in ? 1 : 0;
        ::usleep(3000);
    }
}

void merge_slices(actor* self) {
    const thing_ptr thing = open_thing(*self);
    TSIDX* const tsidx = st_directory(thing.get());
    while (!self->world->stop) {
        const int mode = self->below(6) == 0 ? TSIDX_OPTIMIZE_ALL : TSIDX_OPTIMIZE_TIERED;
        st_tsidx_set_merge_drops_deleted(tsidx, self->below(2) == 0);
        int status = 1;
        self->done([&] {
            warm_rc_t rc;
            status = st_tsidx_optimize_n(tsidx, mode, 2 + self->below(4), 0, 0, &rc, 0, 0, false);
            const bool idle = status == WARM_RC_FEW_SLICES || status == WARM_RC_FEW_SOURCES ||
                              status == WARM_RC_MANIFEST_EXISTS || status == WARM_RC_LOCK;
            return status == 0 || idle ? "" : "merging: " + std::string(rc.message);
        });
        self->world->done[self->role] += status == 0 ? 1 : 0;
        ::usleep(1000);
    }
}

void delete_events(actor* self) {
    world_t* const world = self->world;
    const thing_ptr thing = open_thing(*self);
    while (!world->stop) {
        const bool again = world->doomed_count != 0;
        const uint32_t least = world->dropping, synced = world->synced;
        if (!again) {
            // Mostly young ones, which are being merged.
            if (synced <= least) {
                ::usleep(1000);
                continue;
            }
            for (uint32_t& event : world->doomed) event = synced - 1 - self->below(std::min(synced - least, 40u));
            world->doomed_count = 1 + self->below(4);
        }
        const std::span<uint32_t> doomed(world->doomed, world->doomed_count);
        int64_t fresh = 0, marked = 0;
        for (const uint32_t event : doomed) {
            fresh += world->removal[event] == NOT_BEGUN ? 1 : 0;
            if (world->removal[event] == NOT_BEGUN) world->removal[event] = BEGUN;
        }
        const bool removed = self->done([&] {
            if (const uint32_t way = self->below(3); way == 0) {
                marked = st_delete_by_addrs(thing.get(), doomed.data(), doomed.size());
            } else if (way == 1) {
                std::vector<st_tsval_encoded> keys;
                for (const uint32_t event : doomed) {
                    keys.push_back({FIRST_TIME + static_cast<st_time_t>(event / BATCH), event});
                }
                marked = st_delete_by_keys(thing.get(), keys.data(), keys.size());
            } else {
                std::string text = "[OR";
                for (const uint32_t event : doomed) text += " n" + std::to_string(event);
                text += "]";
                const st_query_spec query = make_query(text.c_str());
                marked = st_tsidx_delete_by_query(st_directory(thing.get()), &query);
            }
            return marked >= 0 ? "" : "deleting: " + failure_of(thing.get());
        });
        if (!removed) continue;
        if (!again && *std::min_element(doomed.begin(), doomed.end()) >= world->dropping) {
            self->require(marked == fresh, "deleted " + std::to_string(marked) + " of " + std::to_string(fresh));
        }
        for (const uint32_t event : doomed) world->removal[event] = DONE;
        world->doomed_count = 0;
        world->done[self->role]++;
        ::usleep(3000);
    }
}

void retain_events(actor* self) {
    world_t* const world = self->world;
    const thing_ptr thing = open_thing(*self);
    while (!world->stop) {
        if (world->dropping == world->dropped) {
            const uint32_t batches = world->synced / BATCH, first = world->dropped / BATCH;
            if (batches < first + KEPT_BATCHES + 5) {
                ::usleep(5000);
                continue;
            }
            world->dropping = (batches - KEPT_BATCHES) * BATCH;
        }
        const st_time_t before = FIRST_TIME + static_cast<st_time_t>(world->dropping / BATCH);
        const bool retained = self->done([&]() -> std::string {
            if (self->below(4) == 0) {
                return st_tsidx_delete_before(st_directory(thing.get()), before) < 0 ? failure_of(thing.get()) : "";
            }
            try {
                tool::retain_in({self->path}, {.before = before, .max_size = {}}, false);
            } catch (const tool::failure_t& failure) {
                return "retaining: " + failure.message;
            }
            return "";
        });
        if (!retained) continue;
        world->dropped = world->dropping.load();
        world->done[self->role]++;
    }
}

class Race : public directory_test {
  protected:
    void TearDown() override {
        world_->stop = true;
        for (const pid_t child : children_) {
            if (child > 0) ::kill(child, SIGKILL);
            if (child > 0) ::waitpid(child, nullptr, 0);
        }
        ::munmap(world_, sizeof *world_);
        if (!HasFailure()) return;
        const std::string kept = temp_dir::root() + "-race";
        fs::rename(dir_.path(), kept);
        std::printf("the directory is kept: %s\n", kept.c_str());
    }

    void start(role_t role) {
        constexpr void (*acts[ROLES])(actor*) = {read_events,  ask_libveldar, ask_libveldar, write_events,
                                                 merge_slices, merge_slices,  delete_events, retain_events};
        actor self = {world_, dir_.path(), role, std::mt19937(random_())};
        children_[role] = ::fork();
        if (children_[role] != 0) return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::signal(SIGXFSZ, SIG_IGN);
        st_init("race");
        acts[role](&self);
        ::_exit(0);
    }

    // How a child ended is not what it should be.
    void expect_ended(role_t role, int flags, bool killed) {
        int status = 0;
        if (children_[role] <= 0 || ::waitpid(children_[role], &status, flags) == 0) return;
        children_[role] = 0;
        const bool as_wanted = killed ? WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL
                                      : flags == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        EXPECT_TRUE(as_wanted) << "role " << int{role} << " ended with status " << status << "; " << world_->failure;
    }

    // Until everybody has done something more; not longer than a minute.
    void expect_progress(milliseconds least) {
        uint64_t before[ROLES];
        std::copy(world_->done, world_->done + ROLES, before);
        const auto begun = clock::now();
        const auto lags = [&](int role) {
            return role != MERGER && role != OTHER_MERGER
                       ? world_->done[role] < before[role] + (role < WRITER ? 20 : 1)
                       : world_->done[MERGER] + world_->done[OTHER_MERGER] == before[MERGER] + before[OTHER_MERGER];
        };
        for (uint8_t role = 0; role < ROLES && !HasFailure(); role++) {
            while ((lags(role) || clock::now() < begun + least) && !HasFailure()) {
                ::usleep(5000);
                for (uint8_t other = 0; other < ROLES; other++)
                    expect_ended(static_cast<role_t>(other), WNOHANG, false);
                EXPECT_TRUE(!lags(role) || clock::now() < begun + std::chrono::minutes(1))
                    << "role " << int{role} << " hangs";
            }
        }
    }

    void make_trouble(role_t role, trouble_t trouble, milliseconds length) {
        SCOPED_TRACE(testing::Message() << "role " << int{role} << " trouble " << int{trouble});
        const pid_t child = children_[role];
        ::usleep(static_cast<unsigned>(random_() % 5000));
        if (trouble == KILLED) {
            ::kill(child, SIGKILL);
            expect_ended(role, 0, true);
            start(role);
            return;
        }
        rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
        if (trouble == STOPPED) {
            ::kill(child, SIGSTOP);
        } else {
            static constexpr rlim_t SIZES[] = {0, 100, 1000, 4096};
            rlimit little = {SIZES[random_() % std::size(SIZES)], RLIM_INFINITY};
            world_->full[role]++;
            EXPECT_EQ(::prlimit(child, RLIMIT_FSIZE, &little, &none), 0);
        }
        std::this_thread::sleep_for(length);
        if (trouble == STOPPED) {
            ::kill(child, SIGCONT);
        } else {
            EXPECT_EQ(::prlimit(child, RLIMIT_FSIZE, &none, nullptr), 0);
            world_->full[role]++;
        }
    }

    void end_all() {
        world_->stop = true;
        for (uint8_t role = 0; role < ROLES && !HasFailure(); role++) expect_ended(static_cast<role_t>(role), 0, false);
    }

    // Every event that is to be there is, the slices are sound, and nothing lies about.
    void check_end() const {
        const directory_ptr tsidx = open_directory(dir_.path());
        std::vector<uint32_t> found, wanted;
        for (const event_key& key : query_keys(tsidx.get(), "[AND alpha]", {}, 100000)) found.push_back(key.second);
        std::sort(found.begin(), found.end());
        for (uint32_t i = world_->dropped; i < world_->synced; i++) {
            const bool is_there = std::binary_search(found.begin(), found.end(), i);
            const removal_t removal = world_->removal[i];
            if (removal == BEGUN || i < world_->dropping ? is_there : removal == NOT_BEGUN) wanted.push_back(i);
        }
        EXPECT_EQ(found, wanted);
        std::vector<tsidx_leftover_t> left;
        EXPECT_EQ(st_tsidx_find_leftovers(tsidx.get(), &left), 0);
        for (const tsidx_leftover_t& one : left) EXPECT_TRUE(one.is_kept) << one.name;
        veldar_store* store = nullptr;
        veldar_table* faults = nullptr;
        EXPECT_EQ(veldar_open(dir_.path().c_str(), 0, nullptr, &store), VELDAR_OK);
        EXPECT_EQ(veldar_fsck(store, 0, &faults), VELDAR_END) << veldar_last_error()->message;
        veldar_table_free(faults);
        veldar_close(store);
    }

    const uint32_t seed_ = ::getenv("VELDAR_TORTURE") == nullptr ? 1 : std::random_device()();
    std::mt19937 random_{seed_};
    const temp_dir dir_;
    pid_t children_[ROLES] = {};
    world_t* const world_ = static_cast<world_t*>(
        ::mmap(nullptr, sizeof(world_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
};

TEST_F(Race, EachEventOnceWhileOneIsKilledStoppedOrOutOfSpace) {
    const char* const seconds = ::getenv("VELDAR_TORTURE");
    const auto end = clock::now() + std::chrono::seconds(seconds == nullptr ? 0 : std::atoi(seconds));
    const milliseconds between(seconds == nullptr ? 0 : 2500), length(seconds == nullptr ? 30 : 500);
    std::vector<unsigned> troubles(size_t{ROLES} * TROUBLES);
    std::iota(troubles.begin(), troubles.end(), 0u);
    for (uint8_t role = 0; role < ROLES; role++) start(static_cast<role_t>(role));
    do {
        std::shuffle(troubles.begin(), troubles.end(), random_);
        for (const unsigned number : troubles) {
            expect_progress(between);
            if (HasFailure()) break;
            make_trouble(static_cast<role_t>(number % ROLES), static_cast<trouble_t>(number / ROLES), length);
        }
    } while (clock::now() < end && !HasFailure());
    expect_progress(milliseconds(0));
    end_all();
    for (const std::atomic<uint64_t>& done : world_->done) std::printf("%lu ", static_cast<unsigned long>(done));
    std::printf("done by each role; %u events; seed %u\n", world_->synced.load(), seed_);
    if (!HasFailure()) check_end();
}

}  // namespace
}  // namespace veldar
