// Source maps, access points into gzip files, and the cutting of logs into records.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>
#include <zlib.h>

#include <random>

#include "libzero/endian.h"
#include "tests/support/temp_dir.h"
#include "tools/veldar/load/put_line.h"
#include "tools/veldar/store/gz_stream.h"
#include "tools/veldar/store/record_reader.h"
#include "tools/veldar/store/source_map.h"

namespace veldar {

using namespace tool;
namespace {

source_file example_file(uint32_t number, const std::string& path) {
    source_file file;
    file.number = number;
    file.kind = SOURCE_GZIP;
    file.crlf = true;
    file.device = 7;
    file.inode = uint64_t{1} << 40;
    file.size = 123456789012;
    file.modified_ns = 1700000000123456789;
    file.head_size = 4096;
    file.head_hash = 0xFEDCBA9876543210;
    file.source = 1;
    file.sourcetype = 2;
    file.host = 3;
    file.path = path;
    file.format = "access";
    return file;
}

source_map open_map(const std::string& path, bool writable, bool expected = true) {
    source_map map;
    std::string error;
    EXPECT_EQ(source_map_open(&map, path, writable, &error), expected) << error;
    EXPECT_EQ(error.empty(), expected);
    return map;
}

TEST(SourceMap, ReadsBackWhatWasAppended) {
    const temp_dir dir;
    const std::string path = dir.file("source.map");
    {
        source_map map = open_map(path, true);
        source_map_put_file(&map, example_file(1, "/a"));
        source_map_put_stretch(&map, {0, 1, 500, 900});
        source_map_put_mark(&map, 300);
        source_map_put_tail(&map, {1, 800, 300, 42});
    }
    {
        source_map map = open_map(path, true);
        source_map_put_file(&map, example_file(2, "/b"));
        source_map_put_stretch(&map, {300, 2, 0, SOURCE_NO_LIMIT});
        source_map_put_file(&map, example_file(1, "/a.1"));
    }
    const source_map map = open_map(path, false);
    ASSERT_EQ(map.files.size(), 2u);
    const source_file& file = map.files.at(1);
    const source_file want = example_file(1, "/a.1");
    EXPECT_EQ(std::tie(file.kind, file.crlf, file.device, file.inode, file.size, file.modified_ns, file.head_size,
                       file.head_hash, file.source, file.sourcetype, file.host, file.path, file.format),
              std::tie(want.kind, want.crlf, want.device, want.inode, want.size, want.modified_ns, want.head_size,
                       want.head_hash, want.source, want.sourcetype, want.host, want.path, want.format));
    EXPECT_EQ(map.frontier, 300u);
    ASSERT_EQ(map.tails.size(), 1u);
    EXPECT_EQ(map.tails[0].hash, 42u);
    EXPECT_EQ(source_map_stretch_end(map, 0), 800u);
    EXPECT_EQ(source_map_stretch_end(map, 1), 0u) << "nothing behind the mark counts as indexed";
}

TEST(SourceMap, ATornAppendIsCutOffAndDamageIsTold) {
    const temp_dir dir;
    const std::string path = dir.file("source.map");
    uint64_t whole;
    {
        source_map map = open_map(path, true);
        source_map_put_file(&map, example_file(1, "/a"));
        source_map_put_stretch(&map, {0, 1, 0, 100});
        whole = map.size;
        source_map_put_mark(&map, 100);
    }
    const std::string bytes = read_file(path);
    for (size_t size = whole; size < bytes.size(); size++) {
        for (const std::string& tail : {std::string(), std::string(40, '\0')}) {
            write_file(path, bytes.substr(0, size) + tail);
            EXPECT_EQ(open_map(path, false).frontier, 0u);
            source_map map = open_map(path, true);
            EXPECT_EQ(map.size, whole);
            source_map_put_mark(&map, 77);
            EXPECT_EQ(open_map(path, false).frontier, 77u) << size;
        }
    }
    for (size_t at = 0; at < whole; at++) {
        std::string damaged = bytes;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x20);
        write_file(path, damaged);
        open_map(path, false, false);
    }
    // Where each fourth byte begins what looks like a record of half a MiB, not all of them are hashed.
    std::string many(size_t{2} << 20, '\0');
    for (size_t at = 2; at < many.size(); at += 4) many[at] = 8;
    write_file(path, many);
    open_map(path, false, false);
}

std::string random_text(size_t size) {
    std::mt19937_64 rng(11);
    std::string text;
    while (text.size() < size) text += "line " + std::to_string(rng() % 1000000) + " of the log\n";
    return text;
}

std::string gzip_member(const std::string& text) {
    z_stream z = {};
    std::string out(compressBound(static_cast<uLong>(text.size())) + 64, '\0');
    EXPECT_EQ(deflateInit2(&z, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    z.avail_in = static_cast<uInt>(text.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

std::string read_gzip(gz_stream* gz, size_t size, std::string* error) {
    std::string out(size, '\0');
    size_t have = 0;
    int64_t got = 1;
    while (have < size && (got = gz_read(gz, out.data() + have, size - have, error)) > 0) {
        have += static_cast<size_t>(got);
    }
    out.resize(have);
    return out;
}

struct gzip_reader {
    gzip_reader(const std::string& path, uint64_t span) : fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        gz.span = span;
        EXPECT_TRUE(gz_open(&gz, fd.get(), true, &error)) << error;
    }
    unique_fd fd;
    gz_stream gz;
    std::string error;
};

TEST(GzStream, ReadsTheSameFromEveryPlace) {
    const temp_dir dir;
    const std::string path = dir.file("log.gz"), points = dir.file("points");
    const std::string text = random_text(3000000);
    write_file(path, gzip_member(text.substr(0, 1900000)) + gzip_member("") + gzip_member(text.substr(1900000)) +
                         std::string(512, '\0'));
    {
        gzip_reader first(path, 200000);
        EXPECT_EQ(read_gzip(&first.gz, text.size() + 1, &first.error), text);
        EXPECT_GE(first.gz.points.size(), 8u);
        ASSERT_TRUE(gz_save_points(first.gz, points));
    }
    gzip_reader reader(path, 200000);
    gz_load_points(&reader.gz, points);
    EXPECT_GE(reader.gz.points.size(), 8u);
    std::mt19937_64 rng(3);
    for (int i = 0; i < 60; i++) {
        const uint64_t offset = i == 0 ? text.size() : rng() % text.size();
        const size_t size = rng() % 300000;
        const uint64_t point = gz_point_before(reader.gz, offset);
        EXPECT_LT(offset - point, 500000u);
        ASSERT_TRUE(gz_seek(&reader.gz, offset, &reader.error)) << reader.error;
        ASSERT_EQ(read_gzip(&reader.gz, size, &reader.error), text.substr(offset, size)) << offset;
    }
    EXPECT_FALSE(gz_seek(&reader.gz, text.size() + 1, &reader.error));
    EXPECT_TRUE(reader.gz.ended);
    const size_t held = ::mallinfo2().uordblks;
    for (int i = 0; i < 100; i++) gzip_reader again(path, 200000);
    EXPECT_LT(::mallinfo2().uordblks, held + 100000);
}

TEST(GzStream, PointsOfAnotherFileAndDamagedPointsAreNotUsed) {
    const temp_dir dir;
    const std::string path = dir.file("log.gz"), points = dir.file("points");
    const std::string text = random_text(1000000);
    write_file(path, gzip_member(text));
    {
        gzip_reader reader(path, 100000);
        read_gzip(&reader.gz, text.size(), &reader.error);
        ASSERT_TRUE(gz_save_points(reader.gz, points));
    }
    const std::string bytes = read_file(points);
    // The first point, which is the one to begin at: its head, its window now and then, its checksum.
    const size_t entry_end = 24 + 24 + load_le32(&bytes[24 + 20]) + 8;
    for (size_t at = 0; at < entry_end;
         at += at < 48 || at + 9 > entry_end ? 1 : std::min<size_t>(97, entry_end - 8 - at)) {
        std::string damaged = bytes;
        damaged[at] = static_cast<char>(damaged[at] ^ 1);
        write_file(points, damaged);
        gzip_reader reader(path, 100000);
        gz_load_points(&reader.gz, points);
        ASSERT_TRUE(gz_seek(&reader.gz, 190000, &reader.error)) << at << reader.error;
        ASSERT_EQ(read_gzip(&reader.gz, 100, &reader.error), text.substr(190000, 100)) << at;
    }
    write_file(points, bytes);
    write_file(path, gzip_member(text + "more\n"));
    gzip_reader other(path, 100000);
    gz_load_points(&other.gz, points);
    EXPECT_TRUE(other.gz.points.empty());
}

TEST(GzStream, DamageIsTold) {
    const temp_dir dir;
    const std::string path = dir.file("log.gz"), text = random_text(100000), packed = gzip_member(text);
    std::string flipped = packed;
    flipped[packed.size() - 6] = static_cast<char>(flipped[packed.size() - 6] ^ 1);  // in the checksum
    for (const std::string& bytes :
         {packed.substr(0, packed.size() / 2), packed.substr(0, packed.size() - 1), flipped}) {
        write_file(path, bytes);
        gzip_reader reader(path, GZ_POINT_SPAN);
        const std::string got = read_gzip(&reader.gz, text.size() + 1, &reader.error);
        EXPECT_EQ(got, text.substr(0, got.size()));
        EXPECT_GT(got.size(), text.size() / 4);
        EXPECT_FALSE(reader.error.empty());
    }
}

// The records of `text` by the rule alone.
std::vector<std::string> records_of(std::string_view text) {
    std::vector<std::string> records;
    while (!text.empty()) {
        const size_t size = record_length(text, true);
        records.emplace_back(record_text(text.substr(0, size)).substr(0, RECORD_MAX));
        text.remove_prefix(size);
    }
    return records;
}

TEST(Records, LinesAndTheirContinuations) {
    using list = std::vector<std::string>;
    EXPECT_EQ(records_of("a\nb\r\nc"), (list{"a", "b", "c"}));
    EXPECT_EQ(records_of(" at\na\n b\n\tc\n\nd\r\n\r\ne\n"), (list{" at", "a\n b\n\tc\n", "d\r\n", "e"}));
    EXPECT_EQ(records_of("\n\n"), list{"\n"});
    EXPECT_EQ(record_length("a\n", false), 0u) << "the next line may continue this one";
    EXPECT_EQ(record_length("a\n\r", false), 0u);
    EXPECT_EQ(record_length("a\nb", false), 2u);
    const std::string half(RECORD_MAX / 2, 'x');
    EXPECT_EQ(record_length("a\n " + half + "\n " + half + "\n", true), half.size() + 4) << "within 1 MiB";
    EXPECT_EQ(record_length(half + half + half + "\n b\n", true), 3 * half.size() + 1);
}

// Whatever pieces the input comes in, the reader cuts as the rule does.
TEST(Records, TheReaderCutsAsTheRuleDoes) {
    const temp_dir dir;
    std::mt19937_64 rng(17);
    std::string text;
    for (int i = 0; i < 300; i++) {
        const size_t lengths[] = {0, 1, 30, 30, 30, RECORD_MAX / 5, RECORD_MAX - 2, 3 * RECORD_MAX};
        const char* const starts[] = {"", "", " ", "\t", "\r"};
        text += starts[rng() % 5] + std::string(lengths[rng() % (i % 20 == 0 ? 8 : 5)], 'y') + "\n";
    }
    write_file(dir.file("log"), text);
    log_input input;
    record_reader reader;
    std::string error;
    ASSERT_TRUE(log_input_open(&input, dir.file("log"), &error)) << error;
    ASSERT_TRUE(record_reader_open(&reader, &input, text.size()));
    std::vector<std::string> got;
    uint64_t offset;
    std::string_view record;
    while (record_reader_next(&reader, &offset, &record)) {
        ASSERT_EQ(text.compare(offset, record.size(), record), 0);
        got.emplace_back(record);
    }
    EXPECT_EQ(reader.offset, text.size());
    EXPECT_EQ(got == records_of(text), true);
}

TEST(PutLine, FieldsAndWhatIsWrong) {
    const auto parse = [](std::string line, put_event* event) {
        return put_line_parse({line.data(), line.size()}, event);
    };
    put_event event;
    std::string line = "-5.25\t4294967295\t4294967295\t2\t3\t1.5e3\ta%20b  c%25\r";
    ASSERT_EQ(put_line_parse({line.data(), line.size()}, &event), nullptr);
    EXPECT_EQ(event.txn.time, -6) << "the fraction counts on from the second";
    EXPECT_EQ(event.txn.subsecond, 151u) << "(2 * 75 + 1) << 0";
    EXPECT_EQ(event.txn.address, 4294967295u);
    EXPECT_EQ(event.txn.seek_address, 1500.0);
    EXPECT_EQ(event.terms, (std::vector<std::string_view>{"a b", "c%"}));
    const char* const bad[] = {"",
                               "1\t2\t3",
                               "x\t1\t1\t1\t1\t1\ta",
                               "1.\t1\t1\t1\t1\t1\ta",
                               "-2147483648.5\t1\t1\t1\t1\t1\ta",
                               "2147483648\t1\t1\t1\t1\t1\ta",
                               "1\t4294967296\t1\t1\t1\t1\ta",
                               "1\t1\t2147483648\t1\t1\t1\ta",
                               "1\t1\t1\t2147483648\t1\t1\ta",
                               "1\t1\t1\t1\t-1\t1\ta",
                               "1\t1\t1\t1\t1\t\ta",
                               "1\t1\t1\t1\t1\t1\t",
                               "1\t1\t1\t1\t1\t1\t  ",
                               "1\t1\t1\t1\t1\t1\ta\tb",
                               "1\t1\t1\t1\t1\t1\ta%2",
                               "1\t1\t1\t1\t1\t1\ta%00b",
                               "1\t1\t1\t1\t1\t1\ta%g0"};
    for (const char* text : bad) EXPECT_NE(parse(text, &event), nullptr) << text;
    EXPECT_EQ(encode_subsecond(0), 0u);
    EXPECT_EQ(encode_subsecond(500000000), 11u);
    EXPECT_EQ(encode_subsecond(50000000), 22u);
    EXPECT_EQ(encode_subsecond(123456000), 2u * 123456 + 1);
}

}  // namespace
}  // namespace veldar
