// What must reach the disk before what: the calls of everything that changes files, in order. A power loss between any
// two of them finds either the state before or the state after.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>

#include "searchthing/base/st_init.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/call_record.h"
#include "tests/support/directory.h"
#include "tests/support/hot_events.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/load/loader.h"
#include "tools/libveldar/load/metric_loader.h"

namespace veldar {

using namespace tool;
namespace {

const std::string NEW_SEAL =
    "create .tsidx.seal.part\nwrite .tsidx.seal.part\nsync .tsidx.seal.part\nrename .tsidx.seal.part .tsidx.seal\n";
const std::string CHANGED_SEAL = "write .tsidx.seal\nsync .tsidx.seal\n";

class CallOrder : public directory_test {
  protected:
    // What was done meanwhile, a call a line; the directory is shown as "DIR". With `files`, only calls with one of
    // these words.
    template <typename F>
    std::string calls_of(const F& act, const std::vector<std::string>& files = {""}) {
        call_record record;
        act();
        std::string text;
        for (std::string& call : record.take()) {
            if (const size_t part = call.find(".part." + std::to_string(::getpid())); part != call.npos) {
                call.erase(part + 5, 1 + std::to_string(::getpid()).size());
            }
            if (call.ends_with(" " + name_)) call.replace(call.size() - name_.size(), name_.size(), "DIR");
            bool wanted = false;
            for (const std::string& word : files) wanted = wanted || call.find(word) != call.npos;
            if (wanted) text += call + "\n";
        }
        return text;
    }
    TSIDX* writer(uint32_t level = 4) {
        tsidx_ = open_directory(dir_.path(), level);
        st_tsidx_set_durable(tsidx_.get(), 1);
        return tsidx_.get();
    }
    void put_slice(TSIDX* tsidx, int32_t time) {
        for (const uint32_t address : {1u, 2u}) {
            ASSERT_EQ(put_event(tsidx, {.time = time, .address = address, .terms = {"a"}}), 0);
        }
        ASSERT_EQ(st_tsidx_sync(tsidx), 0);
    }

    const temp_dir dir_;
    const std::string name_ = std::filesystem::path(dir_.path()).filename();
    directory_ptr tsidx_;
};

TEST_F(CallOrder, SyncAndDelete) {
    TSIDX* const tsidx = writer();
    EXPECT_EQ(calls_of([&] { put_slice(tsidx, 5); }), "create .pre-tsidx\nwrite .pre-tsidx\nsync .pre-tsidx\n" +
                                                          NEW_SEAL +
                                                          "link .pre-tsidx .tsidx\nsync DIR\nunlink .pre-tsidx\n");
    ASSERT_EQ(st_tsidx_minify(tsidx, dir_.path().c_str()), 1);
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(st_tsidx_minify(tsidx, dir_.path().c_str()), 0); }), "") << "it is there";
    ASSERT_EQ(put_event(tsidx, {.time = 6, .address = 1, .terms = {"a"}}), 0);
    const std::string part = calls_of([&] { EXPECT_EQ(st_tsidx_sync_part(tsidx), 0); }, {"tsidx"});
    EXPECT_LT(part.find("rename "), part.find("link .pre-tsidx .0."))
        << "nothing has a slice's name before it is complete";
    EXPECT_LT(part.find("sync .pre-tsidx"), part.find("link .pre-tsidx .0.")) << part;
    const st_tsval_encoded first = {5, 1}, second = {5, 2};
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(st_tsidx_delete_by_key(tsidx, &first, 1), 1); }),
              CHANGED_SEAL + "mark\n" + CHANGED_SEAL);
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(st_tsidx_delete_by_key(tsidx, &second, 1), 1); }),
              CHANGED_SEAL + "mark\n" + CHANGED_SEAL +
                  "create .tsidx.deleted\nunlink .tsidx\nunlink .tsidx.seal\nunlink .tsidx.deleted\nsync DIR\n");
}

TEST_F(CallOrder, Merge) {
    TSIDX* const tsidx = writer();
    put_slice(tsidx, 5);
    put_slice(tsidx, 6);
    warm_rc_t rc;
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(st_tsidx_optimize_n(tsidx, 0, 2, 0, 0, &rc, 0, 0, true), 0) << rc.message; }),
              "create veldar-merge-manifest.dat.tmp\nwrite veldar-merge-manifest.dat.tmp\n"
              "sync veldar-merge-manifest.dat.tmp\ncreate .pre-tsidx\nwrite .pre-tsidx\nsync .pre-tsidx\n"
              "rename veldar-merge-manifest.dat.tmp veldar-merge-manifest.dat\nsync DIR\nmark\n" +
                  NEW_SEAL +
                  "link .pre-tsidx .tsidx\nsync DIR\nsync DIR\nunlink .tsidx\nunlink .tsidx.seal\nunlink .tsidx\n"
                  "unlink .tsidx.seal\nsync DIR\nunlink .pre-tsidx\nunlink veldar-merge-manifest.dat\n");
}

TEST_F(CallOrder, Load) {
    write_file(dir_.file("log"), "2024-03-01T00:00:00Z one\n2024-03-01T00:00:01Z two\n");
    const auto load = [&](const std::string& store, const std::string& file, uint64_t bucket_bytes) {
        load_options options;
        options.no_optimize = true;
        options.bucket_bytes = bucket_bytes;
        loader one;
        loader_open(&one, dir_.file(store), options);
        std::string error;
        EXPECT_TRUE(loader_load(&one, file, &error)) << error;
        loader_close(&one);
    };
    // The stretch before the slice whose events lie in it, the mark behind it.
    const std::string map = "(write source.map\nsync source.map\n)+";
    const std::string slice = "create .pre-tsidx\nwrite .pre-tsidx\nsync .pre-tsidx\n" + NEW_SEAL +
                              "link .pre-tsidx .tsidx\nunlink .pre-tsidx\n";
    const std::string mark = "write source.map\nsync source.map\n";
    const auto expect = [&](const std::string& calls, const std::string& pattern) {
        EXPECT_TRUE(std::regex_match(calls, std::regex(pattern))) << calls;
    };
    const std::vector<std::string> data = {"source.map", "tsidx", "spool"};
    // All that a name leads to is flushed before the name, and the name before the load is done.
    const auto whole = [](const std::string& name) {
        const std::string part = name + ".part\n";
        return "create " + part + "write " + part + "sync " + part + "rename " + name + ".part " + name +
               "\nsync store\n";
    };
    const auto list = [](const std::string& name) { return "write " + name + "\nsync " + name + "\n"; };
    expect(calls_of([&] { load("store", dir_.file("log"), BUCKET_BYTES_MAX); }),
           "sync DIR\n" + whole("id") + whole("store") +
               "create lock\ncreate sources\ncreate sourcetypes\ncreate hosts\nsync store\n" + list("sources") +
               list("sourcetypes") + list("hosts") + "create source.map\nsync bucket-000001\nsync store\n" + map +
               std::regex_replace(slice, std::regex("(unlink)"), "sync bucket-000001\n$1") + mark);

    expect(calls_of([&] { store_note_deleted(dir_.file("store/bucket-000001"), 1000); }),
           "create deleted-1000\nsync bucket-000001\n");

    // Through a pipe, and two buckets: nothing is marked as loaded whose only copy may not last.
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const std::string text = read_file(dir_.file("log"));
    ASSERT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(ends[1]);
    const unique_fd kept(::dup(0));
    ::dup2(ends[0], 0);
    ::close(ends[0]);
    expect(calls_of([&] { load("piped", "-", 1); }, data),
           "create source.map\ncreate spool-1\n" + mark + "write spool-1\n" + map + slice + "sync spool-1\n" + mark +
               "create source.map\n" + map + "sync spool-1\n" + slice + mark);
    ::dup2(kept.get(), 0);
}

// Samples wait in a place of their own until a commit says which slices and notes they are.
TEST_F(CallOrder, MetricLoad) {
    write_file(dir_.file("up.om"), "up 1 1714557600\n");
    const auto load = [&] {
        metric_load_options options;
        options.no_optimize = true;
        metric_loader one;
        metric_loader_open(&one, dir_.file("metrics"), options);
        std::string error;
        EXPECT_TRUE(metric_loader_load(&one, dir_.file("up.om"), &error)) << error;
        metric_loader_close(&one);
    };
    EXPECT_EQ(calls_of(load),
              "sync DIR\ncreate metrics.loaded\ncreate .pre-tsidx\nwrite .pre-tsidx\nsync .pre-tsidx\n" + NEW_SEAL +
                  "link .pre-tsidx .tsidx\nsync metrics.batch\nunlink .pre-tsidx\ncreate commit.part\n"
                  "write commit.part\nsync commit.part\nrename commit.part commit\nsync metrics.batch\n"
                  "rename .tsidx.seal .tsidx.seal\nrename .tsidx .tsidx\nsync metrics\n"
                  "sync metrics.batch\nwrite metrics.loaded\nsync metrics.loaded\nunlink commit\n");
}

}  // namespace
}  // namespace veldar
