// Acts upon a directory while each of their calls and allocations fails in turn: an act does all that it does without
// the failure, or tells why not and leaves what can be done again. What it tells and leaves is what it was.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <regex>

#include "libzero/change_stamp.h"
#include "searchthing/directory/health.h"
#include "searchthing/directory/merge_manifest.h"
#include "searchthing/directory/tsidx_merge_settle.h"
#include "searchthing/upkeep/tsidx_merge_lex.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/clock_behind.h"
#include "tests/support/damage.h"
#include "tests/support/directory.h"
#include "tests/support/hot_events.h"
#include "tests/support/seals.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;
using ActFaults = directory_test;

// The files by what they are.
std::string inventory(const std::string& place) {
    std::multiset<std::string> kinds;
    for (const auto& entry : fs::directory_iterator(place)) {
        const std::string name = entry.path().filename();
        if (!name.ends_with(".dat")) kinds.insert(name.substr(name.find_first_not_of("-0123456789")));
    }
    std::string all;
    for (const std::string& kind : kinds) all += " " + kind;
    return all;
}

TEST_F(ActFaults, AllOrTold) {
    st_init("act_faults_test");
    const no_pauses pauses;
    const clock_behind clock;  // else what is known from before would be up to the time that all takes
    const temp_dir dir;
    const std::string kept = dir.file("kept"), halfway = dir.file("halfway"), path = dir.file("index");
    const std::string aside = dir.file("aside");
    const st_addr_t doomed[] = {1, 7, 13};
    const st_query_spec some = make_query("[AND a [NOT n::1]]");
    const auto merge = [](TSIDX* tsidx, warm_rc_t* rc) {
        return st_tsidx_optimize_n(tsidx, TSIDX_OPTIMIZE_ALL, 2, 0, 0, rc, 0, 0, true);
    };
    // Three slices, one with a deleted event; and the same in a merge that was killed before it removed them.
    fs::create_directory(kept);
    {
        const directory_ptr tsidx = open_directory(kept);
        for (uint32_t i = 1; i <= 15; i++) {
            const std::string n = "n::" + std::to_string(i % 3);
            ASSERT_EQ(put_event(tsidx.get(), {.time = static_cast<int>(i), .address = i, .terms = {"a", n}}), 0);
            ASSERT_EQ(i % 5 == 0 ? st_tsidx_sync(tsidx.get()) : 0, 0);
        }
        ASSERT_EQ(st_tsidx_delete_by_addr(tsidx.get(), doomed + 2, 1), 1);
    }
    fs::copy(kept, halfway);
    const pid_t child = ::fork();
    if (child == 0) {
        const directory_ptr tsidx = open_directory(halfway);
        const auto die = [&] { files_in(halfway, ".tsidx").size() == 4 ? ::raise(SIGKILL) : 0; };
        const fault_step death(1, die, ~uint64_t{0} - 1);
        warm_rc_t rc;
        ::_exit(merge(tsidx.get(), &rc));
    }
    int ended = 0;
    ASSERT_TRUE(::waitpid(child, &ended, 0) == child && WIFSIGNALED(ended));
    const std::string name = fs::path(files_in(kept, ".tsidx")[0]).filename();
    const std::vector<std::string> names = {name};
    const auto drop = [&](TSIDX* tsidx, bool beside_a_merge) {
        unique_fd merging;
        {
            const fault_truce own;
            fs::create_hard_link(path + "/" + name, path + "/9-9-9.pre-tsidx");
            fs::create_hard_link(path + "/" + name, aside + "/dropped");
            const std::string manifest = path + "/" + MERGE_MANIFEST_TMP_NAME;
            if (beside_a_merge) merging = open_file(manifest, merge_manifest_owner_text(merge_owner_self()));
            if (beside_a_merge) static_cast<void>(tsidx_lock_file(merging.get()));
        }
        tsidx_dropped_t dropped;
        const int status = st_tsidx_drop_slices(tsidx, names, &dropped);
        const fault_truce own;
        const uint64_t left = st_tsidx_slice_facts(tsidx, "../aside/dropped", TSIDX_FIRST_TIME).events;
        return status < 0 ? status : static_cast<int64_t>(left);
    };
    const auto size_of_lexicon = [&](int status) {
        const fault_truce own;
        return status < 0 ? status : static_cast<int64_t>(fs::file_size(path + "/" + TSIDX_MERGED_LEXICON_NAME));
    };

    // What an act tells beside the handle goes into the record.
    const struct {
        const char* name;
        std::function<int64_t(TSIDX*, warm_rc_t*)> act;
        const std::string& from;
    } acts[] = {
        {"delete", [&](TSIDX* tsidx, auto*) { return st_tsidx_delete_by_addr(tsidx, doomed, 3); }, kept},
        {"delete a query", [&](TSIDX* tsidx, auto*) { return st_tsidx_delete_by_query(tsidx, &some); }, kept},
        {"delete halfway", [&](TSIDX* tsidx, auto*) { return st_tsidx_delete_before(tsidx, 8); }, halfway},
        {"drop", [&](TSIDX* tsidx, auto*) { return drop(tsidx, false); }, kept},
        {"drop beside a merge",  // all of it is marked before it goes, so that the merge finds no event left
         [&](TSIDX* tsidx, auto*) { return drop(tsidx, true); }, kept},
        {"minify", [&](TSIDX* tsidx, auto*) { return st_tsidx_minify(tsidx, aside.c_str()); }, kept},
        {"seal", [&](TSIDX* tsidx, auto*) { return st_tsidx_seal(tsidx, name.c_str()); }, kept},
        {"info",
         [&](TSIDX* tsidx, auto*) {
             tsidx_info_t infos[3];
             const int64_t count = st_tsidx_get_tsidx_info(tsidx, infos, 3);
             return count != 3 ? count : static_cast<int64_t>(infos[0].bytes + infos[2].events);
         },
         kept},
        {"health", [&](TSIDX* tsidx, auto*) { return st_tsidx_health(tsidx); }, kept},
        {"terms", [&](TSIDX* tsidx, auto*) { return st_tsidx_distinct_term_count(tsidx); }, halfway},
        {"merge", merge, kept},
        {"merge lexicons",
         [&](TSIDX* tsidx, warm_rc_t* rc) { return size_of_lexicon(st_tsidx_merge_lex_n(tsidx, 2, 0, 0, rc)); }, kept},
        {"filter lexicon",
         [&](TSIDX* tsidx, warm_rc_t* rc) {
             {
                 const fault_truce own;
                 EXPECT_EQ(st_tsidx_merge_lex_n(tsidx, 2, 0, 0, rc), 0);
             }
             return size_of_lexicon(st_tsidx_filter_merged_lex(tsidx, 0, 0, 2, rc));
         },
         kept},
        {"leftovers",
         [&](TSIDX* tsidx, auto*) {
             std::vector<tsidx_leftover_t> found;
             const int status = st_tsidx_find_leftovers(tsidx, &found);
             return status < 0 ? status : static_cast<int64_t>(found.size());
         },
         halfway},
        {"replace",
         [&](TSIDX* tsidx, auto*) {
             change_stamp stamp;
             {
                 const fault_truce own;
                 change_stamp_of((path + "/" + name).c_str(), &stamp);
             }
             return st_tsidx_replace(tsidx, name.c_str(), nullptr, aside.c_str(), stamp.modified_ns);
         },
         kept},
        {"put and go",
         [&](TSIDX* tsidx, auto*) {
             int64_t told = 0;
             for (const event_key& at : {event_key{99, 99}, {98, 100}, {97, 97}}) {
                 const std::string_view term[] = {"b"};
                 const st_txn txn = {.time = at.first, .address = at.second};
                 if (told >= 0 && at.first == 97) told = st_tsidx_is_optimized(tsidx);
                 if (told >= 0) told = st_tsidx_put_event(tsidx, &txn, term);
             }
             return told < 0 ? told : st_tsidx_cd(tsidx, path.c_str());
         },
         kept},
    };
    std::vector<event_key> most = query_keys(open_for_reading(kept).get(), "[AND]");
    most.insert(most.begin(), {{99, 99}, {98, 100}, {97, 97}});
    const std::regex own_places(dir.path() + "/(index/)?"), numbers("[0-9]{3,}(-[0-9]+)*|(part|tsidx)\\.[0-9]+");
    std::string told;
    testing::internal::CaptureStderr();
    for (const auto& [what, act, from] : acts) {
        int64_t whole = 0;
        std::vector<event_key> after;
        std::string last;
        for (const fault_action action : {fault_action::fail, fault_action::allocation}) {
            std::vector<uint64_t> steps = {~uint64_t{0}};
            for (size_t i = 0; i < steps.size(); i++) {
                SCOPED_TRACE(testing::Message() << what << " " << static_cast<int>(action) << " at " << steps[i]);
                for (const std::string& place : {path, aside}) fs::remove_all(place);
                fs::create_directory(aside);
                fs::create_directory(path);
                TSIDX* const tsidx = open_directory(path).release();  // before there is anything to clean up
                fs::copy(from, path);
                st_tsidx_set_durable(tsidx, 1);
                st_tsidx_set_lock_timeout(tsidx, 0);
                warm_rc_t rc;
                int64_t done = 0;
                uint64_t later = 0;  // calls, behind the one that failed
                {
                    const fault_step trouble(action, steps[i], EIO);
                    done = act(tsidx, &rc);
                    const fault_truce own;
                    later = trouble.calls() - steps[i];
                    const std::vector<uint64_t> firsts = trouble.firsts();
                    if (i == 0 && action == fault_action::allocation) {
                        steps.insert(steps.end(), firsts.begin(), firsts.end());
                    } else if (i == 0) {
                        for (uint64_t call = 1; call <= trouble.calls(); call++) steps.push_back(call);
                    }
                }
                if (rc.warm_rc == 0) _cpy_rc(&rc, st_tsidx_last_failure(tsidx));
                st_tsidx_abandon(tsidx);
                const std::vector<event_key> left = query_keys(open_for_reading(path).get(), "[AND]");
                if (i == 0 && action == fault_action::fail) whole = done, after = left;
                EXPECT_TRUE(done < 0 ? i != 0 : done == whole && left == after) << done;
                EXPECT_TRUE(std::includes(most.begin(), most.end(), left.begin(), left.end(), std::greater<>()));
                EXPECT_EQ(seal_troubles(path), "");
                if (action == fault_action::allocation) continue;
                std::string outcome = std::to_string(done) + " " + (done < 0 ? rc.message : "") + ", " +
                                      std::to_string(left.size()) + " events," + inventory(path) + inventory(aside) +
                                      (done < 0 ? ", " + std::to_string(later) + " calls more" : "");
                outcome = std::regex_replace(std::regex_replace(outcome, own_places, ""), numbers, "#");
                if (outcome != last) told += std::string(what) + " " + std::to_string(i) + ": " + outcome + "\n";
                last = outcome;
            }
        }
    }
    static_cast<void>(testing::internal::GetCapturedStderr());
    expect_kept("acts", told);
}

}  // namespace
}  // namespace veldar
