#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>

#include "searchthing/hot/warmslice_create.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/slice/warmslice.h"
#include "tests/support/faults.h"
#include "tests/support/hot_events.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

struct created {
    warm_ptr warm;
    std::string path;
    warm_rc_t rc;
};

created create(const hot_ptr& hot, const std::string& prefix, uint32_t level = 4, const char* suffix = ".pre-tsidx") {
    created result;
    ospath_buf filename;
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, level);
    result.warm.reset(st_warm_slice_create(hot.get(), &filename, prefix.c_str(), suffix, &opts, &result.rc));
    result.path = filename.val;
    return result;
}

// The whole file, byte for byte, against the independent writer of the same format.
void expect_forged_bytes(std::vector<forge_event> events, bool streaming) {
    if (streaming) sort_by_arrival(&events);
    const temp_dir dir;
    const hot_ptr hot = hot_with(events, streaming);
    for (uint32_t level = 1; level <= 4; level++) {
        SCOPED_TRACE(testing::Message() << "level " << level << (streaming ? " streaming" : " hashed"));
        created made = create(hot, dir.path(), level);
        ASSERT_NE(made.warm, nullptr) << made.rc.message;
        forge_options options = forge_as_created(level);
        std::set<std::string> terms;
        for (const forge_event& event : events) terms.insert(event.terms.begin(), event.terms.end());
        // Creation reports the arena bytes of its terms: each with its NUL.
        for (const std::string& term : terms) options.uncompressed_size += static_cast<uint32_t>(term.size() + 1);
        const std::string expected = forge_slice(events, options);
        const std::string written = read_file(made.path);
        ASSERT_EQ(written.size(), expected.size());
        const auto [at, _] = std::mismatch(written.begin(), written.end(), expected.begin());
        EXPECT_EQ(at - written.begin(), static_cast<ptrdiff_t>(written.size())) << "first difference";
        // The handle reads the same from memory.
        EXPECT_EQ(st_fclex_get(made.warm->lexicon, terms.rbegin()->c_str(), nullptr) + 1,
                  static_cast<int>(terms.size()));
        st_tsval newest;
        EXPECT_EQ(tsval_reader_decode(&made.warm->tsval_reader, 0, &newest, false, 0, &made.rc), 0);
        EXPECT_EQ(newest.time, st_warm_slice_latest(made.warm.get()));
    }
}

TEST(Create, WritesTheForgedBytes) {
    for (const bool streaming : {false, true}) {
        for (uint64_t seed = 1; seed <= 12; seed++) {
            expect_forged_bytes(forge_random_events(seed, seed < 6 ? static_cast<uint32_t>(seed) : 500), streaming);
        }
    }
}

// Numbers of every length in lists, companions of every width up to the widest, times around zero, equal times.
TEST(Create, WritesTheForgedBytesAtTheEdges) {
    std::vector<forge_event> sparse;
    for (uint32_t i = 0; i < 40000; i++) {
        forge_event event{.time = static_cast<int32_t>(i) - 20000, .address = i * 7, .terms = {"every"}};
        if (i % 20001 == 3) event.terms.push_back("far apart");
        if (i % 129 == 0) event.terms.push_back("gap of 129");
        sparse.push_back(event);
    }
    expect_forged_bytes(sparse, false);
    const forge_event wide{.time = 5,
                           .address = 0xFFFFFFFF,
                           .measure = 0x7FFFFFFF,
                           .s = 0x7FFFFFFF,
                           .st = 0x7FFFFFFF,
                           .h = 0x7FFFFFFF,
                           .terms = {std::string(2047, 'x'), "y"}};
    const forge_event gone{.time = 5, .address = 0, .s = 0, .terms = {"z"}, .deleted = true};
    expect_forged_bytes({wide}, false);
    expect_forged_bytes({wide, gone}, false);
    expect_forged_bytes({gone}, true);
}

TEST(Create, Failures) {
    const temp_dir dir;
    const hot_ptr hot = hot_with(forge_random_events(1, 50), false);
    EXPECT_EQ(create(hot, dir.path() + std::string(4096, '/')).rc.warm_rc, WARM_RC_PATH_TOO_LONG);
    {
        const fault fault(fault_call::write, 1, ENOSPC);
        EXPECT_TRUE(std::filesystem::exists(create(hot, dir.path()).path)) << "left for the caller";
    }
    EXPECT_NE(create(hot, dir.path()).warm, nullptr) << "a prepared hot slice may be written again";
    EXPECT_EQ(create(hot_with({}, false), dir.path()).rc.warm_rc, WARM_RC_FAILED);
    EXPECT_EQ(create(hot_with({}, true), dir.path()).rc.warm_rc, WARM_RC_INVALID_ARGUMENT);
}

}  // namespace
}  // namespace veldar
