#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "searchthing/tsidx_names.h"

namespace veldar {

namespace {

TEST(FileNames, OnlyThreeNumbersInRangeAndASuffixParse) {
    constexpr st_time_t FIRST = std::numeric_limits<st_time_t>::min();
    constexpr st_time_t LAST = std::numeric_limits<st_time_t>::max();
    const struct {
        const char* name;
        int regular, mini;  // results of the two parsers
        st_time_t latest, earliest;
        uint64_t id;
    } cases[] = {
        {"123-100-5.tsidx", 1, 0, 123, 100, 5},
        {"dir-1/a.tsidx/123-100-5.tsidx", 1, 0, 123, 100, 5},
        {"123-100-5.mini.tsidx", 1, 1, 123, 100, 5},
        {"dir/123-100-5.mini.tsidx", 1, 0, 123, 100, 5},
        {"-5--10-0.tsidx", 1, 0, -5, -10, 0},
        {"+5-+4-007.tsidx", 1, 0, 5, 4, 7},
        {"2147483647--2147483648-18446744073709551615.tsidx", 1, 0, LAST, FIRST, ~uint64_t{0}},
        {"2147483648-1-5.tsidx", 0, 0, 0, 0, 0},
        {"1--2147483649-5.tsidx", 0, 0, 0, 0, 0},
        {"1-2-18446744073709551616.tsidx", 0, 0, 0, 0, 0},
        {"1-2--3.tsidx", 0, 0, 0, 0, 0},
        {"1-+-2-3.tsidx", 0, 0, 0, 0, 0},
        {" 1-2-3.tsidx", 0, 0, 0, 0, 0},
        {"1- 2-3.tsidx", 0, 0, 0, 0, 0},
        {"1-2-3x.tsidx", 0, 0, 0, 0, 0},
        {"1-2-3.tsidx.deleted", 0, 0, 0, 0, 0},
        {"1-2-3.pre-tsidx", 0, 0, 0, 0, 0},
        {"1-2-3.1.1.part-tsidx", 0, 0, 0, 0, 0},
        {"1-2-3", 0, 0, 0, 0, 0},
        {"1-2.tsidx", 0, 0, 0, 0, 0},
        {"1--2.tsidx", 0, 0, 0, 0, 0},
        {"1-2-3.tsidx/", 0, 0, 0, 0, 0},
        {".tsidx", 0, 0, 0, 0, 0},
        {"", 0, 0, 0, 0, 0},
    };
    for (const auto& c : cases) {
        const st_filename_metadata_t untouched = {9, 9, 9, 9};
        st_filename_metadata_t regular = untouched, mini = untouched;
        EXPECT_EQ(st_tsidx_file_parse(c.name, &regular), c.regular) << c.name;
        EXPECT_EQ(st_mini_tsidx_file_parse(c.name, &mini), c.mini) << c.name;
        const auto expect = [&](const st_filename_metadata_t& meta, bool parsed, uint64_t kind) {
            EXPECT_EQ(meta.latest, parsed ? c.latest : 9) << c.name;
            EXPECT_EQ(meta.earliest, parsed ? c.earliest : 9) << c.name;
            EXPECT_EQ(meta.id, parsed ? c.id : 9) << c.name;
            EXPECT_EQ(meta.kind, parsed ? kind : 9) << c.name;
        };
        expect(regular, c.regular != 0, 1);
        expect(mini, c.mini != 0, 2);
    }
}

TEST(WriteOptions, DefaultsAndLimits) {
    TSWRITEOPTS opts;
    opts.millisecond_mode = 1;
    st_tsidx_write_opts_set_defaults(&opts);
    EXPECT_EQ(opts.write_level, 4u);
    EXPECT_EQ(opts.byte_size, 1572864000u);
    EXPECT_EQ(opts.merge_terms_per_block, 64u);
    EXPECT_EQ(opts.merge_buffer_bytes, 8388608u);
    EXPECT_EQ(opts.advanced_postings, 1u);
    EXPECT_EQ(opts.merge_reader_span, 1024u);
    EXPECT_FALSE(st_tswriteopts_support_millisecond(&opts));

    st_tsidx_write_opts_init(&opts, 3, 4095, 0, 127);
    EXPECT_EQ(opts.byte_size, 4293918720u);
    EXPECT_EQ(opts.merge_reader_span, 128u);
    st_tsidx_write_opts_init(&opts, 3, 4096, 0, 129);
    EXPECT_EQ(opts.byte_size, 4294967295u);
    EXPECT_EQ(opts.merge_reader_span, 129u);
    st_tsidx_write_opts_init_with_byte_sizes(&opts, 4, uint64_t{1} << 40, 1, 1073741825, 0, 0);
    EXPECT_EQ(opts.byte_size, uint64_t{1} << 40);
    EXPECT_EQ(opts.merge_buffer_bytes, 1073741824u);

    for (const uint32_t level : {3u, 4u}) {
        TSWRITEOPTS copy = opts;
        copy.write_level = level;
        copy.millisecond_mode = 1;
        EXPECT_EQ(st_tswriteopts_support_millisecond(&copy), level == 4);
        st_tsidx_write_opts_copy(&opts, &copy);
        st_tsidx_write_opts_copy(&opts, nullptr);
        st_tsidx_write_opts_copy(nullptr, &opts);
        EXPECT_EQ(opts.millisecond_mode, 1u);
    }
    EXPECT_FALSE(st_tswriteopts_support_millisecond(nullptr));
}

}  // namespace

}  // namespace veldar
