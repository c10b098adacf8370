#include "searchthing/values/tsval.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "libzero/vbe.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/slice/warmslice_values.h"
#include "searchthing/values/values_writer.h"
#include "tests/support/faults.h"
#include "tests/support/forge.h"
#include "tests/support/forge_metric.h"
#include "tests/support/temp_dir.h"

namespace veldar {

namespace {

st_warm_slice_body make_header(const char* magic, uint64_t flags, uint32_t num_values) {
    st_warm_slice_body header;
    warm_header_init(&header, magic);
    warm_header_set_flag(&header, flags, true);
    header.num_values.set(num_values);
    header.d_nbits.set(1);
    return header;
}

void expect_value(const st_tsval& value, const forge_event& event, uint32_t id) {
    EXPECT_EQ(value.time, event.time) << id;
    EXPECT_EQ(value.address, event.address) << id;
    EXPECT_EQ(value.subsecond, 0u) << id;
    EXPECT_EQ(value.s, event.deleted ? ST_DELETED_SOURCE : event.s) << id;
    EXPECT_TRUE(value.measure == event.measure && value.st == event.st && value.h == event.h) << id;
}

// Writes values and returns the file.
std::string write_packed(const st_warm_slice_body& header, const std::vector<st_tsval>& values) {
    temp_dir dir;
    warm_rc_t rc;
    const unique_fd fd = open_file(dir.file("values"));
    tsval_writer_t writer;
    EXPECT_EQ(tsval_writer_open(fd.get(), &writer, &header, &rc), 0) << rc.message;
    for (const st_tsval& value : values) EXPECT_EQ(tsval_writer_put(&writer, &value, &rc), 0) << rc.message;
    EXPECT_EQ(tsval_writer_close(&writer, &rc), 0) << rc.message;
    EXPECT_EQ(warm_header_write(fd.get(), &header, &rc), 0);
    return read_file(dir.file("values"));
}

}  // namespace

TEST(Tsval, EverySliceKindDecodesFromMemory) {
    for (const forge_options& options : forge_all_kinds()) {
        SCOPED_TRACE(options.name());
        temp_dir dir;
        forge_picture picture;
        warm_rc_t rc;
        const std::string path = forge_file(dir.path(), forge_random_events(options.seed, 300), options, 1, &picture);
        WARM* warm = st_warm_slice_open_rdonly(path.c_str(), &rc);
        ASSERT_NE(warm, nullptr) << rc.message;
        EXPECT_EQ(warm->pl_wide, options.magic != "Veldar3" && !(options.wflags & FORGE_PLO32));
        EXPECT_EQ(warm->slice_kind, options.metric() ? 0u : 2u);
        const uint32_t count = static_cast<uint32_t>(picture.values.size());
        st_tsval value;
        for (uint32_t id = 0; id < count; id++) {
            ASSERT_EQ(tsval_reader_decode(&warm->tsval_reader, id, &value, false, 0, &rc), 0) << rc.message;
            expect_value(value, picture.values[id], id);
        }
        EXPECT_EQ(tsval_reader_decode(&warm->tsval_reader, count, &value, false, 0, &rc), WARM_RC_CORRUPT);
        EXPECT_EQ(st_warm_slice_close(warm), 0);
    }
}

// The file gives what memory does, whatever is cached and expected next; a read that fails is told of.
TEST(Tsval, FilesGiveWhatMemoryDoes) {
    std::mt19937 random(1);
    const temp_dir dir;
    std::vector<std::string> paths;
    for (const forge_options& options : forge_all_kinds()) {
        paths.push_back(forge_file(dir.path(), forge_random_events(options.seed, 100), options, paths.size()));
    }
    for (const bool milliseconds : {false, true}) {
        const forge_metric_options options{.milliseconds = milliseconds, .terms = {}};
        paths.push_back(forge_metric_file(dir.path(), forge_random_metrics(7, 90), options, paths.size()));
    }
    for (size_t i = 0; i < 3 * paths.size(); i++) {
        SCOPED_TRACE(i);
        warm_rc_t rc;
        const warm_ptr warm(st_warm_slice_open_rdonly(paths[i / 3].c_str(), &rc));
        const uint32_t count = st_warm_slice_values(warm.get());
        tsval_reader_t reader;
        const uint64_t cache = i % 3 == 0 ? 8 : i % 3 == 1 ? 64 : 4096;
        ASSERT_EQ(tsval_reader_open_partial(&reader, warm->fd.get(), warm->body, cache, nullptr, nullptr, &rc), 0);
        st_tsval want = {}, got = {};
        for (uint32_t step = 0; step < 2 * count; step++) {
            const auto id = static_cast<uint32_t>(step < count ? step : random() % count);
            const auto hint = static_cast<uint32_t>(random() % count);
            const bool as_preamble = id < reader.num_preambles && random() % 2 == 0;
            ASSERT_EQ(tsval_reader_decode(&warm->tsval_reader, id, &want, false, 0, &rc), 0);
            for (uint64_t nth = 1, failed = 1; failed != 0; nth++) {
                const fault disk(fault_call::pread, nth, EIO);
                const int status = as_preamble ? tsval_reader_decode_preamble(&reader, id, &got, &rc)
                                               : tsval_reader_decode(&reader, id, &got, false, hint, &rc);
                failed = disk.hits();
                ASSERT_EQ(status, failed != 0 ? WARM_RC_READ : 0) << id;
            }
            st_time_t seconds = 0;
            uint64_t nanoseconds = 1;
            ASSERT_EQ(tsval_reader_decode_time(&reader, id, &seconds, &nanoseconds, &rc), 0);
            EXPECT_TRUE(got.time == want.time && got.address == want.address && seconds == want.time) << id;
            EXPECT_TRUE(as_preamble || nanoseconds == got.subsecond) << id;
            EXPECT_EQ(as_preamble || (got.s & got.st & got.h) == UINT32_MAX, true) << "companions are absent";
        }
        EXPECT_EQ(tsval_reader_decode_preamble(&reader, reader.num_preambles, &got, &rc), WARM_RC_CORRUPT);
        EXPECT_STREQ(rc.message, "expected preamble");
        tsval_reader_close(&reader);
    }
}

// Every pair of widths, values at both ends of the ranges, more words than one writer buffer.
TEST(Tsval, PackedValuesOfEveryWidthComeBack) {
    std::mt19937_64 random(2);
    const uint32_t count = 9000;
    for (const uint32_t time_nbits : {0u, 1u, 7u, 13u, 25u, 31u, 32u}) {
        for (const uint32_t addr_nbits : {0u, 1u, 8u, 20u, 31u, 32u}) {
            SCOPED_TRACE(testing::Message() << time_nbits << " + " << addr_nbits << " bits");
            st_warm_slice_body header = make_header("_TSIDX9", WARM_FLAG_VALUES_PACKED, count);
            const uint64_t time_span = (uint64_t{1} << time_nbits) - 1, addr_span = (uint64_t{1} << addr_nbits) - 1;
            const int64_t earliest = time_nbits == 32 ? std::numeric_limits<int32_t>::min() : -5;
            const uint32_t lowest = addr_nbits == 32 ? 0 : 0x70000000;
            header.earliest.set(static_cast<uint32_t>(earliest));
            header.latest.set(static_cast<uint32_t>(earliest + static_cast<int64_t>(time_span)));
            header.seek_addr_min.set(lowest);
            header.seek_addr_max.set(static_cast<uint32_t>(lowest + addr_span));
            ASSERT_EQ(warm_header_meta_time_nbits(&header), time_nbits);
            ASSERT_EQ(warm_header_seek_addr_nbits(&header), addr_nbits);
            std::vector<st_tsval> values(count);
            for (st_tsval& value : values) {
                const uint64_t pick = random() % 4;
                const uint64_t t = pick == 0 ? 0 : pick == 1 ? time_span : random() & time_span;
                const uint64_t a = pick == 0 ? addr_span : pick == 1 ? 0 : random() & addr_span;
                value.time = static_cast<st_time_t>(earliest + static_cast<int64_t>(t));
                value.address = static_cast<uint32_t>(lowest + a);
            }
            // Values of no bits leave a file that is only a header.
            const std::string file = write_packed(header, values);
            const std::string section = file.substr(std::min<size_t>(file.size(), _offset_values(&header)));
            ASSERT_EQ(section.size(), warm_header_tsval_encoded_array_size(&header));
            // The section in a block of its own, so that a load past its end is seen.
            const std::vector<uint8_t> memory(section.begin(), section.end());
            tsval_reader_t reader;
            warm_rc_t rc;
            const uint8_t none = 0;
            const uint8_t* in_memory = memory.empty() ? &none : memory.data();
            ASSERT_EQ(tsval_reader_open_partial(&reader, -1, &header, 0, nullptr, in_memory, &rc), 0);
            for (uint32_t id = 0; id < count; id++) {
                st_tsval value;
                ASSERT_EQ(tsval_reader_decode(&reader, id, &value, true, 0, &rc), 0) << rc.message;
                ASSERT_TRUE(value.time == values[id].time && value.address == values[id].address) << id;
            }
            tsval_reader_close(&reader);
        }
    }
}

TEST(Tsval, WriterRefusesWhatTheHeaderCannotHold) {
    const unique_fd fd(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    st_warm_slice_body header = make_header("_TSIDX9", WARM_FLAG_VALUES_PACKED, 10);
    header.earliest.set(1000);
    header.latest.set(2000);
    header.seek_addr_min.set(5);
    header.seek_addr_max.set(9);
    tsval_writer_t writer;
    warm_rc_t rc;
    ASSERT_EQ(tsval_writer_open(fd.get(), &writer, &header, &rc), 0);
    const std::pair<st_time_t, uint32_t> outside[] = {{999, 5}, {2001, 5}, {1000, 4}, {1000, 10}};
    for (const auto& [time, address] : outside) {
        st_tsval value = {};
        value.time = time;
        value.address = address;
        EXPECT_EQ(tsval_writer_put(&writer, &value, &rc), WARM_RC_INVALID_ARGUMENT);
    }
    EXPECT_EQ(tsval_writer_close(&writer, &rc), 0);
    header.num_values.set(400000000);
    EXPECT_EQ(tsval_writer_open(fd.get(), &writer, &header, &rc), WARM_RC_DOES_NOT_FIT) << "13 bits x 4e8 wrap";
    header.latest.set(999);
    EXPECT_EQ(tsval_writer_open(fd.get(), &writer, &header, &rc), WARM_RC_INVALID_ARGUMENT) << "ends before it begins";
    const unique_fd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    tsval_preamble_writer_t preambles;
    ASSERT_EQ(tsval_preamble_writer_open(&preambles, full.get(), &header, &rc), 0);
    int status = 0;
    for (uint32_t i = 0; i < TSVAL_WRITER_BUFFER; i++) {
        status += tsval_preamble_writer_put_preamble(&preambles, i, 1, &rc);
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(tsval_preamble_writer_put_preamble(&preambles, 1, 1, &rc), WARM_RC_WRITE);
    const st_warm_slice_body plain = make_header("Veldar4", 0, 9000);
    values_writer_t values;
    ASSERT_EQ(values_writer_open(&values, &plain, full.get(), nullptr, &rc), 0);
    for (status = 0; status < 9000 && values_writer_put(&values, {}, &rc) == 0; status++) continue;
    EXPECT_TRUE(status == 8192 && rc.warm_rc == WARM_RC_WRITE) << status;
}

TEST(Tsval, CompanionsOfEveryWidth) {
    const uint8_t values[8 * 20] = {};
    const st_warm_slice_body header = make_header("_TSIDX9", 0, 20);
    warm_rc_t rc;
    for (const uint32_t nbits : {0u, 1u, 3u, 8u, 17u, 31u, 32u, 33u, 63u, 1000u}) {
        SCOPED_TRACE(nbits);
        std::vector<uint8_t> bytes((20 * nbits + 7) / 8 + 1, nbits == 32 ? 0xFF : 0);
        bytes.pop_back();
        const uint32_t mask = nbits >= 32 ? 0 : (1u << nbits) - 1;
        for (uint32_t id = 0; id < 20 && nbits < 32; id++) {
            if (nbits > 0) encode_to_byte_str(bytes.data(), id * 0x9E3779B1, id, nbits);
        }
        tsval_reader_t reader;
        ASSERT_EQ(tsval_reader_open_partial(&reader, -1, &header, 0, nullptr, values, &rc), 0);
        const std::span<const uint8_t> whole(bytes.data(), bytes.size());
        reader.s = reader.h = {whole, nbits};
        for (uint32_t id = 0; id < 20; id++) {
            st_tsval value;
            const int status = tsval_reader_decode(&reader, id, &value, true, 0, &rc);
            ASSERT_EQ(status, nbits > 32 ? WARM_RC_CORRUPT : 0) << "no width above 32 is possible";
            if (status != 0) continue;
            EXPECT_TRUE(value.s == (id * 0x9E3779B1 & mask) && value.h == value.s) << id;
        }
        // An array that ends before its last entry, and one that is present but empty.
        st_tsval value;
        if (nbits == 0 || nbits > 32) continue;
        reader.h.bytes = whole.first(whole.size() - 1);
        EXPECT_EQ(tsval_reader_decode(&reader, 19, &value, true, 0, &rc), WARM_RC_CORRUPT);
        reader.s.bytes = reader.h.bytes = whole.first(0);
        ASSERT_EQ(tsval_reader_decode(&reader, 19, &value, true, 0, &rc), 0);
        EXPECT_TRUE(value.s == 0 && value.h == 0 && value.st == UINT32_MAX && value.measure == 0);
    }
    tsval_reader_t reader;
    // The bits of so many packed values wrap, and the section holds but two of them.
    st_warm_slice_body wrapped = make_header("_TSIDX9", WARM_FLAG_VALUES_PACKED, 0x08000001);
    wrapped.latest.set(0xFFFFFFFF);
    ASSERT_EQ(tsval_reader_open_partial(&reader, -1, &wrapped, 0, nullptr, values, &rc), 0);
    for (const uint32_t id : {2u, 0x08000000u}) {
        st_tsval value;
        EXPECT_EQ(tsval_reader_decode(&reader, id, &value, true, 0, &rc), WARM_RC_CAPACITY);
    }
    ASSERT_EQ(tsval_reader_open_partial(&reader, -1, &header, 0, nullptr, values, &rc), 0);
    const uint8_t deleted[] = {0x02, 0, 0};
    st_tsval value;
    reader.d = {{deleted, 3}, 2};
    EXPECT_EQ(tsval_reader_decode(&reader, 2, &value, true, 0, &rc), WARM_RC_CORRUPT);
    reader.d = {};
    const double doubles[] = {0.5, -1e300};
    reader.m = {{reinterpret_cast<const uint8_t*>(doubles), 16}, 64};
    EXPECT_EQ(tsval_reader_decode(&reader, 1, &value, true, 0, &rc), 0);
    EXPECT_EQ(value.measure, -1e300);
    EXPECT_EQ(tsval_reader_decode(&reader, 2, &value, true, 0, &rc), WARM_RC_CORRUPT);
}

TEST(Tsval, PlainCacheReadsWhatItIsToldTo) {
    temp_dir dir;
    const unique_fd fd = open_file(dir.file("v"), std::string(128 + 8 * 100, 'v'));
    st_warm_slice_body header = make_header("_TSIDX9", 0, 200);  // half of the values are missing
    tsval_reader_t reader;
    warm_rc_t rc;
    st_tsval value;
    EXPECT_EQ(tsval_reader_open_partial(&reader, fd.get(), &header, 7, nullptr, nullptr, &rc),
              WARM_RC_INVALID_ARGUMENT);
    ASSERT_EQ(tsval_reader_open_partial(&reader, fd.get(), &header, 0, nullptr, nullptr, &rc), 0);
    EXPECT_EQ(tsval_reader_decode(&reader, 0, &value, false, 0, &rc), WARM_RC_UNSUPPORTED);
    tsval_reader_close(&reader);

    st_query_info_t stats;
    ASSERT_EQ(tsval_reader_open_partial(&reader, fd.get(), &header, 80, &stats, nullptr, &rc), 0);
    const struct {
        uint32_t id;
        bool cache_only;
        uint32_t hint;
        int status;
        uint64_t bytes_read;
    } steps[] = {
        {5, true, 0, WARM_RC_UNSUPPORTED, 0},  // nothing is cached
        {5, false, 0, 0, 80},                  // 5 to 14
        {14, true, 0, 0, 0},
        {15, true, 0, WARM_RC_NOT_FOUND, 0},
        {30, false, 40, 0, 8},   // the hint lies outside what would be read
        {31, false, 40, 0, 80},  // inside
        {95, false, 0, WARM_RC_SHORT_READ, 40},
        {31, true, 0, WARM_RC_UNSUPPORTED, 0},  // a failed read empties the cache
        {150, false, 0, WARM_RC_END_OF_FILE, 0},
    };
    for (const auto& step : steps) {
        stats.bytes = 0;
        EXPECT_EQ(tsval_reader_decode(&reader, step.id, &value, step.cache_only, step.hint, &rc), step.status)
            << step.id;
        EXPECT_EQ(stats.bytes, step.bytes_read) << step.id;
    }
    tsval_reader_close(&reader);
}

TEST(Tsval, SubsecondsAndMeasures) {
    const std::pair<uint64_t, uint32_t> subseconds[] = {{0, 0},  {1, 0},  {8, 0},   {11, 500}, {22, 50},
                                                        {44, 5}, {88, 0}, {3, 100}, {19, 900}, {1999, 999}};
    for (const auto& [encoded, milliseconds] : subseconds) {
        EXPECT_EQ(tsval_decode_subsecond_to_millisecond(encoded), milliseconds) << encoded;
    }
    EXPECT_EQ(tsval_decode_subsecond_to_millisecond(2 * 123456 + 1), 123u);
    EXPECT_EQ(tsval_decode_subsecond_to_millisecond(uint64_t{1} << 63), 0u);
    EXPECT_EQ(tsval_decode_subsecond_to_millisecond(~uint64_t{0}), 922u);
    EXPECT_EQ(tsval_decode_subsecond_to_millisecond(~uint64_t{1}), 46u);
    const std::pair<double, uint32_t> measures[] = {{0, 0},
                                                    {-1, 0},
                                                    {NAN, 0},
                                                    {0.99, 0},
                                                    {41.9, 41},
                                                    {1e9, 1000000000},
                                                    {2147483646.5, 2147483646},
                                                    {2147483647, 2147483647},
                                                    {4e9, 2147483647},
                                                    {HUGE_VAL, 2147483647}};
    for (const auto& [measure, whole] : measures) EXPECT_EQ(tsval_clamp_measure(measure), whole) << measure;
}

}  // namespace veldar
