#include "searchthing/directory/tsidx.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>

#include "searchthing/directory/tsidx_params.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/values/values_writer.h"
#include "tests/support/damage.h"
#include "tests/support/directory.h"
#include "tests/support/hot_events.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

directory_ptr open_writer(const std::string& path, bool streaming = false, uint32_t level = 4,
                          uint32_t writer = TSIDX_ORDINARY_WRITER) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, level);
    return directory_ptr(st_tsidx_open(path.c_str(), streaming, 0, &opts, writer));
}

size_t slices(const temp_dir& dir) {
    return files_in(dir.path(), ".tsidx").size();
}

// Everything that was accepted is in exactly one slice, whole, whatever limits ended the slices.
void expect_all_indexed(const temp_dir& dir, const std::vector<forge_event>& events) {
    const std::vector<forge_event> found = read_created_slices(dir.path()), expected = as_stored(events);
    ASSERT_EQ(found.size(), expected.size());
    for (size_t i = 0; i < found.size(); i++) ASSERT_TRUE(found[i] == expected[i]) << "event " << i;
    EXPECT_TRUE(files_in(dir.path(), ".pre-tsidx").empty());
}

TEST(Tsidx, EventsComeBackWholeAtEveryLimit) {
    struct {
        uint64_t lexicon, terms, postings, values;
    } const table[] = {{0, 0, 0, 0}, {1000, 0, 0, 0},   {0, 257, 0, 0}, {0, 0, 300, 0},
                       {0, 0, 0, 5}, {400, 257, 40, 3}, {30, 257, 2, 1}};  // every event needs its limits raised
    for (const auto& row : table) {
        for (const bool autotune : {false, true}) {
            for (const bool streaming : {false, true}) {
                SCOPED_TRACE(testing::Message()
                             << row.lexicon << " " << row.terms << " " << row.postings << " " << row.values
                             << " autotune " << autotune << " streaming " << streaming);
                const temp_dir dir;
                std::vector<forge_event> events = forge_random_events(5, 300);
                if (streaming) sort_by_arrival(&events);
                directory_ptr tsidx = open_writer(dir.path(), streaming);
                st_tsidx_set_durable(tsidx.get(), 0);
                st_tsidx_autotune(tsidx.get(), autotune);
                ASSERT_EQ(st_tsidx_options(tsidx.get(), row.lexicon, row.terms, row.postings, row.values), 0);
                for (const forge_event& event : events) ASSERT_EQ(put_event(tsidx.get(), event), 0);
                const uint64_t flushes = fault_calls(fault_call::fsync);
                ASSERT_EQ(st_tsidx_close(tsidx.release()), 0);
                EXPECT_EQ(fault_calls(fault_call::fsync), flushes);
                expect_all_indexed(dir, events);
            }
        }
    }
}

TEST(Tsidx, Keywords) {
    const temp_dir dir;
    directory_ptr tsidx = open_writer(dir.path());
    const st_txn txn{.time = 1, .address = 1};
    const auto put = [&](const std::string& text) {
        return st_tsidx_txn_put(tsidx.get(), text.data(), text.size(), &txn);
    };
    EXPECT_EQ(put("before start"), WARM_RC_INVALID_ARGUMENT);
    EXPECT_EQ(st_tsidx_txn_close(tsidx.get(), &txn), WARM_RC_INVALID_ARGUMENT);
    EXPECT_EQ(st_tsidx_get_warm_rc(tsidx.get()), WARM_RC_INVALID_ARGUMENT);
    ASSERT_EQ(st_tsidx_txn_start(tsidx.get(), &txn), 0);
    EXPECT_EQ(put("refused with its transaction"), 0);
    EXPECT_EQ(put(std::string("a\0b", 3)), HOT_PUT_RC_BAD_KEYWORD);
    EXPECT_EQ(st_tsidx_get_warm_rc(tsidx.get()), 0);
    EXPECT_EQ(st_tsidx_txn_close(tsidx.get(), &txn), HOT_PUT_RC_BAD_KEYWORD);
    EXPECT_EQ(st_tsidx_txn_close(tsidx.get(), &txn), WARM_RC_INVALID_ARGUMENT) << "it is over";
    ASSERT_EQ(st_tsidx_txn_start(tsidx.get(), &txn), 0);
    {
        const std::string long_term(2047, 'x');
        const fault_step starved(fault_action::allocation, 1, 0, 1);
        for (int i = 0; i < 100 && starved.allocations() == 0; i++) static_cast<void>(put(long_term));
    }
    EXPECT_EQ(st_tsidx_txn_close(tsidx.get(), &txn), WARM_RC_NO_MEMORY);
    ASSERT_EQ(st_tsidx_txn_start(tsidx.get(), &txn), 0);
    EXPECT_EQ(put(std::string("a\0b", 3)), HOT_PUT_RC_BAD_KEYWORD);
    ASSERT_EQ(st_tsidx_txn_start(tsidx.get(), &txn), 0) << "a refused put has told of it";
    EXPECT_EQ(put(""), 0);
    EXPECT_EQ(st_tsidx_put_event(tsidx.get(), &txn, {}), WARM_RC_INVALID_ARGUMENT) << "one is open";
    EXPECT_EQ(st_tsidx_txn_close(tsidx.get(), &txn), 0);
    EXPECT_EQ(st_tsidx_sync(tsidx.get()), 0);
    EXPECT_EQ(slices(dir), 0u) << "an event without keywords leaves no trace";
    EXPECT_EQ(st_tsidx_need_optimize(tsidx.get()), 0);
    const std::vector<std::string_view> bad = {"good", {"ab\0defghij", 10}, {"abcdefghi\0k", 11}};
    EXPECT_EQ(st_tsidx_put_event(tsidx.get(), &txn, std::span(bad).first(2)), HOT_PUT_RC_BAD_KEYWORD);
    EXPECT_EQ(st_tsidx_put_event(tsidx.get(), &txn, std::span(bad).last(1)), HOT_PUT_RC_BAD_KEYWORD);
    EXPECT_EQ(st_tsidx_put_event(tsidx.get(), &txn, {}), 0);
    const uint32_t wide = uint32_t{1} << 31;
    EXPECT_EQ(put_event(tsidx.get(), {.s = wide, .terms = {"a"}}), WARM_RC_DOES_NOT_FIT);
    EXPECT_EQ(put_event(tsidx.get(), {.st = wide, .terms = {"a"}}), WARM_RC_DOES_NOT_FIT);
    EXPECT_EQ(put_event(tsidx.get(), {.h = ~uint32_t{0}, .terms = {"a"}}), WARM_RC_DOES_NOT_FIT);
    EXPECT_EQ(st_tsidx_get_warm_rc(tsidx.get()), WARM_RC_DOES_NOT_FIT);
    const st_txn wider{.source = wide};
    EXPECT_EQ(st_tsidx_txn_start(tsidx.get(), &wider), WARM_RC_DOES_NOT_FIT);
    ASSERT_EQ(st_tsidx_txn_start(tsidx.get(), &txn), 0);
    EXPECT_EQ(put("a"), 0);
    EXPECT_EQ(st_tsidx_txn_close(tsidx.get(), &wider), WARM_RC_DOES_NOT_FIT);
    const std::string too_long(3000, 'x'),
        log = logged([&] {
            EXPECT_EQ(put_event(tsidx.get(), {.time = 1, .address = 1, .terms = {"kept", too_long, too_long, "kept"}}),
                      0);
        });
    EXPECT_TRUE(log.find("WARN") != log.npos && log.find("WARN") == log.rfind("WARN")) << "told once" << log;
    EXPECT_EQ(st_tsidx_keywords_cut(tsidx.get()), 2u);
    ASSERT_EQ(st_tsidx_close(tsidx.release()), 0);
    expect_all_indexed(dir, {{.time = 1, .address = 1, .terms = {"kept", std::string(2047, 'x')}}});
}

// One address for several events, and events out of order in streaming mode: each keeps its own time and terms. A
// second transaction of an event joins the first.
TEST(Tsidx, AmbiguousEventsBeginANewSlice) {
    const forge_event first{.time = 10, .address = 5, .terms = {"a", "b"}};
    const std::vector<forge_event> others = {{.time = 11, .address = 5, .terms = {"b"}},
                                             {.time = 11, .address = 5, .h = 1, .terms = {"c"}},
                                             {.time = 12, .address = 6, .terms = {"d"}},
                                             {.time = 9, .address = 9, .terms = {"e"}},
                                             {.time = 9, .address = 8, .terms = {"f"}}};
    for (const bool streaming : {false, true}) {
        const temp_dir dir;
        directory_ptr tsidx = open_writer(dir.path(), streaming);
        ASSERT_EQ(put_event(tsidx.get(), {.time = 10, .address = 5, .terms = {"a"}}), 0);
        ASSERT_EQ(put_event(tsidx.get(), first), 0);
        for (const forge_event& event : others) ASSERT_EQ(put_event(tsidx.get(), event), 0);
        ASSERT_EQ(st_tsidx_close(tsidx.release()), 0);
        EXPECT_EQ(slices(dir), streaming ? 5u : 3u);
        std::vector<forge_event> all = others;
        all.push_back(first);
        expect_all_indexed(dir, all);
    }
}

TEST(Tsidx, LimitsAndAutotune) {
    const temp_dir dir;
    directory_ptr tsidx = open_writer(dir.path());
    EXPECT_EQ(st_tsidx_max_terms(tsidx.get()), 131072u);
    EXPECT_EQ(st_tsidx_max_term_chars(tsidx.get()), 131072u);
    ASSERT_EQ(st_tsidx_options(tsidx.get(), 0, 300, 4096, 100), 0);
    EXPECT_EQ(st_tsidx_max_terms(tsidx.get()), 512u);
    EXPECT_EQ(st_tsidx_options(tsidx.get(), 0, 0, uint64_t{1} << 32, 0), WARM_RC_INVALID_ARGUMENT);
    EXPECT_EQ(st_tsidx_max_postings(tsidx.get()), 4096u);
    for (uint32_t i = 0; i < 1000; i++) {
        ASSERT_EQ(put_event(tsidx.get(), {.time = 1, .address = i, .terms = {"a", "b"}}), 0);
    }
    // 89 + 176 + 351 events filled three hot slices.
    EXPECT_EQ(st_tsidx_slices_written(tsidx.get()), 3u);
    EXPECT_EQ(st_tsidx_max_values(tsidx.get()), 800u);
    EXPECT_EQ(st_tsidx_max_postings(tsidx.get()), 4096u);
    ASSERT_EQ(st_tsidx_close(tsidx.release()), 0);
    tsidx = open_writer(dir.path());
    EXPECT_EQ(st_tsidx_max_values(tsidx.get()), 1024u) << "tuned limits come back, brought into range";
    EXPECT_EQ(st_tsidx_max_terms(tsidx.get()), 512u);
    // Nothing grows beyond 256 MiB of memory for all.
    ASSERT_EQ(st_tsidx_options(tsidx.get(), 1 << 28, 512, 4096, 256), 0);
    for (uint32_t i = 0; i < 300; i++) ASSERT_EQ(put_event(tsidx.get(), {.time = 1, .address = i, .terms = {"a"}}), 0);
    EXPECT_TRUE(st_tsidx_slices_written(tsidx.get()) == 1 && st_tsidx_max_values(tsidx.get()) == 256);
}

// A transaction that no hot slice of the directory could hold raises what it needs, or is refused without a trace.
TEST(Tsidx, TransactionsTooLargeForAnyHotSlice) {
    const temp_dir dir;
    directory_ptr tsidx = open_writer(dir.path());
    ASSERT_EQ(st_tsidx_options(tsidx.get(), 32768, 512, 1024, 1024), 0);
    forge_event large{.time = 1, .address = 1, .terms = {}};
    for (int i = 0; i < 3000; i++) large.terms.push_back("term number " + std::to_string(10000 + i));
    const forge_event small{.time = 1, .address = 2, .terms = {"small"}};
    ASSERT_EQ(put_event(tsidx.get(), small), 0);
    st_tsidx_set_params(tsidx.get(), 512, 32768, 1024, 1024, uint64_t{1} << 29, 1024);
    EXPECT_EQ(put_event(tsidx.get(), large), HOT_PUT_RC_POSTINGS_FULL) << "limits out of range grow no further";
    st_tsidx_set_params(tsidx.get(), 512, 32768, 1024, 1024, 8192, 1024);
    ASSERT_EQ(put_event(tsidx.get(), large), 0);
    EXPECT_EQ(st_tsidx_max_terms(tsidx.get()), 8192u);
    EXPECT_EQ(st_tsidx_max_postings(tsidx.get()), 8192u);
    EXPECT_EQ(st_tsidx_max_term_chars(tsidx.get()), 131072u);
    EXPECT_EQ(st_tsidx_max_values(tsidx.get()), 1024u);
    ASSERT_EQ(st_tsidx_close(tsidx.release()), 0);
    expect_all_indexed(dir, {large, small});
}

TEST(Tsidx, PartMode) {
    const temp_dir dir;
    directory_ptr tsidx = open_writer(dir.path(), false, 4, 7);
    std::vector<forge_event> events;
    for (uint32_t i = 0; i < 65; i++) {
        events.push_back({.time = 1, .address = i, .terms = {"a"}});
        ASSERT_EQ(put_event(tsidx.get(), events.back()), 0);
        ASSERT_EQ(st_tsidx_sync_part(tsidx.get()), 0);
    }
    EXPECT_EQ(files_in(dir.path(), ".part-tsidx").size(), 64u);
    EXPECT_EQ(files_in(dir.path(), ".63.7.part-tsidx").size(), 1u);
    ASSERT_EQ(put_event(tsidx.get(), events[0]), 0);
    EXPECT_EQ(_st_tsidx_sync(tsidx.get(), nullptr, 1), TSIDX_PARTS_EXHAUSTED);
    const temp_dir other;
    ASSERT_EQ(st_tsidx_cd(tsidx.get(), other.path().c_str()), 0);
    ASSERT_EQ(put_event(tsidx.get(), events[0]), 0);
    ASSERT_EQ(st_tsidx_sync_part(tsidx.get()), 0);
    EXPECT_EQ(files_in(other.path(), ".0.7.part-tsidx").size(), 1u) << "numbers begin anew";
    ASSERT_EQ(st_tsidx_close(tsidx.release()), 0);
    expect_all_indexed(dir, {events[0], events[64]});
}

TEST(TsidxParams, Parsing) {
    const std::string head = "VELDAR AUTO-GENERATED FILE. DO NOT MODIFY.|";
    const std::string line = head + "1|2|3|4|5|6|7|8|", most(TSIDX_PARAMS_MAX_BYTES - line.size(), '0');
    const std::vector<std::string> good = {line, head + "1|2|3|4|5|6|7|8", head + "1|2|3|4|5|6|7|18446744073709551615|",
                                           head + most + "1|2|3|4|5|6|7|8|"};
    std::vector<std::string> bad = {"",
                                    line + "9|",
                                    line + "\n",
                                    line + std::string(1, '\0'),
                                    "v" + line.substr(1),
                                    head + most + "01|2|3|4|5|6|7|8|"};
    for (const char* numbers : {"", "1|2|3|4|5|6|7|", "1|2|3|4|5|6|7", "1|2|3|4|5|6|7|18446744073709551616|",
                                "1||3|4|5|6|7|8|", "1|-2|3|4|5|6|7|8|", " 1|2|3|4|5|6|7|8|", "0x1|2|3|4|5|6|7|8|"}) {
        bad.push_back(head + numbers);
    }
    const tsidx_limits_t untouched{.lexicon_bytes = 42};
    const tsidx_limits_t parsed{2, 1, 3, 4, 5, 6, 7};
    for (size_t i = 0; i < good.size() + bad.size(); i++) {
        const bool is_good = i < good.size();
        const std::string& text = is_good ? good[i] : bad[i - good.size()];
        tsidx_limits_t limits = untouched;
        EXPECT_EQ(deserialize_params(text, &limits), is_good) << text;
        EXPECT_TRUE(limits == (is_good ? parsed : untouched)) << text;
        const temp_dir dir;
        write_file(dir.file(TSIDX_PARAMS_NAME), text);
        EXPECT_EQ(st_tsidx_max_values(open_writer(dir.path()).get()), is_good ? 1024u : 131072u) << text;
    }
    EXPECT_EQ(serialize_params(parsed, 8).text, line);
    const uint64_t huge = ~uint64_t{0};
    const tsidx_limits_t sane = tsidx_clamp_limits({huge, huge, huge, huge, huge, huge, huge});
    EXPECT_EQ(sane.max_terms, uint64_t{1} << 26);
    EXPECT_EQ(sane.lexicon_bytes, uint64_t{1} << 30);
    EXPECT_EQ(sane.max_values, uint64_t{1} << 28);
    const temp_dir dir;
    write_file(dir.file(TSIDX_PARAMS_NAME), head + "1|2|3|1152921504606846976|5|6|7|8|");
    EXPECT_EQ(st_tsidx_max_values(open_writer(dir.path()).get()), 131072u);

    // No hot slice takes more than a slice can hold: the widest companion array has as many bits as its format can
    // count.
    be32 size, nbits;
    warm_rc_t rc;
    const auto values = static_cast<uint32_t>(tsidx_writable_limits(sane, false).max_values);
    EXPECT_EQ(warm_slice_set_companion(&size, &nbits, values, 31, &rc), 0);
    EXPECT_EQ(warm_slice_set_companion(&size, &nbits, values + 1, 31, &rc), WARM_RC_DOES_NOT_FIT);
    EXPECT_EQ(tsidx_writable_limits(sane, true).max_values, values / 2);
    EXPECT_EQ(tsidx_writable_limits(parsed, true), parsed);
}

TEST(TsidxParams, AnUnwritableFileKeepsTheOldOne) {
    const temp_dir dir;
    const tsidx_params_line old_line = serialize_params(tsidx_default_limits(false), 1);
    ASSERT_EQ(tsidx_write_params(dir.path().c_str(), old_line, 1), 0);
    const tsidx_params_line new_line = serialize_params(tsidx_default_limits(true), 1);
    for (const fault_call call : {fault_call::open, fault_call::write, fault_call::close, fault_call::rename}) {
        const fault broken(call, 1, ENOSPC);
        EXPECT_NE(tsidx_write_params(dir.path().c_str(), new_line, 1), 0);
        EXPECT_EQ(broken.hits(), 1u);
        EXPECT_EQ(read_file(dir.file(TSIDX_PARAMS_NAME)), old_line.text);
        EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 1) << "part file left behind";
    }
    write_file(dir.file("veldar-autogen-params.dat.part.1"), "left by a process that was killed");
    EXPECT_EQ(tsidx_write_params(dir.path().c_str(), new_line, 1), 0);
    EXPECT_EQ(read_file(dir.file(TSIDX_PARAMS_NAME)), new_line.text);
}

// What a sync answers to each failing call, and what is on the disk then: all of the events under a final name after a
// success, none of them after a failure.
TEST(TsidxSync, Faults) {
    const std::vector<forge_event> before = {{.time = 3, .address = 4, .terms = {"a"}}};
    std::string told, last;
    const auto run = [&](fault_call call, uint64_t nth, int error, uint64_t times, bool part) {
        const std::string what = std::to_string(static_cast<int>(call)) + " " + std::to_string(nth) + " errno " +
                                 std::to_string(error) + " times " + std::to_string(times) + (part ? " part" : "");
        SCOPED_TRACE(what);
        const temp_dir dir;
        TSWRITEOPTS options;
        st_tsidx_write_opts_set_defaults(&options);
        options.seal = 0;  // a seal fails no sync
        directory_ptr tsidx(st_tsidx_open(dir.path().c_str(), 0, 0, &options, TSIDX_ORDINARY_WRITER));
        ASSERT_EQ(put_event(tsidx.get(), before[0]), 0);
        std::string outcome;
        {
            const no_pauses pauses;
            const fault broken(call, nth, error, times);
            const int status = part ? st_tsidx_sync_part(tsidx.get()) : st_tsidx_sync(tsidx.get());
            if (broken.hits() == 0) return;
            outcome = std::to_string(status) + ", " + std::to_string(broken.hits()) + " failed in " +
                      std::to_string(pauses.microseconds()) + " us, " +
                      std::to_string(st_tsidx_get_warm_rc(tsidx.get())) + " errno " +
                      std::to_string(st_tsidx_get_warm_errno(tsidx.get()));
        }
        const std::vector<std::string> made = files_in(dir.path(), part ? ".part-tsidx" : ".tsidx");
        const std::vector<std::string> unmoved = files_in(dir.path(), ".pre-tsidx");
        outcome += ", " + std::to_string(made.size()) + " made, " + std::to_string(unmoved.size()) + " unmoved" +
                   (fs::exists(dir.file(TSIDX_NEED_OPTIMIZE_NAME)) ? ", marked" : "");
        for (const std::string& path : made) EXPECT_TRUE(read_slice(path) == before);
        const bool is_left = made.empty() && !unmoved.empty();
        EXPECT_EQ(st_tsidx_unmoved_slice(tsidx.get()), is_left ? unmoved[0] : "");
        if (is_left) {
            fs::rename(unmoved[0], dir.file("3-3-1.tsidx"));
            EXPECT_TRUE(read_created_slices(dir.path()) == before) << "the file left behind is complete";
            fs::remove(dir.file("3-3-1.tsidx"));
        }
        // The handle goes on.
        EXPECT_EQ(put_event(tsidx.get(), {.time = 5, .address = 5, .terms = {"b"}}), 0);
        EXPECT_EQ(st_tsidx_close(tsidx.release()), 0);
        EXPECT_EQ(slices(dir), part ? 1 : 1 + made.size());
        if (outcome != last) told += what + ": " + outcome + "\n";
        last = outcome;
    };
    for (const fault_call call : {fault_call::open, fault_call::write, fault_call::close, fault_call::fsync,
                                  fault_call::link, fault_call::unlink}) {
        for (const uint64_t nth : {1u, 2u, 3u}) {
            for (const int error : {EACCES, EMFILE, EEXIST, EINVAL, EINTR}) {
                for (const uint64_t times : {1u, 59u, 60u}) {
                    for (const bool part : {false, true}) run(call, nth, error, times, part);
                }
            }
        }
    }
    expect_kept("syncs", told);
}

TEST(TsidxSync, FailureReachesCloseAndTheTransactionThatCausedIt) {
    const temp_dir dir;
    directory_ptr tsidx = open_writer(dir.path());
    ASSERT_EQ(put_event(tsidx.get(), {.time = 1, .address = 1, .terms = {"a"}}), 0);
    {
        const fault broken(fault_call::write, 1, ENOSPC);
        EXPECT_EQ(put_event(tsidx.get(), {.time = 2, .address = 1, .terms = {"b"}}), TSIDX_SYNC_FAILED);
    }
    EXPECT_EQ(st_tsidx_get_warm_errno(tsidx.get()), ENOSPC);
    EXPECT_EQ(st_tsidx_close(tsidx.release()), TSIDX_SYNC_FAILED);
    EXPECT_EQ(slices(dir), 0u) << "nothing of the refused event either";

    // What changing the limits lost is told by whatever can tell it first.
    const forge_event next = {.time = 2, .address = 1, .terms = {"b"}};
    for (const std::string who : {"close", "sync", "event"}) {
        SCOPED_TRACE(who);
        tsidx = open_writer(dir.path());
        ASSERT_EQ(put_event(tsidx.get(), {.time = 1, .address = 1, .terms = {"a"}}), 0);
        {
            const fault broken(fault_call::write, 1, ENOSPC);
            EXPECT_EQ(st_tsidx_options(tsidx.get(), 0, 0, 0, 0), 0);
        }
        EXPECT_EQ(who == "sync"    ? st_tsidx_sync(tsidx.get())
                  : who == "event" ? put_event(tsidx.get(), next)
                                   : st_tsidx_close(tsidx.release()),
                  TSIDX_SYNC_FAILED);
        if (tsidx == nullptr) continue;
        EXPECT_TRUE(who == "sync" || st_tsidx_get_warm_errno(tsidx.get()) == ENOSPC);
        EXPECT_EQ(put_event(tsidx.get(), next), 0);
        EXPECT_EQ(st_tsidx_close(tsidx.release()), 0);
    }
}

}  // namespace
}  // namespace veldar
