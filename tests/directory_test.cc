// The rules of index directories, one by one.
#include "tests/support/directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <set>
#include <utility>

#include "searchthing/directory/health.h"
#include "searchthing/directory/merge_manifest.h"
#include "searchthing/directory/tsidx_list.h"
#include "searchthing/directory/tsidx_params.h"
#include "searchthing/reading/cursors.h"
#include "searchthing/reading/tsidx_snapshot.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/st_optimize.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/damage.h"
#include "tests/support/forge_metric.h"
#include "tests/support/hot_events.h"
#include "tests/support/query_maker.h"
#include "tests/support/seals.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

class Directory : public directory_test {};

forge_event simple_event(int32_t time, uint32_t address = 1, const char* term = "a") {
    return {.time = time, .address = address, .terms = {term}};
}
// One slice an event.
void put_slices(const std::string& path, const std::vector<forge_event>& events) {
    const directory_ptr tsidx = open_directory(path);
    for (const forge_event& event : events) {
        ASSERT_EQ(put_event(tsidx.get(), event), 0);
        ASSERT_EQ(st_tsidx_sync(tsidx.get()), 0);
    }
}

TEST_F(Directory, Listing) {
    const temp_dir dir;
    const char* const files[] = {"9-1-4.tsidx",   "9-1-5.tsidx", "10--3-7.tsidx",      "10-2-6.0.7.part-tsidx",
                                 "7-1-1.tsidx.a", "7-1-1.tsidx", "7-1-1.tsidx.deleted"};
    for (const char* name : files) write_file(dir.file(name), "");
    tsidx_listing_t listing;
    warm_rc_t rc;
    ASSERT_EQ(tsidx_list(dir.path().c_str(), &listing, &rc), 0);
    std::vector<std::string> names;
    for (const tsidx_slice_name_t& slice : listing) names.push_back(slice.name);
    EXPECT_EQ(names,
              (std::vector<std::string>{"10-2-6.0.7.part-tsidx", "10--3-7.tsidx", "9-1-5.tsidx", "9-1-4.tsidx"}));
    EXPECT_EQ(tsidx_list(dir.file("missing").c_str(), &listing, &rc), WARM_RC_OPEN);
    EXPECT_EQ(rc.saved_errno, ENOENT);
    for (uint64_t nth = 1; nth <= 2 * (std::size(files) + 3); nth++) {
        const fault broken(fault_call::readdir, nth, EIO);
        EXPECT_EQ(tsidx_list(dir.path().c_str(), &listing, &rc), WARM_RC_READ) << "no short list";
        EXPECT_EQ(rc.saved_errno, EIO);
    }
    // A merge that begins and ends within the second reading, which sees neither its sources nor its target.
    {
        const uint64_t second = fault_calls(fault_call::opendir) + 2;
        int calls = 0;
        const auto merge = [&] {
            if (fault_calls(fault_call::opendir) != second || ++calls > 2) return;
            if (calls == 2) return write_file(dir.file("9-1-8.tsidx"), "");
            for (const char* source : {"9-1-5.tsidx", "9-1-4.tsidx"}) std::filesystem::remove(dir.file(source));
        };
        const fault_step step(1, merge, ~uint64_t{0} - 1);
        EXPECT_EQ(tsidx_list(dir.path().c_str(), &listing, &rc), 0);
        EXPECT_EQ(listing.size(), 3u);
    }
    // Slices that are added faster than the directory is read.
    uint64_t added = 0, opened = 0;
    const auto add = [&] {
        if (fault_calls(fault_call::opendir) != std::exchange(opened, fault_calls(fault_call::opendir))) {
            write_file(dir.file("50-50-" + std::to_string(++added) + ".tsidx"), "");
        }
    };
    const fault_step step(1, add, ~uint64_t{0} - 1);
    EXPECT_EQ(tsidx_list(dir.path().c_str(), &listing, &rc), 0);
    EXPECT_GE(listing.size(), 3u);
}

// Slices that are read in many pieces: whatever call or allocation fails, is stopped or meets damage, there is the whole
// answer, or its status and nothing else is done.
TEST_F(Directory, EveryFailureOfAReadIsTold) {
    const temp_dir plain, metric;
    const std::vector<forge_event> events = forge_random_events(3, 3000);
    const std::vector<metric_event> measured = random_metric_events(3, 2000);
    forge_file(plain.path(), events, forge_as_created(4));
    forge_metric_options kind;
    kind.milliseconds = true;
    forge_metric_file(metric.path(), measured, kind);
    const auto told = [](const st_enum_answer* terms, int count) {
        std::string text;
        for (int i = 0; i < count; i++) text += terms[i].term + (" " + std::to_string(terms[i].id)) + "\n";
        return text;
    };
    testing::internal::CaptureStderr();
    const uint64_t steps = std::exchange(stop_check::steps_a_question, 1);
    for (const bool is_metric : {false, true}) {
        const reference_index reference = is_metric ? metric_reference(measured, true) : reference_index(events);
        const std::string path = is_metric ? metric.path() : plain.path();
        query_maker maker(reference, 7);
        for (uint32_t i = 0; i < 24; i++) {
            const reference_query tree = maker.group(0);
            const reference_bounds bounds = i % 2 == 0 ? reference_bounds{} : maker.bounds();
            const std::string text = tree.notation();
            const st_query_spec query = make_query(text.c_str(), bounds);
            const char* const prefix = i % 2 == 0 ? "b" : nullptr;
            std::vector<st_tsval> answers(5000);
            const std::vector<event_key> whole = query_keys(open_for_reading(path).get(), text, bounds);
            st_enum_answer terms[3];
            const std::string whole_terms =
                told(terms, st_tsidx_enum(open_for_reading(path).get(), prefix, terms, 3, false));
            const std::string slice = files_in(path, ".tsidx").at(0), bytes = read_file(slice);
            enum { FAILS, IS_SHORT, LACKS_MEMORY, STOPS, IS_DAMAGED };
            for (const auto trouble : {FAILS, IS_SHORT, LACKS_MEMORY, STOPS, IS_DAMAGED}) {
                const fault_action action = trouble == IS_SHORT       ? fault_action::shorten
                                            : trouble == LACKS_MEMORY ? fault_action::allocation
                                                                      : fault_action::fail;
                const uint64_t parts = trouble == IS_DAMAGED ? 60 : 24;
                for (uint64_t nth = 1 + i % 3, last = nth; nth <= last; nth += 1 + last / parts) {
                    SCOPED_TRACE(testing::Message() << text << " " << trouble << " at " << nth);
                    if (trouble == IS_DAMAGED) write_flipped(slice, bytes, nth - 1);
                    const directory_ptr tsidx = open_for_reading(path);
                    const fault_step step(action, trouble < STOPS ? nth : 0, EIO);
                    uint64_t asked = 0;
                    const auto watched = [&](const auto& read) {
                        failure_watch watch(trouble == STOPS ? nth : 0);
                        st_tsidx_set_read_stop(tsidx.get(), failure_watch::asked, nullptr);
                        const int result = read();
                        const fault_truce own;
                        EXPECT_TRUE(watch.ended_with(result)) << result;
                        asked = std::max(asked, watch.questions());
                        return result;
                    };
                    const int listed = watched([&] { return st_tsidx_enum(tsidx.get(), prefix, terms, 3, false); });
                    const int count =
                        watched([&] { return st_tsidx_query(tsidx.get(), &query, answers.data(), 5000, 1); });
                    const int status = st_tsidx_get_warm_rc(tsidx.get());
                    const fault_truce own;
                    last = std::max(last, trouble == IS_DAMAGED     ? bytes.size()
                                          : trouble == STOPS        ? asked
                                          : trouble == LACKS_MEMORY ? step.allocations()
                                                                    : step.calls());
                    ASSERT_EQ(status, std::min(count, 0));
                    if (trouble == IS_DAMAGED) continue;
                    ASSERT_TRUE(count < 0 || keys_of(answers.data(), count) == whole);
                    ASSERT_TRUE(trouble == IS_SHORT || count != WARM_RC_CORRUPT);
                    ASSERT_TRUE(listed < 0 || told(terms, listed) == whole_terms);
                }
            }
            write_file(slice, bytes);
        }
    }
    stop_check::steps_a_question = steps;
    static_cast<void>(testing::internal::GetCapturedStderr());
}

TEST_F(Directory, VanishedAndUnreadableSlices) {
    const temp_dir dir;
    const no_pauses pauses;
    put_slices(dir.path(), {simple_event(1), simple_event(2), simple_event(3)});
    const std::vector<event_key> all = {{3, 1}, {2, 1}, {1, 1}};
    st_tsval answers[10];
    const st_query_spec query = make_query("[AND a]");
    struct {
        uint64_t nth;
        int error;
        uint64_t times;
        int code;
    } const table[] = {{5, ENOENT, 1, 0},  // a listing opens the manifest three times, which is not there
                       {6, ENOENT, 5, 0},
                       {1, ENOENT, 1000, WARM_RC_RETRIES},
                       {3, EACCES, 1, WARM_RC_OPEN},
                       {5, EACCES, 1, WARM_RC_OPEN},
                       {5, EMFILE, 1, 0},  // after a slice that is open and unused, which is closed for it
                       {4, EMFILE, 1, WARM_RC_OPEN},
                       {5, ENOENT, 1, WARM_RC_OPEN}};  // and the next listing fails
    for (const auto& row : table) {
        SCOPED_TRACE(testing::Message() << row.nth << " " << row.error << " " << row.times);
        const directory_ptr tsidx = open_for_reading(dir.path());
        {
            const bool is_unlisted = row.error == ENOENT && row.code == WARM_RC_OPEN;
            const fault broken(fault_call::open, row.nth, row.error, row.times);
            const fault unlisted(fault_call::opendir, 3, ENOENT, is_unlisted ? 1 : 0);
            const int count = st_tsidx_query(tsidx.get(), &query, answers, 10, 1);
            EXPECT_EQ(count, row.code == 0 ? 3 : row.code);
            if (row.code == WARM_RC_OPEN) {
                EXPECT_NE(std::string(st_tsidx_last_failure(tsidx.get())->message).find(dir.path()), std::string::npos);
                EXPECT_EQ(st_tsidx_get_warm_errno(tsidx.get()), row.error);
            }
        }
        EXPECT_EQ(query_keys(tsidx.get(), "[AND a]"), all);
        EXPECT_EQ(st_tsidx_get_warm_rc(tsidx.get()), 0);
    }
    {
        const uint64_t before = pauses.microseconds();
        const fault broken(fault_call::open, 1, ENOENT, 1000);
        tsidx_meta_t meta;
        EXPECT_EQ(st_tsidx_meta(open_for_reading(dir.path()).get(), &meta), WARM_RC_RETRIES);
        EXPECT_EQ(pauses.microseconds() - before, 1027000u) << "between listings";
        const fault unlisted(fault_call::opendir, 3, EIO);
        EXPECT_EQ(st_tsidx_meta(open_for_reading(dir.path()).get(), &meta), WARM_RC_OPEN);
    }
    const temp_dir early;  // all before 1970
    forge_file(early.path(), {simple_event(-9), simple_event(-8), simple_event(-7, 1, "b")}, {}, 1000);
    EXPECT_EQ(query_keys(open_for_reading(early.path()).get(), "[AND a a*]").size(), 2u);
    // A file that is open in the cache when it goes is not asked again.
    const directory_ptr tsidx = open_for_reading(dir.path());
    EXPECT_EQ(query_keys(tsidx.get(), "[AND a]"), all);
    fs::remove(files_in(dir.path(), ".tsidx")[0]);
    EXPECT_EQ(query_keys(tsidx.get(), "[AND a]").size(), 2u);
    const std::string damaged = files_in(dir.path(), ".tsidx")[0];
    write_file(damaged, std::string(200, 'x'));
    const directory_ptr fresh = open_for_reading(dir.path());
    EXPECT_EQ(st_tsidx_query(fresh.get(), &query, answers, 10, 1), WARM_RC_BAD_MAGIC) << "no partial answer";
    EXPECT_TRUE(std::string_view(st_tsidx_last_failure(fresh.get())->message).starts_with(damaged));
    const st_query_spec malformed = make_query("[AND a");
    const directory_ptr empty = open_for_reading(dir.file("missing"));
    EXPECT_EQ(st_tsidx_query(empty.get(), &malformed, answers, 10, 1), WARM_RC_QUERY_END);
    EXPECT_EQ(st_tsidx_query(empty.get(), &query, answers, 10, 1), WARM_RC_OPEN);
}

TEST_F(Directory, OpenSlicesAreKeptUpTo256) {
    const temp_dir dir;
    const std::string source = forge_file(dir.path(), {simple_event(5)}, {}, 1000);
    for (int i = 0; i < 299; i++) fs::copy_file(source, dir.file("5-5-" + std::to_string(i) + ".tsidx"));
    const directory_ptr tsidx = open_for_reading(dir.path());
    EXPECT_EQ(query_keys(tsidx.get(), "[AND a]").size(), 1u) << "one event, in 300 slices";
    EXPECT_EQ(open_slices(dir.path()), 256u);
    {
        tsidx_snapshot snapshot({{.tsidx = tsidx.get(), .path = {}}}, nullptr);
        warm_rc_t rc;
        ASSERT_EQ(snapshot.begin(&rc), 0);
        EXPECT_EQ(snapshot.open_all(6, 9, &rc), 0);
        EXPECT_EQ(snapshot.warm(0), nullptr);
        EXPECT_EQ(snapshot.open_all(0, 9, &rc), 0);
        EXPECT_EQ(open_slices(dir.path()), 300u);
        EXPECT_EQ(query_keys(tsidx.get(), "[AND a]").size(), 1u) << "the handle may be read meanwhile";
        EXPECT_EQ(st_warm_slice_values(snapshot.warm(299)), 1u);
    }
    EXPECT_EQ(open_slices(dir.path()), 256u);
    event_cursor_options_t options;
    options.sources = {{.tsidx = tsidx.get(), .path = {}}};
    options.queries = {make_query("[AND a]")};
    warm_rc_t rc;
    const event_cursor_ptr cursor = event_cursor_open(options, &rc);
    std::array<event_t, 1> events;
    EXPECT_EQ(event_cursor_next(cursor.get(), events, &rc), 1);
    EXPECT_EQ(open_slices(dir.path()), 256u) << "what has been read is given back";
    for (int i = 0; i < 299; i++) fs::remove(dir.file("5-5-" + std::to_string(i) + ".tsidx"));
    EXPECT_EQ(query_keys(tsidx.get(), "[AND a]").size(), 1u);
    EXPECT_EQ(open_slices(dir.path()), 1u);
}

TEST_F(Directory, OnlyAsManySlicesAsTheAnswersNeed) {
    const temp_dir dir;
    std::vector<forge_event> events;
    for (int i = 1; i <= 10; i++) events.push_back(simple_event(i, 1));
    put_slices(dir.path(), events);
    const directory_ptr tsidx = open_for_reading(dir.path());
    EXPECT_EQ(query_keys(tsidx.get(), "[AND a]", {}, 2), (std::vector<event_key>{{10, 1}, {9, 1}}));
    EXPECT_EQ(open_slices(dir.path()), 2u);
    EXPECT_EQ(query_keys(tsidx.get(), "[AND a]", {.earliest = 4, .latest = 5}),
              (std::vector<event_key>{{5, 1}, {4, 1}}));
    EXPECT_EQ(open_slices(dir.path()), 4u);
}

// An answer that lies twice in one slice must not crowd out others of that slice.
TEST_F(Directory, RepeatedEventsInOneSlice) {
    const temp_dir dir;
    std::vector<forge_event> events(6, simple_event(9));
    for (int i = 0; i < 4; i++) events.push_back(simple_event(i));
    forge_file(dir.path(), events, {});
    const directory_ptr tsidx = open_for_reading(dir.path());
    EXPECT_EQ(query_keys(tsidx.get(), "[AND a]", {}, 3), (std::vector<event_key>{{9, 1}, {3, 1}, {2, 1}}));
}

TEST_F(Directory, TermsAreTakenAsTheyAre) {
    const temp_dir dir;
    put_slices(dir.path(), {simple_event(1, 1, "a*"), simple_event(2, 1, "abc"), simple_event(3, 1, "AND")});
    const directory_ptr tsidx = open_for_reading(dir.path());
    st_tsval answers[4];
    EXPECT_EQ(st_tsidx_get(tsidx.get(), "a*", 0, 9, answers, 4), 1);
    EXPECT_EQ(answers[0].time, 1);
    EXPECT_EQ(st_tsidx_get(tsidx.get(), "AND", 0, 9, answers, 4), 1);
    EXPECT_EQ(st_tsidx_get(tsidx.get(), nullptr, 0, 9, answers, 4), WARM_RC_INVALID_ARGUMENT);
    uint64_t count = 9;
    EXPECT_EQ(st_tsidx_term_count(tsidx.get(), nullptr, 0, 9, &count), WARM_RC_INVALID_ARGUMENT);
    EXPECT_TRUE(st_tsidx_term_count(tsidx.get(), "a*", 0, 9, &count) == 0 && count == 1);
    EXPECT_TRUE(st_tsidx_term_count(tsidx.get(), "AND", 0, 9, &count) == 0 && count == 1);
    EXPECT_TRUE(st_tsidx_term_count(tsidx.get(), "AND", 9, 0, &count) == 0 && count == 0);
    QUERY plain;
    st_query_init(&plain);
    plain.lispy = "[AND a*]";
    plain.opt_a = QUERY_STARS_ARE_PLAIN;
    EXPECT_TRUE(st_tsidx_event_count(tsidx.get(), &plain, &count) == 0 && count == 1);
    EXPECT_EQ(st_tsidx_all_events(tsidx.get(), 2, 3, answers, 4), 2);
    const auto stop = [](const char*, size_t, uint64_t, void*) { return -1; };
    EXPECT_EQ(st_tsidx_distinct_apply_terms(tsidx.get(), nullptr, stop, nullptr), -1);
    EXPECT_EQ(st_tsidx_apply_terms(tsidx.get(), nullptr, stop, nullptr), -1);
    EXPECT_EQ(st_tsidx_lex_query(tsidx.get(), nullptr, stop, nullptr), WARM_RC_INVALID_ARGUMENT);
}

// What is remembered of a directory and of its slices' marks holds until somebody changes them, through whatever handle.
TEST_F(Directory, WhatOthersChangeIsSeenByTheNextRead) {
    const temp_dir dir;
    const clock_ahead old_stamps;
    std::vector<event_key> expected;
    const auto put = [&](st_time_t time) {  // a slice of two events
        const directory_ptr writer = open_directory(dir.path());
        for (const st_addr_t address : {1u, 2u}) {
            ASSERT_EQ(put_event(writer.get(), simple_event(time, 100 * static_cast<uint32_t>(time) + address)), 0);
            expected.insert(expected.begin(), {time, 100 * static_cast<uint32_t>(time) + address});
        }
        ASSERT_EQ(st_tsidx_sync(writer.get()), 0);
    };
    const auto tick = [] { ::usleep(20000); };  // stamps move in ticks
    for (st_time_t time = 1; time <= 5; time++) put(time);
    const directory_ptr other = open_directory(dir.path()), reader = open_for_reading(dir.path());
    enum { PUT, DELETE, MERGE, REPLACE, NOTHING };
    for (const int change : {PUT, DELETE, DELETE, MERGE, DELETE, DELETE, REPLACE, DELETE, PUT, NOTHING}) {
        for (const bool again : {false, true}) {
            const uint64_t listings = fault_calls(fault_call::opendir);
            EXPECT_EQ(query_keys(reader.get(), "[AND]"), expected);
            for (const char* text : {"[AND]", "[AND a]"}) {
                const st_query_spec query = make_query(text);
                uint64_t count = 0;
                EXPECT_EQ(st_tsidx_event_count(reader.get(), &query, &count), 0);
                EXPECT_EQ(count, expected.size()) << text;
            }
            EXPECT_TRUE(!again || fault_calls(fault_call::opendir) == listings) << "listed again";
            tick();
        }
        ASSERT_FALSE(HasFailure()) << change;
        if (change == REPLACE) {
            fs::remove_all(dir.path());
            fs::create_directory(dir.path());
            expected.clear();
            put(3);
        }
        if (change == PUT || change == REPLACE) put(expected.front().first + 1);
        if (change == MERGE) {
            EXPECT_EQ(st_tsidx_optimize_n(other.get(), 1, 2, 0, 0, nullptr, 0, 0, false), 0);
        }
        if (change == DELETE) {
            const st_addr_t address = expected.back().second;
            EXPECT_EQ(st_tsidx_delete_by_addr(other.get(), &address, 1), 1);
            expected.pop_back();
        }
        tick();
    }
}

TEST_F(Directory, DeletesLock) {
    const temp_dir dir;
    put_slices(dir.path(), {simple_event(1), simple_event(2)});
    const std::string slice = files_in(dir.path(), ".tsidx")[0], before = read_file(slice);
    const std::string lock = fs::canonical(dir.path()).string() + ".lock";
    const directory_ptr tsidx = open_directory(dir.path() + "/../" + fs::path(dir.path()).filename().string());
    st_tsidx_set_lock_timeout(tsidx.get(), 0);
    const st_addr_t address = 1, unknown = 2;
    const st_query_spec nothing = make_query("[AND a]", {.earliest = 2, .latest = 1});
    const auto refused = [&] {
        const std::string log =
            logged([&] { EXPECT_EQ(st_tsidx_delete_by_addr(tsidx.get(), &address, 1), WARM_RC_LOCK); });
        EXPECT_NE(log.find("WARN  Locking tsidx path=\"" + dir.path()), std::string::npos) << log;
        EXPECT_EQ(read_file(slice), before);
        EXPECT_EQ(st_tsidx_get_warm_rc(tsidx.get()), WARM_RC_LOCK);
        // Nothing asks for no lock.
        EXPECT_EQ(st_tsidx_delete_by_addr(tsidx.get(), nullptr, 0) + st_tsidx_delete_by_key(tsidx.get(), nullptr, 0),
                  0);
        EXPECT_EQ(st_tsidx_delete_by_query(tsidx.get(), &nothing), 0);
    };
    const auto broken = [&](const std::string& text, bool young = false) {
        write_file(lock, text);
        if (!young) make_old(lock);
        EXPECT_EQ(st_tsidx_delete_by_addr(tsidx.get(), &unknown, 1), 0) << text;
        EXPECT_FALSE(fs::exists(lock));
    };
    const std::string gone = std::to_string(process_that_is_gone()) + "\n";
    const std::string here = "\n" + merge_owner_self().host + "\nanother program";
    for (const std::string& text :
         {gone + "another-host\nanother program", std::string("0\nuninitialized"), std::string("1"), "x" + here}) {
        write_file(lock, text);
        if (text[0] == '0') make_old(lock);
        refused();  // of the last ones: somebody is about to sign it
    }
    fs::remove(lock);
    ASSERT_EQ(::mkfifo(lock.c_str(), 0600), 0);
    refused();
    fs::remove(lock);
    {
        const fault broken_flock(fault_call::flock, 1, EOPNOTSUPP, 1000);
        EXPECT_EQ(st_tsidx_delete_by_addr(tsidx.get(), &unknown, 1), 0);
        write_file(lock, gone + here.substr(1));
        refused();  // its holder might be in another container
        fs::remove(lock);
    }
    const unique_fd directory(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::flock(directory.get(), LOCK_EX), 0);
    refused();
    ASSERT_EQ(::flock(directory.get(), LOCK_UN), 0);
    // A lock that only a dead process can have left does not stop anyone: whoever has its number now, and if the death
    // of the system has torn it.
    const std::string text = std::to_string(::getppid()) + here;
    {
        const fault interrupted(fault_call::flock, 1, EINTR);
        broken(text);
    }
    for (size_t size = 0; size < text.size(); size++) {
        broken(text.substr(0, size));
        broken(text.substr(0, size) + std::string(text.size() - size, '\0'));
    }
    st_tsidx_set_lock_timeout(tsidx.get(), 3);
    broken("", true);
    {
        const fake_host host(std::string(64, 'h'));
        broken("1\n" + merge_owner_self().host + "\nanother program");
        EXPECT_EQ(merge_owner_self().host, std::string(64, 'h'));
    }
    write_file(lock, gone + here.substr(1));
    EXPECT_EQ(st_tsidx_delete_by_addr(tsidx.get(), &address, 1), 2);
    EXPECT_FALSE(fs::exists(lock));
    EXPECT_TRUE(files_in(dir.path(), ".tsidx").empty() && files_in(dir.path(), ".deleted").empty());
}

TEST_F(Directory, DeletesThatAreRefused) {
    const temp_dir dir;
    forge_options metric;
    metric.magic = "_MSIDX3";
    put_slices(dir.path(), {simple_event(1)});
    const st_addr_t address = 1;
    const st_tsval_encoded key = {1, 1};
    st_query_spec query = make_query("[AND a]");
    const directory_ptr reader = open_for_reading(dir.path());
    EXPECT_EQ(st_tsidx_delete_by_addr(reader.get(), &address, 1), WARM_RC_UNSUPPORTED);
    EXPECT_EQ(st_tsidx_delete_by_key(reader.get(), &key, 1), WARM_RC_UNSUPPORTED);
    EXPECT_EQ(st_tsidx_delete_by_query(reader.get(), &query), WARM_RC_UNSUPPORTED);
    EXPECT_EQ(st_tsidx_delete_before(reader.get(), 2), WARM_RC_UNSUPPORTED);
    forge_file(dir.path(), {simple_event(9)}, metric);
    const directory_ptr tsidx = open_directory(dir.path());
    EXPECT_EQ(st_tsidx_delete_by_addr(tsidx.get(), &address, 1), WARM_RC_UNSUPPORTED);
    EXPECT_EQ(query_keys(tsidx.get(), "[AND a]", {.latest = 5}).size(), 1u)
        << "nothing is deleted when one slice fails";
    query.cumspan = 2;
    EXPECT_EQ(st_tsidx_delete_by_query(tsidx.get(), &query), WARM_RC_INVALID_ARGUMENT);
    query = make_query("[AND");
    EXPECT_EQ(st_tsidx_delete_by_query(tsidx.get(), &query), WARM_RC_QUERY_END);
}

// A file that was cut off holds nothing; one that is damaged may be all there is of its events. A process is known by
// what is left of its number in the file's name.
TEST_F(Directory, LeftoversThatWereCutOff) {
    const temp_dir dir;
    std::vector<forge_event> events;
    for (uint32_t i = 0; i < 30; i++) events.push_back(simple_event(7, i, ("t" + std::to_string(i)).c_str()));
    const std::string whole = read_file(forge_file(dir.path(), events, forge_as_created(4), 1000));
    const uint64_t gone = (static_cast<uint64_t>(process_that_is_gone()) % 65535) << 16;
    const auto pre = [&](size_t size) { return dir.file("7-7-" + std::to_string(gone | size) + ".pre-tsidx"); };
    std::vector<std::string> kept = {pre(whole.size()), pre(whole.size() + 1)};
    for (size_t size = 0; size <= whole.size(); size++) {
        // The last list alone does not tell where it ends.
        if (size == whole.size() || size < whole.size() - 8) write_file(pre(size), whole.substr(0, size));
    }
    write_file(kept[1], "x" + whole.substr(1));
    const std::string part = dir.file("veldar-autogen-params.dat.part." + std::to_string(process_that_is_gone()));
    write_file(part, whole);
    for (const auto& entry : fs::directory_iterator(dir.path())) make_old(entry.path().string());
    std::vector<std::string> left = files_in(dir.path(), ".pre-tsidx");
    {
        const fault other_process(fault_call::kill, 2, EPERM, 1000000);
        open_directory(dir.path());
        EXPECT_EQ(files_in(dir.path(), ".pre-tsidx"), left);
    }
    EXPECT_EQ(st_tsidx_get_warm_rc(open_directory(dir.path()).get()), 0);
    left = files_in(dir.path(), ".pre-tsidx");
    std::sort(kept.begin(), kept.end());
    EXPECT_TRUE(left == kept && !fs::exists(part));
}

// Whatever lies at a name that the engine opens: nobody waits for it, and nothing is written to where it leads.
TEST_F(Directory, PipesAndLinksInTheWay) {
    const temp_dir dir, elsewhere;
    ::alarm(60);
    warm_rc_t rc;
    const std::string pipe = dir.file("7-7-7.tsidx");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(st_warm_slice_open_rdonly(pipe.c_str(), &rc), nullptr);
    EXPECT_EQ(st_warm_slice_open_rdwr(pipe.c_str(), &rc), nullptr);
    EXPECT_EQ(rc.warm_rc, WARM_RC_OPEN);
    EXPECT_EQ(st_warm_slice_create_mini(pipe.c_str(), 1), WARM_RC_OPEN);
    ::alarm(0);
    write_file(elsewhere.file("precious"), "precious");
    for (const std::string& link :
         {dir.file(TSIDX_PARAMS_NAME + std::string(".part.7")), dir.file(TSIDX_OPTIMIZE_RESULT_NAME)}) {
        fs::create_symlink(elsewhere.file("precious"), link);
    }
    EXPECT_EQ(tsidx_write_params(dir.path().c_str(), serialize_params(tsidx_default_limits(true), 7), 7), 0);
    fs::remove(pipe);
    EXPECT_EQ(st_optimize_lex(dir.path().c_str(), 2, 0, 0, 0, false, &rc), 0);
    EXPECT_NE(read_file(dir.file(TSIDX_OPTIMIZE_RESULT_NAME)), "precious");
    EXPECT_EQ(read_file(elsewhere.file("precious")), "precious");
}

TEST_F(Directory, Minify) {
    const temp_dir dir, out;
    put_slices(dir.path(), {simple_event(1), simple_event(2)});
    const directory_ptr tsidx = open_directory(dir.path());
    ASSERT_EQ(put_event(tsidx.get(), simple_event(3)), 0);
    EXPECT_EQ(st_tsidx_minify(tsidx.get(), out.path().c_str()), 3) << "the handle's own events too";
    EXPECT_EQ(st_tsidx_minify(tsidx.get(), out.path().c_str()), 0);
    EXPECT_EQ(st_tsidx_minify(tsidx.get(), out.file("missing").c_str()), WARM_RC_OPEN);
    EXPECT_EQ(files_in(out.path(), "").size(), 6u);
    EXPECT_EQ(sealed_slices(out.path()), 3u);
    EXPECT_EQ(seal_troubles(out.path()), "");
    for (const std::string& path : files_in(out.path(), ".mini.tsidx")) {
        fs::rename(path, path.substr(0, path.size() - 11) + ".tsidx");
    }
    const directory_ptr mini = open_for_reading(out.path());
    st_tsval answers[4];
    EXPECT_EQ(st_tsidx_all_events(mini.get(), 0, 9, answers, 4), 3);
    EXPECT_EQ(st_tsidx_get(mini.get(), "a", 0, 9, answers, 4), WARM_RC_MINIFIED);
    uint64_t count;
    EXPECT_EQ(st_tsidx_term_count(mini.get(), "a", 0, 9, &count), WARM_RC_MINIFIED);
    EXPECT_EQ(st_tsidx_distinct_term_count(mini.get()), WARM_RC_MINIFIED);
}

TEST_F(Directory, GoesOnElsewhere) {
    const temp_dir dir, other;
    const directory_ptr tsidx = open_directory(dir.path());
    ASSERT_EQ(put_event(tsidx.get(), simple_event(1)), 0);
    EXPECT_EQ(st_tsidx_cd(tsidx.get(), ""), WARM_RC_INVALID_ARGUMENT);
    EXPECT_EQ(st_tsidx_cd(tsidx.get(), dir.file("missing").c_str()), WARM_RC_OPEN);
    ASSERT_EQ(st_tsidx_cd(tsidx.get(), other.path().c_str()), 0);
    EXPECT_EQ(st_tsidx_is_optimized(tsidx.get()), 1);
    EXPECT_TRUE(query_keys(tsidx.get(), "[AND]").empty());
    put_slices(other.path(), {simple_event(5), simple_event(6)});
    EXPECT_EQ(query_keys(tsidx.get(), "[AND]").size(), 2u);
    ASSERT_EQ(st_tsidx_cd(tsidx.get(), dir.path().c_str()), 0);
    EXPECT_EQ(query_keys(tsidx.get(), "[AND]"), (std::vector<event_key>{{1, 1}}));
}

TEST_F(Directory, Health) {
    const temp_dir dir;
    for (const char* name : {"9-5-1.tsidx", "9-5-2.tsidx"}) write_file(dir.file(name), "");
    EXPECT_EQ(st_tsidx_health(open_for_reading(dir.path()).get()), 1000 * 5 / 128) << "five seconds, a bucket each";
    EXPECT_EQ(st_tsidx_health(open_for_reading(dir.file("missing")).get()), -1);
    health_stat stat;
    uint32_t bucket = 0;
    health_stat_init(&stat);
    EXPECT_DEATH(health_histogram(&stat, &bucket, 1), "most_latest >= hs->most_earliest");
    for (uint32_t i = 0; i <= HEALTH_MAX_RANGES; i++) {
        EXPECT_EQ(health_add_range(&stat, 1, 2), i < HEALTH_MAX_RANGES ? 0 : -1);
    }
    EXPECT_EQ(health_histogram_rating(&stat, &bucket, 0), 0u);
}

}  // namespace
}  // namespace veldar
