#include <gtest/gtest.h>

#include <limits>
#include <string_view>
#include <utility>

#include "searchthing/format/tsidx_names.h"
#include "searchthing/format/write_options.h"

namespace veldar {

namespace {

TEST(FileNames, ThreeNumbersInRangeAndASuffixParse) {
    constexpr st_time_t FIRST = std::numeric_limits<st_time_t>::min();
    constexpr st_time_t LAST = std::numeric_limits<st_time_t>::max();
    const struct {
        const char* name;
        int is_mini;  // what the parser of minified names returns
        st_time_t latest, earliest;
        uint64_t id;
    } cases[] = {
        {"123-100-5.tsidx", 0, 123, 100, 5},
        {"dir-1/a.tsidx/123-100-5.tsidx", 0, 123, 100, 5},
        {"123-100-5.mini.tsidx", 1, 123, 100, 5},
        {"dir/123-100-5.mini.tsidx", 0, 123, 100, 5},
        {"-5--10-0.tsidx", 0, -5, -10, 0},
        {"+5-+4-007.tsidx", 0, 5, 4, 7},
        {"2147483647--2147483648-18446744073709551615.tsidx", 0, LAST, FIRST, ~uint64_t{0}},
    };
    for (const auto& c : cases) {
        const auto expect = [&](const st_filename_metadata_t& meta, uint64_t kind) {
            EXPECT_TRUE(meta.latest == c.latest && meta.earliest == c.earliest && meta.id == c.id) << c.name;
            EXPECT_EQ(meta.kind, kind) << c.name;
        };
        st_filename_metadata_t meta;
        EXPECT_EQ(st_tsidx_file_parse(c.name, &meta), 1) << c.name;
        expect(meta, 1);
        EXPECT_EQ(st_mini_tsidx_file_parse(c.name, &meta), c.is_mini) << c.name;
        expect(meta, c.is_mini != 0 ? 2 : 1);
    }
}

TEST(FileNames, NothingElseDoes) {
    for (const char* name :
         {"2147483648-1-5.tsidx", "1--2147483649-5.tsidx", "1-2-18446744073709551616.tsidx", "1-2--3.tsidx",
          "1-+-2-3.tsidx", " 1-2-3.tsidx", "1- 2-3.tsidx", "1x2-3.tsidx", "1-2x3.tsidx", "1-2-3x.tsidx",
          "1-2-3.tsidx.deleted", "1-2-3.pre-tsidx", "1-2-3.1.1.part-tsidx", "1-2-3", "1-2.tsidx", "1--2.tsidx",
          "1-2-3.tsidx/", ".tsidx", ""}) {
        st_filename_metadata_t meta;
        EXPECT_EQ(st_tsidx_file_parse(name, &meta), 0) << name;
        EXPECT_EQ(st_mini_tsidx_file_parse(name, &meta), 0) << name;
        EXPECT_EQ(meta.kind, 0u);
        EXPECT_EQ(tsidx_pre_file_parse(name, &meta), name == std::string_view("1-2-3.pre-tsidx")) << name;
    }
}

TEST(WriteOptions, DefaultsAndLimits) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_set_defaults(&opts);
    EXPECT_EQ(opts.byte_size, 1572864000u);
    EXPECT_TRUE(opts.write_level == 4 && opts.merge_terms_per_block == 64 && opts.merge_buffer_bytes == 8388608 &&
                opts.advanced_postings == 1 && opts.merge_reader_span == 1024);
    EXPECT_FALSE(st_tswriteopts_support_millisecond(&opts));
    for (const auto& [mib, bytes] : {std::pair{4095u, 4293918720u}, {4096u, 4294967295u}}) {
        st_tsidx_write_opts_init(&opts, 3, mib, 0, 127);
        EXPECT_EQ(opts.byte_size, bytes);
        EXPECT_EQ(opts.merge_reader_span, 128u);
    }
    st_tsidx_write_opts_init_with_byte_sizes(&opts, 4, uint64_t{1} << 40, 1, 1073741825, 0, 129);
    EXPECT_TRUE(opts.merge_buffer_bytes == 1073741824 && opts.merge_reader_span == 129);
    for (const uint32_t level : {3u, 4u}) {
        opts.write_level = level;
        opts.millisecond_mode = 1;
        EXPECT_EQ(st_tswriteopts_support_millisecond(&opts), level == 4);
    }
    EXPECT_FALSE(st_tswriteopts_support_millisecond(nullptr));
}

}  // namespace

}  // namespace veldar
