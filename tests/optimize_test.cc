// Merging in directories: the manifest, what readers make of it, and what becomes of merges that were cut off.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "libzero/ospath-builder.h"
#include "libzero/resource.h"
#include "searchthing/base/st_init.h"
#include "searchthing/directory/merge_manifest.h"
#include "searchthing/directory/tsidx_list.h"
#include "searchthing/directory/tsidx_params.h"
#include "searchthing/merge/warmslice_merge.h"
#include "searchthing/seal/slice_seal.h"
#include "searchthing/st_optimize.h"
#include "searchthing/upkeep/tsidx_merge_commit_internal.h"
#include "searchthing/upkeep/tsidx_merge_plan.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/directory.h"
#include "tests/support/forge_metric.h"
#include "tests/support/hot_events.h"
#include "tests/support/leak_listener.h"
#include "tests/support/seals.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/load/merging.h"
#include "tools/libveldar/load/retention.h"
#include "xxhash.h"

namespace veldar {

using namespace tool;
namespace {

namespace fs = std::filesystem;

class Optimize : public directory_test {};

forge_event event_at(int32_t time) {
    return {.time = time, .address = static_cast<uint32_t>(time), .terms = {"a"}};
}

void put_slice(const std::string& path, const std::vector<forge_event>& events) {
    const directory_ptr tsidx = open_directory(path);
    for (const forge_event& event : events) EXPECT_EQ(put_event(tsidx.get(), event), 0);
    EXPECT_EQ(st_tsidx_sync(tsidx.get()), 0);
}

merge_manifest_t manifest_of(merge_owner_t owner, std::vector<std::string> sources) {
    return {std::move(owner), "9-1-5.tsidx", "9-1-5.pre-tsidx", std::move(sources)};
}

TEST_F(Optimize, ManifestTooLongToBeReadIsNotWritten) {
    const temp_dir dir;
    const directory_ptr tsidx = open_directory(dir.path());
    warm_rc_t rc;
    tsidx_merge_commit commit(tsidx.get());
    ASSERT_EQ(commit.begin(&rc), 0) << rc.message;
    const std::vector<std::string> sources(MERGE_MAX_SOURCES, std::string(240, '0') + "1-1-1.tsidx");
    EXPECT_EQ(commit.declare(1, 9, sources, &rc), WARM_RC_DOES_NOT_FIT);
}

// The path of a directory that leaves no room for some of the names in it.
TEST_F(Optimize, NamesWithoutRoom) {
    const temp_dir dir;
    const auto path = [&](size_t length) { return dir.path() + std::string(length - dir.path().size(), '/'); };
    const directory_ptr nothing = open_directory(path(4094)), manifests = open_directory(path(4066));
    const directory_ptr slices = open_directory(path(4065));
    TSIDX* const parts = open_directory(path(4060)).release();
    warm_rc_t rc;
    ospath_buf name;
    EXPECT_TRUE(so_status_filename(&name, path(4094).c_str()) == -1 && name.val[0] == '\0');
    const tsidx_params_line line = serialize_params({}, 7);
    EXPECT_EQ(tsidx_write_params(path(4065).c_str(), line, 1234567), WARM_RC_PATH_TOO_LONG);
    EXPECT_TRUE(st_tsidx_need_optimize(nothing.get()) == 0 && st_tsidx_set_need_optimize(nothing.get()) != 0);
    EXPECT_EQ(tsidx_merge_commit(manifests.get()).begin(&rc), WARM_RC_PATH_TOO_LONG);
    tsidx_merge_commit commit(slices.get());
    EXPECT_EQ(commit.begin(&rc), 0) << rc.message;
    EXPECT_EQ(commit.declare(1, 9, {"9-1-1.tsidx"}, &rc), WARM_RC_PATH_TOO_LONG);
    ASSERT_EQ(put_event(parts, event_at(1)), 0);
    EXPECT_EQ(st_tsidx_sync_part(parts), TSIDX_SYNC_FAILED);
    EXPECT_EQ(st_tsidx_get_warm_rc(parts), WARM_RC_PATH_TOO_LONG);
    st_tsidx_abandon(parts);
}

TEST_F(Optimize, ManifestIsBelievedOnlyWhole) {
    const merge_owner_t owner = merge_owner_self();
    const std::string text = merge_manifest_text(manifest_of(owner, {"9-3-1.tsidx", "2--1-2.0.7.part-tsidx"}));
    merge_manifest_t found;
    ASSERT_TRUE(merge_manifest_parse(text, &found));
    EXPECT_EQ(found.owner, owner);
    EXPECT_EQ(found.target, "9-1-5.tsidx");
    EXPECT_EQ(found.temp, "9-1-5.pre-tsidx");
    EXPECT_EQ(found.sources, (std::vector<std::string>{"9-3-1.tsidx", "2--1-2.0.7.part-tsidx"}));
    EXPECT_EQ(text.find(merge_manifest_owner_text(owner)), 0u);

    std::mt19937 random(1);
    for (size_t i = 0; i < text.size(); i++) {
        std::string damaged = text;
        damaged[i] = static_cast<char>(damaged[i] ^ (1 << random() % 8));
        EXPECT_FALSE(merge_manifest_parse(damaged, &found)) << damaged;
        EXPECT_FALSE(merge_manifest_parse(text.substr(0, i), &found)) << i;
        merge_owner_t ignored;
        static_cast<void>(merge_manifest_parse_owner(damaged, &ignored));
    }
    // Right sums over what no merge writes.
    const std::vector<std::string> many(MERGE_MAX_SOURCES + 1, "9-3-1.tsidx");
    for (const std::vector<std::string>& sources : {std::vector<std::string>{},
                                                    many,
                                                    {"9-3-1.tsidx", "../9-3-2.tsidx"},
                                                    {"9-3-1.tsidx", "9-1-5.tsidx"},
                                                    {"9-3-1.tsidx", "9-3-2.mini.tsidx"},
                                                    {"9-3-1.tsidx", "passwd"}}) {
        EXPECT_FALSE(merge_manifest_parse(merge_manifest_text(manifest_of(owner, sources)), &found));
    }
    // And over what one may have become: what is believed is all there is.
    const std::string before = text.substr(0, text.rfind("check "));
    for (size_t i = 0; i < before.size(); i++) {
        for (const std::string& other : {std::string(), std::string(" "), std::string("\n"), std::string("x")}) {
            std::string changed = before;
            changed.replace(i, other.empty() ? before.find('\n', i) - i + 1 : 1, other);
            char check[32];
            std::snprintf(check, sizeof check, "check %016llx\n",
                          static_cast<unsigned long long>(XXH64(changed.data(), changed.size(), 0)));
            if (!merge_manifest_parse(changed + check, &found)) continue;
            EXPECT_EQ(merge_manifest_text(found), changed + check);
        }
    }
}

// The files of a directory without those that say how it is written, and without seals.
std::set<std::string> names_in(const std::string& directory) {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(directory)) {
        const std::string name = entry.path().filename();
        const bool is_aside =
            name == TSIDX_PARAMS_NAME || name == TSIDX_NEED_OPTIMIZE_NAME || name.find(SEAL_SUFFIX) != name.npos;
        if (!is_aside) found.insert(name);
    }
    return found;
}

// The files of a merge of two slices, cut off somewhere.
struct cut_off_merge {
    temp_dir dir;
    merge_manifest_t manifest;

    explicit cut_off_merge(bool has_target) {
        const temp_dir elsewhere;
        put_slice(elsewhere.path(), {event_at(1), event_at(2)});
        for (const int32_t time : {2, 1}) put_slice(dir.path(), {event_at(time)});
        const std::string merged = *names_in(elsewhere.path()).begin();
        const std::set<std::string> sources = names();
        merge_owner_t owner = merge_owner_self();
        owner.process = process_that_is_gone();
        manifest = {
            owner, merged, merged.substr(0, merged.rfind('.')) + TSIDX_PRE_SUFFIX, {sources.begin(), sources.end()}};
        fs::copy_file(elsewhere.file(merged), dir.file(manifest.temp));
        if (has_target) fs::create_hard_link(dir.file(manifest.temp), dir.file(merged));
    }
    void write(const std::string& text, const char* name = MERGE_MANIFEST_NAME) const {
        write_file(dir.file(name), text);
    }
    std::set<std::string> names() const { return names_in(dir.path()); }
};

// Through a handle that was open before the crash.
TEST_F(Optimize, DeletesAfterACrashLast) {
    const cut_off_merge merge(true);
    const directory_ptr before = open_directory(merge.dir.path());
    merge.write(merge_manifest_text(merge.manifest));
    const st_addr_t addresses[] = {1, 2};
    EXPECT_EQ(st_tsidx_delete_by_addr(before.get(), addresses, 2), 2);
    EXPECT_TRUE(query_keys(open_for_reading(merge.dir.path()).get(), "[AND a]").empty());
    EXPECT_EQ(merge.names(), std::set<std::string>{});
}

TEST_F(Optimize, OnlyAMergeWhoseOwnerIsGoneIsUndone) {
    const merge_owner_t self = merge_owner_self();
    const pid_t gone = process_that_is_gone();
    struct {
        const char* what;
        merge_owner_t owner;
        bool locked, old, undone, no_flock = false;
    } const table[] = {
        {"at work where nothing can be locked", {::getpid(), self.boot, self.host}, false, true, false, true},
        {"ended where nothing can be locked", {gone, self.boot, self.host}, false, false, true, true},
        {"a process that ended", {1, self.boot, self.host}, false, false, true},
        {"one at work, somewhere on this machine", {1, self.boot, "container"}, true, true, false},
        {"one in a container that is gone", {1, self.boot, "container"}, false, false, true},
        {"before the machine was started", {1, "other", self.host}, false, false, true},
        {"another machine", {1, "other", "elsewhere"}, false, false, false},
        {"another machine, a day ago", {1, "other", "elsewhere"}, false, true, true},
    };
    for (const auto& row : table) {
        for (const char* name : {MERGE_MANIFEST_NAME, MERGE_MANIFEST_TMP_NAME}) {
            SCOPED_TRACE(testing::Message() << row.what << " " << name);
            cut_off_merge merge(false);
            merge.manifest.owner = row.owner;
            // Not even when it looks like what an interrupted sync has left.
            const std::string temp = "2-1-" + std::to_string(static_cast<uint64_t>(gone) % 65535 << 16) + ".pre-tsidx";
            fs::rename(merge.dir.file(merge.manifest.temp), merge.dir.file(temp));
            fs::resize_file(merge.dir.file(temp), 100);
            make_old(merge.dir.file(temp));
            merge.manifest.temp = temp;
            merge.write(merge_manifest_text(merge.manifest), name);
            const unique_fd fd(::open(merge.dir.file(name).c_str(), O_RDWR | O_CLOEXEC));
            if (row.locked) {
                ASSERT_EQ(::flock(fd.get(), LOCK_EX), 0);
            }
            if (row.old) make_old(merge.dir.file(name));
            const fault no_flock(fault_call::flock, 1, EOPNOTSUPP, row.no_flock ? 1000 : 0);
            open_directory(merge.dir.path());
            EXPECT_EQ(fs::exists(merge.dir.file(name)), !row.undone);
            EXPECT_EQ(fs::exists(merge.dir.file(merge.manifest.temp)), !row.undone);
            EXPECT_EQ(query_keys(open_for_reading(merge.dir.path()).get(), "[AND a]").size(), 2u);
        }
    }
    const cut_off_merge merge(false);
    merge.write(merge_manifest_text(merge.manifest) + "x");
    const auto opened = [&](uint64_t failures) {
        const fault stuck(fault_call::rename, 1, EIO, failures);
        return logged([&] { open_directory(merge.dir.path()); });
    };
    EXPECT_NE(opened(1).find("WARN  a merge that was cut off was not settled"), std::string::npos);
    const std::string log = opened(0);
    EXPECT_NE(log.find("WARN  a damaged merge manifest was set aside"), std::string::npos) << log;
}

// Every stretch of every tier, by brute force; of equally many slices the smallest.
TEST_F(Optimize, TakesTheLongestStretchOfTheLowestTier) {
    std::mt19937 random(2);
    const char* const magics[] = {"_TSIDX9", "_TSIDX8", "_TSIDX7", "Veldar6"};
    for (int round = 0; round < 300; round++) {
        std::vector<tsidx_merge_source_t> slices(random() % 150);
        std::map<uint32_t, std::map<int, std::vector<size_t>>> tiers;
        const tsidx_merge_rules_t rules = {.tiered = random() % 2 == 0,
                                           .parts_only = random() % 4 == 0,
                                           .min_sources = static_cast<uint32_t>(random() % 12),
                                           .target_size = uint64_t{1} << (15 + random() % 17)};
        for (size_t i = 0; i < slices.size(); i++) {
            const uint32_t least = round % 2 == 0 ? 0 : 20;  // the lowest tier is the fullest, or is not
            slices[i].bytes = (uint64_t{1} << (least + random() % (31 - least))) + random() % 1000;
            slices[i].part = random() % 3 == 0;
            warm_header_init(&slices[i].header, magics[round % 3 == 0 ? random() % 4 : 0]);
            if (rules.parts_only && !slices[i].part) continue;
            const uint32_t tier = rules.tiered ? tsidx_merge_tier(slices[i].bytes) : 0;
            tiers[tier][st_warm_slice_merge_kind(&slices[i].header)].push_back(i);
        }
        std::vector<size_t> best;
        uint64_t best_bytes = 0;
        for (const auto& [tier, kinds] : tiers) {
            for (const auto& [kind, group] : kinds) {
                if (rules.tiered && group.size() < rules.min_sources) continue;
                for (auto first = group.begin(); first != group.end(); ++first) {
                    uint64_t bytes = 0;
                    for (auto i = first; i != group.end() && i - first < 64; ++i) {
                        if ((bytes += slices[*i].bytes) > rules.target_size) break;
                        const std::vector<size_t> taken(first, i + 1);
                        if (taken.size() < std::max<size_t>(best.size(), 2)) continue;
                        if (taken.size() == best.size() && bytes >= best_bytes) continue;
                        best = taken;
                        best_bytes = bytes;
                    }
                }
            }
            if (!best.empty()) break;
        }
        EXPECT_EQ(tsidx_plan_merge(slices, rules), best);
    }
    EXPECT_EQ(tsidx_merge_tier((4 << 20) - 1), 0u);
    EXPECT_EQ(tsidx_merge_tier(4 << 20), 1u);
    EXPECT_EQ(tsidx_merge_tier(uint64_t{1500} << 20), 5u);
}

std::vector<event_key> sorted_events(TSIDX* reader) {
    std::vector<event_key> keys;
    const st_query_spec query = make_query("[AND a]");
    const auto collect = [](const st_tsval* event, void* context) {
        static_cast<std::vector<event_key>*>(context)->push_back({event->time, event->address});
        return 0;
    };
    EXPECT_EQ(st_tsidx_apply_events(reader, &query, collect, &keys), 0) << st_tsidx_last_failure(reader)->message;
    std::sort(keys.begin(), keys.end());
    return keys;
}
std::vector<event_key> sorted_events(const std::string& path) {
    return sorted_events(open_for_reading(path).get());
}

// A reader, which keeps the sources open, meets a merge that takes effect before one of its calls, and removes the
// sources before that or a later one.
TEST_F(Optimize, TakesEffectAtAnyCallOfARead) {
    const no_pauses pauses;
    const cut_off_merge original(false);
    const merge_manifest_t& manifest = original.manifest;
    uint64_t calls = 0;
    const auto read = [&](uint64_t first, uint64_t second) {
        SCOPED_TRACE(testing::Message() << first << " and " << second << " of " << calls);
        const temp_dir dir;
        fs::copy(original.dir.path(), dir.path());
        const directory_ptr reader = open_for_reading(dir.path());
        EXPECT_EQ(sorted_events(reader.get()).size(), 2u);
        uint64_t at = first;
        const auto go_on = [&] {
            if (at == first) {
                write_file(dir.file(MERGE_MANIFEST_NAME), merge_manifest_text(manifest));
                fs::create_hard_link(dir.file(manifest.temp), dir.file(manifest.target));
            }
            if (at++ != second) return;
            for (const std::string& source : manifest.sources) fs::remove(dir.file(source));
            fs::remove(dir.file(MERGE_MANIFEST_NAME));
        };
        const fault_step step(first, go_on, ~uint64_t{0} - first);
        EXPECT_EQ(sorted_events(reader.get()), (std::vector<event_key>{{1, 1}, {2, 2}}));
        return step.calls();
    };
    calls = read(uint64_t{1} << 40, 0);
    EXPECT_GT(calls, 10u);
    for (uint64_t first = 1; first <= calls; first++) {
        for (uint64_t second = first; second <= calls + 1 && !HasFailure(); second++) read(first, second);
    }
}

// A directory that is made anew for every trial: four slices, one of them written in part mode, and deleted events.
class OptimizeFaults : public Optimize {
  protected:
    void SetUp() override {
        const directory_ptr tsidx = open_directory(original_.path());
        for (int32_t time = 1; time <= 12; time++) {
            ASSERT_EQ(put_event(tsidx.get(), event_at(time)), 0);
            if (time % 3 == 0) {
                ASSERT_EQ(time == 6 ? st_tsidx_sync_part(tsidx.get()) : st_tsidx_sync(tsidx.get()), 0);
            }
        }
        const st_addr_t doomed[] = {2, 9};
        ASSERT_EQ(st_tsidx_delete_by_addr(tsidx.get(), doomed, 2), 2);
        expected_ = sorted_events(original_.path());
        ASSERT_EQ(expected_.size(), 10u);
        reset();
    }

    void reset() {
        fs::remove_all(dir_.file("index"));
        fs::remove(dir_.file("index.lock"));
        fs::copy(original_.path(), path());
    }
    std::string path() const { return dir_.file("index"); }
    std::set<std::string> names() const { return names_in(path()); }
    int optimize(bool drops_deleted = true) const {
        const directory_ptr tsidx = open_directory(path());
        st_tsidx_set_merge_drops_deleted(tsidx.get(), drops_deleted);
        return st_tsidx_optimize_n(tsidx.get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, nullptr, 0, 0, false);
    }
    // A reader sees the original events; so does one after the next optimiser, who leaves one slice and nothing else.
    void check() const {
        const std::set<std::string> before = names();
        EXPECT_EQ(sorted_events(path()), expected_);
        EXPECT_EQ(names(), before) << "a reader changes nothing";
        EXPECT_EQ(seal_troubles(path()), "");
        const int status = optimize();
        EXPECT_TRUE(status == 0 || status == WARM_RC_FEW_SLICES) << status;
        EXPECT_EQ(sorted_events(path()), expected_);
        const std::set<std::string> left = names();
        EXPECT_EQ(left.size(), 1u);
        EXPECT_TRUE(left.begin()->ends_with(TSIDX_SUFFIX)) << *left.begin();
        EXPECT_EQ(seal_troubles(path()), "");
    }

    const no_pauses pauses_;
    const temp_dir original_, dir_;
    std::vector<event_key> expected_;
};

TEST_F(OptimizeFaults, KilledAtEveryFileCall) {
    // A merge, and the rewriting of the one slice that it leaves.
    for (const auto& [action, alone] : {std::pair{fault_action::kill_before, false},
                                        {fault_action::kill_after, false},
                                        {fault_action::kill_after, true}}) {
        for (uint64_t n = 1; !HasFailure(); n++) {
            SCOPED_TRACE(testing::Message() << "action " << static_cast<int>(action) << " at " << n << alone);
            reset();
            if (alone) {
                ASSERT_EQ(optimize(false), 0);
            }
            const pid_t child = ::fork();
            if (child == 0) {
                st_init("optimize_test");
                const fault_step death(action, n);
                ::_exit(optimize() == 0 ? 0 : 1);
            }
            int status = 0;
            ASSERT_EQ(::waitpid(child, &status, 0), child);
            check();
            if (!WIFSIGNALED(status)) {
                EXPECT_EQ(WEXITSTATUS(status), 0);
                EXPECT_GT(n, 40u);
                break;
            }
        }
    }
}

TEST_F(OptimizeFaults, EveryFileCallAndAllocationFails) {
    st_init("optimize_test");
    uint64_t calls = 0, allocations = 0;
    {
        const fault_step counting(fault_action::fail, ~uint64_t{0});
        ASSERT_EQ(optimize(), 0);
        calls = counting.calls();
        allocations = counting.allocations();
    }
    const std::set<std::string> descriptors = leak_listener::open_descriptors();
    const bool brief = ::getenv("VELDAR_TORTURE") == nullptr;
    const auto run = [&](fault_action action, uint64_t n, int error, uint64_t times = 1) {
        SCOPED_TRACE(testing::Message() << "action " << static_cast<int>(action) << " at " << n << " errno " << error);
        reset();
        const std::set<std::string> before = names();
        const std::string index = path();
        int status = 0;
        bool wrote = false;
        {
            const fault_step trouble(action, n, error, times);
            // A handle that cannot be had for want of memory.
            TSWRITEOPTS opts;
            st_tsidx_write_opts_set_defaults(&opts);
            TSIDX* const tsidx = st_tsidx_open(index.c_str(), 0, 0, &opts, TSIDX_ORDINARY_WRITER);
            if (tsidx != nullptr) {
                st_tsidx_set_lock_timeout(tsidx, 0);
                status = st_tsidx_optimize_n(tsidx, TSIDX_OPTIMIZE_ALL, 2, 0, 0, nullptr, 0, 0, false);
                EXPECT_EQ(st_tsidx_close(tsidx), 0);
            }
            wrote = times == 1 && (trouble.struck(fault_call::pwrite) || trouble.struck(fault_call::write));
            if (error == EINTR && trouble.struck_where_signals_do()) {
                EXPECT_EQ(status, 0) << "it is called again";
            }
        }
        if (status != 0 && wrote) {
            EXPECT_EQ(names(), before) << "the sources stay, the target goes";
        }
        check();
        EXPECT_EQ(leak_listener::open_descriptors(), descriptors);
    };
    for (uint64_t n = 1; n <= calls && !HasFailure(); n++) {
        for (const int error : {ENOSPC, EIO, EINTR}) run(fault_action::fail, n, error);
        if (!brief) run(fault_action::fail, n, EIO, 1000000);
        run(fault_action::shorten, n, 0);
    }
    for (uint64_t n = 1; n <= allocations && !HasFailure(); n += brief ? 1 + allocations / 150 : 1) {
        run(fault_action::allocation, n, 0);
        reset();
        try {  // in threads of their own
            const fault_step trouble(fault_action::allocation, n);
            merge_directories({path()}, {.everything = true});
        } catch (const std::bad_alloc&) {
        }
        check();
    }
}

// One after another, what others may do happens between every two file calls of a merge, a read and a delete.
TEST_F(OptimizeFaults, InterruptedAtEveryFileCall) {
    st_init("optimize_test");
    const std::string index = path();
    const auto merge = [&] {
        const directory_ptr tsidx = open_directory(index);
        st_tsidx_set_lock_timeout(tsidx.get(), 0);
        return st_tsidx_optimize_n(tsidx.get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, nullptr, 0, 0, false);
    };
    const auto remove = [&] {
        const directory_ptr tsidx = open_directory(index);
        st_tsidx_set_lock_timeout(tsidx.get(), 0);
        const st_addr_t address = 5;
        return st_tsidx_delete_by_addr(tsidx.get(), &address, 1);
    };
    std::vector<event_key> without = expected_;
    without.erase(without.begin() + 3);  // event 5: event 2 is deleted already
    const temp_dir larger;
    std::vector<forge_event> many;
    for (int32_t time = 1; time < 100; time++) many.push_back(event_at(time));
    put_slice(larger.path(), many);
    uint64_t refused = 0;
    struct {
        const char* what;
        std::function<void()> act, interruption;
    } const table[] = {
        {"a merge by a read, a delete and a merge",
         [&] {
             const int merged = merge();
             EXPECT_TRUE((std::set<int>{0, WARM_RC_FEW_SLICES}).contains(merged)) << merged;
         },
         [&] {
             EXPECT_EQ(sorted_events(index), expected_);
             const int64_t removed = remove();
             EXPECT_TRUE(removed == 1 || removed == WARM_RC_LOCK) << removed;
             EXPECT_EQ(sorted_events(index), removed == 1 ? without : expected_);
             const int merged = merge();
             EXPECT_TRUE((std::set<int>{0, WARM_RC_MANIFEST_EXISTS, WARM_RC_LOCK, WARM_RC_FEW_SLICES}).contains(merged))
                 << merged;
             expected_ = removed == 1 ? without : expected_;
         }},
        {"reads by a merge",
         [&] {
             const temp_dir minis;
             EXPECT_EQ(sorted_events(index), expected_);
             EXPECT_GE(st_tsidx_minify(open_directory(index).get(), minis.path().c_str()), 0);
         },
         [&] { EXPECT_LE(merge(), 0); }},
        {"a delete by a merge",
         [&] {
             EXPECT_EQ(remove(), 1);
             expected_ = without;
         },
         [&] {
             const int merged = merge();
             EXPECT_TRUE(merged == 0 || merged == WARM_RC_LOCK) << merged;
         }},
        {"a retention by a merge",
         [&] {
             tool::retain_in({index}, {.before = 5, .max_size = {}}, false);
             std::erase_if(expected_, [](const event_key& key) { return key.first < 5; });
         },
         [&] { EXPECT_LE(merge(), 0); }},
        {"a delete by a larger slice",
         [&] {
             const int64_t removed = remove();
             refused += removed == WARM_RC_CORRUPT ? 1 : 0;
             EXPECT_TRUE(removed == 1 || removed == WARM_RC_CORRUPT) << removed;
             reset();
         },
         [&] {
             fs::copy(files_in(larger.path(), TSIDX_SUFFIX).at(0), index + "/larger");
             fs::rename(index + "/larger", files_in(index, TSIDX_PART_SUFFIX).at(0));
         }},
    };
    const std::vector<event_key> original = expected_;
    for (const auto& row : table) {
        for (uint64_t n = 1, calls = 1; n <= calls && !HasFailure(); n++) {
            SCOPED_TRACE(testing::Message() << row.what << " at " << n);
            reset();
            expected_ = original;
            {
                const fault_step step(n, row.interruption);
                row.act();
                calls = step.calls();
            }
            check();
        }
    }
    EXPECT_GT(refused, 0u);
    // A merge takes effect while a reader lists the slices, or a slice goes for good.
    for (uint64_t n = 1, calls = 1; n <= calls && !HasFailure(); n++) {
        const cut_off_merge merging(false);
        const std::string directory = merging.dir.path();
        const fault_step step(n, [&] {
            merging.write(merge_manifest_text(merging.manifest));
            fs::create_hard_link(merging.dir.file(merging.manifest.temp), merging.dir.file(merging.manifest.target));
        });
        tsidx_listing_t listing;
        warm_rc_t rc;
        EXPECT_EQ(tsidx_list(directory.c_str(), &listing, &rc), 0);
        EXPECT_EQ(listing.size(), listing.at(0).name == merging.manifest.target ? 1u : 2u) << n;
        calls = step.calls();
    }
    std::vector<event_key> left = original;
    std::erase_if(left, [](const event_key& key) { return key.first >= 4 && key.first <= 6; });
    for (const bool by_delete : {true, false}) {
        for (uint64_t n = 1, calls = 1; n <= calls && !HasFailure(); n++) {
            SCOPED_TRACE(testing::Message() << "a slice goes at " << n << " " << by_delete);
            reset();
            const std::string slice = files_in(index, TSIDX_PART_SUFFIX).at(0);
            {
                const fault_step step(n, [&] { fs::remove(slice); });
                const int64_t status = by_delete ? remove() : merge();
                EXPECT_TRUE(status == 0 || (by_delete && status == 1)) << status;
                calls = step.calls();
            }
            EXPECT_TRUE(by_delete || names().size() == 1);
            expected_ = sorted_events(index);
            EXPECT_TRUE(expected_ == left || (!by_delete && expected_ == original));
        }
    }
    // Another merge begins while this one lists the slices, and renames its manifest later.
    for (uint64_t n = 1, calls = 1; n <= calls && !HasFailure(); n++) {
        reset();
        expected_ = original;
        const std::string tmp = index + "/" + MERGE_MANIFEST_TMP_NAME, manifest = index + "/" + MERGE_MANIFEST_NAME;
        const std::vector<std::string> slices = files_in(index, TSIDX_SUFFIX);
        const uint64_t listings = fault_calls(fault_call::opendir);
        unique_fd owner;
        uint64_t call = 0;
        const auto other_merge = [&] {
            if (!owner.valid() && fault_calls(fault_call::opendir) > listings + 1) {
                write_file(tmp,
                           merge_manifest_text({merge_owner_self(),
                                                "9-1-5.tsidx",
                                                "9-1-5.pre-tsidx",
                                                {fs::path(slices[0]).filename(), fs::path(slices[1]).filename()}}));
                owner.reset(::open(tmp.c_str(), O_RDWR | O_CLOEXEC));
                ASSERT_EQ(::flock(owner.get(), LOCK_EX), 0);
            }
            if (++call == n && owner.valid()) fs::rename(tmp, manifest);
        };
        {
            const fault_step step(1, other_merge, ~uint64_t{0} - 1);
            EXPECT_EQ(merge(), WARM_RC_MANIFEST_EXISTS) << n;
            calls = step.calls();
        }
        owner.reset();
        check();
    }
}

// A stop is obeyed at every question, and leaves what was there before.
TEST_F(OptimizeFaults, StoppedAtEveryQuestion) {
    const std::string metrics = dir_.file("metrics");
    fs::create_directory(metrics);
    for (uint64_t id = 1; id <= 2; id++) {
        forge_file(path(), forge_random_events(id, 5000), forge_as_created(4), id);
        forge_metric_file(metrics, random_metric_events(id, 5000), {}, id);
    }
    for (const std::string& directory : {path(), metrics}) {
        const std::set<std::string> before = names_in(directory);
        const directory_ptr tsidx = open_directory(directory);
        st_tsidx_set_merge_drops_deleted(tsidx.get(), true);
        int status = WARM_RC_CANCELLED, asked = 0;
        const auto stopped_at = [&](int nth) {
            stop_at count = {nth};
            st_tsidx_set_merge_stop(tsidx.get(), stop_at::ask, &count);
            status = merge_all(tsidx.get());
            asked = count.asked;
            EXPECT_EQ(status == WARM_RC_CANCELLED, asked >= nth) << status;
        };
        {
            const unique_fd locked(::open(directory.c_str(), O_RDONLY | O_DIRECTORY));
            ASSERT_EQ(::flock(locked.get(), LOCK_EX), 0);
            stopped_at(4);
            EXPECT_EQ(status, WARM_RC_CANCELLED) << "waits for the lock";
        }
        int nth = 1;
        for (; status == WARM_RC_CANCELLED; nth++) {
            EXPECT_EQ(names_in(directory), before) << nth;
            stopped_at(nth);
            EXPECT_LE(asked, nth) << "who was told is not asked again";
        }
        EXPECT_EQ(status, 0);
        EXPECT_GT(nth, 10);
        EXPECT_EQ(names_in(directory).size(), 1u);
    }
}

// What a killed sync leaves, a second name of its slice, goes with the slice; a source that stays is told.
TEST_F(OptimizeFaults, SourcesThatDoNotGo) {
    const std::string id = std::to_string(static_cast<uint64_t>(process_that_is_gone()) % 65535 << 16);
    const auto leave_second_name = [&] {
        const std::string slice = files_in(path(), TSIDX_SUFFIX)[0], name = fs::path(slice).filename();
        fs::create_hard_link(slice, path() + "/" + name.substr(0, name.rfind('-') + 1) + id + TSIDX_PRE_SUFFIX);
    };
    leave_second_name();
    ASSERT_EQ(optimize(), 0);
    EXPECT_TRUE(files_in(path(), TSIDX_PRE_SUFFIX).empty());
    leave_second_name();
    {
        const directory_ptr tsidx = open_directory(path());
        std::vector<st_addr_t> all;
        for (const event_key& key : expected_) all.push_back(key.second);
        EXPECT_EQ(st_tsidx_delete_by_addr(tsidx.get(), all.data(), all.size()), 10);
    }
    EXPECT_EQ(names().size(), 0u);
}

TEST_F(OptimizeFaults, Results) {
    st_init("optimize_test");
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, 3);
    int mapped = 0;
    const auto same_address = [](uint32_t address, void* calls) {
        ++*static_cast<int*>(calls);
        return address;
    };
    const auto run = [&](int mode, bool is_final, uint32_t flags = 0) {
        return st_optimize(path().c_str(), &opts, mode, is_final, 9, 5, 32, 0, nullptr, 0, flags, same_address,
                           &mapped);
    };
    EXPECT_EQ(run(1, false, 1), WARM_RC_UNSUPPORTED);
    warm_rc_t rc;
    EXPECT_EQ(st_optimize_directory(nullptr, {.is_final = true}, &rc), WARM_RC_FAILED);
    EXPECT_STREQ(rc.message, "the directory cannot be opened: Invalid argument");
    EXPECT_EQ(run(0, false), 0) << "few sources";
    EXPECT_EQ(names().count(TSIDX_OPTIMIZE_RESULT_NAME), 0u);
    {
        const directory_ptr tsidx = open_directory(path());
        EXPECT_EQ(st_tsidx_is_optimized(tsidx.get()), 1) << "four slices are too few for a tier";
        EXPECT_EQ(st_tsidx_optimize_n(tsidx.get(), 3, 4, 0, 0, nullptr, 0, 0, false), 0);
        EXPECT_EQ(st_tsidx_optimize_n(tsidx.get(), 0, 5, 0, 0, nullptr, 0, 0, false), WARM_RC_FEW_SOURCES);
        EXPECT_EQ(st_tsidx_optimize_n(tsidx.get(), 2, 2, 0, 0, nullptr, 0, 0, false), WARM_RC_FEW_SOURCES)
            << "one part";
        EXPECT_EQ(st_tsidx_optimize_n(tsidx.get(), 4, 2, 0, 0, nullptr, 0, 0, false), WARM_RC_INVALID_ARGUMENT);
        EXPECT_EQ(st_tsidx_optimize_n(open_for_reading(path()).get(), 1, 2, 0, 0, nullptr, 0, 0, false),
                  WARM_RC_UNSUPPORTED);
    }
    // Another merge is at work; then an owner's lock alone tells that.
    write_file(path() + "/" + MERGE_MANIFEST_TMP_NAME, merge_manifest_owner_text(merge_owner_self()));
    {
        const unique_fd owner(::open((path() + "/" + MERGE_MANIFEST_TMP_NAME).c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_EQ(::flock(owner.get(), LOCK_EX), 0);
        EXPECT_EQ(run(1, false), WARM_RC_MANIFEST_EXISTS);
    }
    EXPECT_EQ(run(1, true), 0);
    EXPECT_EQ(names().count(TSIDX_OPTIMIZE_RESULT_NAME), 1u);
    EXPECT_FALSE(fs::exists(path() + "/" + TSIDX_NEED_OPTIMIZE_NAME));
    EXPECT_EQ(sorted_events(path()), expected_);
    EXPECT_GT(mapped, 0);

    const directory_ptr tsidx = open_directory(path());
    st_tsidx_set_merge_mapper(
        tsidx.get(), [](uint32_t address, void*) { return 100 - address; }, nullptr);
    ASSERT_EQ(put_event(tsidx.get(), {.time = 12, .address = 90, .terms = {"a"}}), 0);
    ASSERT_EQ(st_tsidx_sync(tsidx.get()), 0);
    EXPECT_EQ(query_keys(tsidx.get(), "[AND a]", {.earliest = 12}).size(), 2u);
    EXPECT_EQ(merge_all(tsidx.get()), 0);
    EXPECT_EQ(open_slices(path()), 0u) << "they would hold their disk space";
    EXPECT_EQ(query_keys(tsidx.get(), "[AND a]", {.earliest = 12}), (std::vector<event_key>{{12, 88}, {12, 10}}));
    EXPECT_EQ(open_slices(path()), 1u);
    ASSERT_EQ(put_event(tsidx.get(), {.time = 12, .address = 91, .terms = {"a"}}), 0);
    ASSERT_EQ(st_tsidx_sync(tsidx.get()), 0);
    // An optimiser does not learn what size the slices of a directory should have.
    fs::remove(path() + "/" + TSIDX_PARAMS_NAME);
    EXPECT_EQ(run(1, true), 0);
    EXPECT_FALSE(fs::exists(path() + "/" + TSIDX_PARAMS_NAME));
}

}  // namespace
}  // namespace veldar
