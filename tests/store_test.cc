// Source maps, access points into compressed files, and the cutting of logs into records.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "libzero/endian.h"
#include "tests/support/faults.h"
#include "tests/support/packing.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/load/put_line.h"
#include "tools/libveldar/store/packed_stream.h"
#include "tools/libveldar/store/raw_reader.h"
#include "tools/libveldar/store/record_reader.h"
#include "tools/libveldar/store/source_map.h"
#include "tools/libveldar/store/troubles.h"
#include "tools/libveldar/store/visible_text.h"

namespace veldar {

using namespace tool;
namespace {

source_file example_file(uint32_t number, const std::string& path) {
    source_file file;
    file.number = number;
    file.kind = SOURCE_PACKED;
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
    file.records = "\nlines";
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
        source_map_put_tail(&map, {1, 800, 300, 42, 7});
    }
    {
        source_map map = open_map(path, true);
        source_map_put_file(&map, example_file(2, "/b"));
        source_map_put_stretch(&map, {300, 2, 0, SOURCE_NO_LIMIT, 1});
        source_map_put_forgotten(&map, 2, true);
        source_map_put_file(&map, example_file(1, "/a.1"));
    }
    const source_map map = open_map(path, false);
    ASSERT_EQ(map.files.size(), 2u);
    const source_file& file = map.files.at(1);
    const source_file want = example_file(1, "/a.1");
    EXPECT_EQ(std::tie(file.kind, file.crlf, file.device, file.inode, file.size, file.modified_ns, file.head_size,
                       file.head_hash, file.source, file.sourcetype, file.host, file.path, file.format, file.records),
              std::tie(want.kind, want.crlf, want.device, want.inode, want.size, want.modified_ns, want.head_size,
                       want.head_hash, want.source, want.sourcetype, want.host, want.path, want.format, want.records));
    EXPECT_EQ(map.frontier, 300u);
    EXPECT_EQ(map.stretches[1].cut, 1u);
    EXPECT_TRUE(map.forgotten.at(2));
    ASSERT_EQ(map.tails.size(), 1u);
    EXPECT_EQ(map.tails[0].hash, 42u);
    EXPECT_EQ(map.tails[0].whole, 7u);
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

std::string read_packed(packed_stream* packed, size_t size, std::string* error) {
    std::string out(size, '\0');
    size_t have = 0;
    int64_t got = 1;
    while (have < size && (got = packed_read(packed, out.data() + have, size - have, error)) > 0) {
        have += static_cast<size_t>(got);
    }
    out.resize(have);
    return out;
}

struct packed_reader {
    packed_reader(const std::string& path, uint64_t span, packed_format_t format = PACKED_GZIP)
        : fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        packed.span = span;
        EXPECT_EQ(packed_format_of(read_file(path).substr(0, PACKED_MAGIC_MAX)), format);
        EXPECT_TRUE(packed_open(&packed, format, fd.get(), true, "", &error)) << error;
    }
    unique_fd fd;
    packed_stream packed;
    std::string error;
};

TEST(PackedStream, ReadsTheSameFromEveryPlace) {
    const temp_dir dir;
    const std::string text = random_text(2000000);
    for (const packing& way : PACKINGS) {
        const std::string path = dir.file("log"), points = dir.file("points");
        write_file(path, way.pack(text.substr(0, 1100000)) + way.pack("") + way.pack(text.substr(1100000)) +
                             std::string(512, '\0') + (way.format == PACKED_BZIP2 ? "\1" : "\xFE") + "left over");
        {
            packed_reader first(path, 200000, way.format);
            ASSERT_EQ(read_packed(&first.packed, text.size() + 1, &first.error) == text, true) << first.error;
            EXPECT_GE(first.packed.points.size(), 6u);
            ASSERT_TRUE(packed_save_points(first.packed, points));
        }
        packed_reader reader(path, 200000, way.format);
        packed_load_points(&reader.packed, points);
        EXPECT_GE(reader.packed.points.size(), 6u);
        std::mt19937_64 rng(3);
        for (int i = 0; i < 30; i++) {
            const uint64_t offset = i == 0 ? text.size() : rng() % text.size();
            const size_t size = rng() % 300000;
            EXPECT_LT(offset - packed_point_before(reader.packed, offset), 500000u);
            ASSERT_TRUE(packed_seek(&reader.packed, offset, &reader.error)) << reader.error;
            ASSERT_EQ(read_packed(&reader.packed, size, &reader.error) == text.substr(offset, size), true)
                << way.format << " " << offset << reader.error;
        }
        EXPECT_FALSE(packed_seek(&reader.packed, text.size() + 1, &reader.error));
        EXPECT_TRUE(reader.packed.ended);
        const size_t held = ::mallinfo2().uordblks;
        for (int i = 0; i < 100; i++) packed_reader again(path, 200000, way.format);
        EXPECT_LT(::mallinfo2().uordblks, held + 100000);
    }
}

// Each part of a member's end is the first to come with another piece of the file.
TEST(PackedStream, ReadsOnBehindEveryByteOfAnEnd) {
    constexpr size_t PIECE = size_t{1} << 18;
    const temp_dir dir;
    std::string noise(PIECE + 1000, '\0');
    std::mt19937_64 rng(5);
    for (char& c : noise) c = static_cast<char>(rng());
    for (const packing& way : PACKINGS) {
        const size_t extra = way.pack(noise.substr(0, PIECE - 2000)).size() - (PIECE - 2000);
        for (size_t behind = 0; behind <= 48; behind += way.format == PACKED_XZ ? 4 : 3) {
            const std::string text = noise.substr(0, PIECE + behind - extra), two = text + "and more";
            write_file(dir.file("log"), way.pack(text) + way.pack("and more"));
            packed_reader reader(dir.file("log"), PACKED_POINT_SPAN, way.format);
            EXPECT_TRUE(read_packed(&reader.packed, two.size() + 1, &reader.error) == two && reader.error.empty())
                << way.suffix << " " << behind << reader.error;
        }
    }
}

TEST(PackedStream, PointsOfAnotherFileAndDamagedPointsAreNotUsed) {
    const temp_dir dir;
    const std::string path = dir.file("log.gz"), points = dir.file("points");
    const std::string text = random_text(1000000);
    write_file(path, gzip_member(text));
    {
        packed_reader reader(path, 100000);
        read_packed(&reader.packed, text.size(), &reader.error);
        ASSERT_TRUE(packed_save_points(reader.packed, points));
    }
    const std::string bytes = read_file(points);
    // The first point, which is the one to begin at: its head, its window now and then, its checksum.
    const size_t entry_end = 24 + 24 + load_le32(&bytes[24 + 20]) + 8;
    for (size_t at = 0; at < entry_end;
         at += at < 48 || at + 9 > entry_end ? 1 : std::min<size_t>(97, entry_end - 8 - at)) {
        std::string damaged = bytes;
        damaged[at] = static_cast<char>(damaged[at] ^ 1);
        write_file(points, damaged);
        packed_reader reader(path, 100000);
        packed_load_points(&reader.packed, points);
        ASSERT_TRUE(packed_seek(&reader.packed, 190000, &reader.error)) << at << reader.error;
        ASSERT_EQ(read_packed(&reader.packed, 100, &reader.error), text.substr(190000, 100)) << at;
    }
    write_file(points, bytes);
    write_file(path, gzip_member(text + "more\n"));
    packed_reader other(path, 100000);
    packed_load_points(&other.packed, points);
    EXPECT_TRUE(other.packed.points.empty());
    // The same content, and so the same end, in another number of bytes.
    write_file(path, gzip_member(text, 1));
    packed_reader looser(path, 100000);
    packed_load_points(&looser.packed, points);
    EXPECT_TRUE(looser.packed.points.empty());
}

// Whatever is cut off or damaged: all comes, or words follow what came (which only a checksum behind it may tell to be
// wrong), and the same ones when it trickles through a pipe.
TEST(PackedStream, EveryByteCutOffOrDamagedAndEachByItself) {
    const temp_dir dir;
    const std::string text = random_text(60), both = text + text;
    const auto read = [&](packed_format_t format, int fd, bool is_file) {
        packed_stream packed;
        std::string error;
        EXPECT_TRUE(packed_open(&packed, format, fd, is_file, {}, &error)) << error;
        return std::pair(read_packed(&packed, 99 * both.size(), &error), error);
    };
    for (const packing& way : PACKINGS) {
        const std::string member = way.pack(text), whole = member + member;
        for (size_t i = 0; i < 2 * whole.size(); i++) {
            std::string bytes = i % 2 == 0 ? whole.substr(0, i / 2) : whole;
            if (i % 2 != 0) bytes[i / 2] = static_cast<char>(bytes[i / 2] ^ 1 << i / 2 % 8);
            write_file(dir.file("log"), bytes);
            int ends[2];
            ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
            const unique_fd file(::open(dir.file("log").c_str(), O_RDONLY | O_CLOEXEC)), from(ends[0]);
            unique_fd into(ends[1]);
            constexpr int ROOM = 1 << 18;
            ASSERT_EQ(::setsockopt(into.get(), SOL_SOCKET, SO_SNDBUF, &ROOM, sizeof ROOM), 0);
            for (const char& byte : bytes) ASSERT_EQ(::send(into.get(), &byte, 1, MSG_DONTWAIT), 1);
            into.reset();
            const auto [got, error] = read(way.format, file.get(), true);
            const auto [trickled, told] = read(way.format, from.get(), false);
            EXPECT_EQ(told.substr(0, told.find(" byte")), error.substr(0, error.find(" byte"))) << way.suffix << i;
            const bool is_over = got == both || (got == text && i >= 2 * member.size());
            EXPECT_TRUE(error.empty() ? is_over && trickled == got : i % 2 != 0 || both.starts_with(got))
                << way.suffix << i << got << error;
            const bool no_member = i % 2 != 0 && i / 2 % member.size() == 1;  // of two or more bytes that never differ
            EXPECT_FALSE(no_member && error.empty()) << way.suffix << i;
        }
    }
    write_file(dir.file("log"), bzip2_member("").substr(0, 4) + "1AY&SY" + std::string(5 << 20, 'x'));
    const unique_fd endless(::open(dir.file("log").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_NE(read(PACKED_BZIP2, endless.get(), true).second.find("is damaged before"), std::string::npos);
}

// Whatever fails beneath the reading of a log, in whatever form it is stored: what came is right, and words follow when
// that is not all. A signal stops no read.
TEST(LogInput, EveryFailureIsTold) {
    const temp_dir dir;
    std::string text, wide = "\xFF\xFE";
    for (size_t i = 0; text.size() < 200000; i++)
        text += "2024-05-01T10:00:00Z " + std::to_string(i * i * 7919) + std::string(300, 'x') + "\n";
    for (const char c : text) wide.append({c, '\0'});
    const size_t line = text.find('\n', 100000) + 1;
    std::string forms[] = {text, wide, gzip_member(wide), "", "", "", ""};
    std::transform(std::begin(PACKINGS), std::end(PACKINGS), &forms[3], [&](auto& way) { return way.pack(text); });
    for (size_t i = 0; i < std::size(forms); i++) {
        SCOPED_TRACE(i);
        const std::string log = dir.file("log" + std::to_string(i)), store = dir.file("store" + std::to_string(i));
        write_file(log, forms[i]);
        ASSERT_EQ(run_tool("veldar/veldar", {"-s", store, "load", log}).status, 0);
        std::string got, error;
        const auto read_at = [&](log_input* input, uint64_t offset) {
            char bytes[1000];
            for (size_t have = 0; have < sizeof bytes;) {
                if (have == 0 && !log_input_seek(input, offset, &error)) return false;
                const int64_t size = log_input_read(input, bytes, sizeof bytes - have, &error);
                if (size <= 0) return false;
                got.append(bytes, static_cast<size_t>(size));
                have += static_cast<size_t>(size);
            }
            return true;
        };
        const auto read = [&] {
            log_input input;
            if (!log_input_open(&input, log, &error)) return;
            if (input.packed != nullptr) input.packed->span = 30000;
            if (!read_at(&input, 190000) || !read_at(&input, 10) || !read_at(&input, 150000)) return;
            const raw_reader_ptr reader = raw_reader_open(store + "/bucket-000001", &error);
            raw_record record;
            if (reader == nullptr || !raw_reader_fetch(reader.get(), line, &record, &error)) return;
            std::vector<std::string> before, after;
            if (!raw_reader_context(reader.get(), record, 270, 270, &before, &after, &error)) return;
            for (const auto* some : {&before, &after}) {
                for (const std::string& one : *some) got += one + "\n";
            }
            got += record.text;
        };
        read();
        const std::string whole = got;
        ASSERT_TRUE(whole.starts_with(text.substr(190000, 1000) + text.substr(10, 1000) + text.substr(150000, 1000)));
        ASSERT_GT(whole.size(), 150000u) << error;
        for (const auto& [action, why] : {std::pair{fault_action::fail, EIO},
                                          {fault_action::fail, EINTR},
                                          {fault_action::shorten, EIO},
                                          {fault_action::allocation, EIO}}) {
            const std::vector<uint64_t> places = [&, action = action] {
                const fault_step counted(action, ~uint64_t{0});
                read();
                return counted.firsts();
            }();
            const size_t stride = action == fault_action::allocation ? 4 : 1;
            for (size_t nth = i % stride; nth < places.size(); nth += stride) {
                got.clear();
                error.clear();
                bool must_work = action == fault_action::shorten;
                {
                    const fault_step step(action, places[nth], why);
                    try {
                        read();
                    } catch (const std::bad_alloc&) {
                        error = "out of memory";
                    }
                    must_work = must_work || (why == EINTR && step.struck(fault_call::pread));
                }
                EXPECT_TRUE(got == whole || (!error.empty() && whole.starts_with(got) && !must_work))
                    << nth << error << got.size();
            }
        }
    }
}

TEST(RawReader, RotationsOfALogAreKnownByTheirNames) {
    for (const char* name :
         {"a.log.1", "a.log.old", "a.log-20240501", "a.log.2.gz", "a.log-20240501.1.xz", "a.log.1.2"}) {
        EXPECT_TRUE(is_rotation_of("a.log", name)) << name;
    }
    for (const char* name :
         {"b.log.1", "a.log.new", "a.log1", "a.log.old.1", "a.log.x.1", "a.lo", "a.log-", "xa.log.1"}) {
        EXPECT_FALSE(is_rotation_of("a.log", name)) << name;
    }
}

// Of what ends within a character no byte behind its end is looked at.
TEST(VisibleText, OnlyWholeCharactersAreTakenAsTheyStand) {
    const std::pair<const char*, size_t> rows[] = {
        {"a", 1},    {"\xC3\xA9", 2},    {"\xE2\x82\xAC", 3}, {"\xF0\x9F\x98\x80", 4},
        {"\xC3", 0}, {"\xE2\x82", 0},    {"\xE2\x82z", 0},    {"\xC3z", 0},
        {"\x80", 0}, {"\xC0\xAF", 0},    {"\xED\xA0\x80", 0}, {"\xF4\x90\x80\x80", 0},
        {"\xFF", 0}, {"\xE0\x9F\xBF", 0}};
    for (const auto& [text, length] : rows) {
        EXPECT_EQ(utf8_length(std::string_view(text)), length) << text;
        EXPECT_EQ(utf8_length(std::string(text) + "z"), length) << text;
    }
    std::string out;
    put_visible(&out, "a\r\nb\rc\x1B\xC2\x85\xC3\x85\x7F\t\xFF");
    EXPECT_EQ(out, "a\nb^Mc^[\\x85\xC3\x85^?\t\xFF");
}

// The records of `text` by the rule alone.
std::vector<std::string> records_of(const record_cut& cut, const std::string& all) {
    std::vector<std::string> records;
    for (std::string_view text = all; !text.empty();) {
        const size_t size = record_length(cut, text, true);
        const uint64_t offset = all.size() - text.size();
        records.emplace_back(record_content(cut, text.substr(0, size), offset).substr(0, RECORD_MAX));
        text.remove_prefix(size);
    }
    return records;
}

TEST(Records, LinesAndTheirContinuations) {
    using list = std::vector<std::string>;
    const record_cut cut;
    EXPECT_EQ(records_of(cut, "a\nb\r\nc"), (list{"a", "b", "c"}));
    EXPECT_EQ(records_of(cut, " at\na\n b\n\tc\n\nd\r\n\r\ne\n"), (list{" at", "a\n b\n\tc\n", "d\r\n", "e"}));
    EXPECT_EQ(records_of(cut, "\n\n"), list{"\n"});
    EXPECT_EQ(records_of(record_cut_from_text("objects"), "\n a\n{\"b\":1}\n"), (list{"", " a", "{\"b\":1}"}));
    const record_cut times = record_cut_from_text("times 0 %Y-%m-%d%t%T");
    std::string lines;
    for (size_t i = 1; i < RECORD_LINES_MAX; i++) lines += "x\n";
    EXPECT_EQ(record_length(times, lines + std::string(300, 'x'), false), 0u) << "its last line has not ended";
    EXPECT_EQ(record_length(times, lines + "x\nx\n", false), lines.size() + 2);
    EXPECT_EQ(record_length(cut, "a\n", false), 0u) << "the next line may continue this one";
    EXPECT_EQ(record_length(cut, "a\n\r", false), 0u);
    EXPECT_EQ(record_length(cut, "a\nb", false), 2u);
    const std::string half(RECORD_MAX / 2, 'x');
    EXPECT_EQ(record_length(cut, "a\n " + half + "\n " + half + "\n", true), half.size() + 4) << "within 1 MiB";
    EXPECT_EQ(record_length(cut, half + half + half + "\n b\n", true), 3 * half.size() + 1);
    std::string rules;
    for (const char* text : {"times 0 %Y-%m-%d%t%T", "objects", "", "quotes", "lines", "journal"}) {
        const record_cut rule = record_cut_from_text(text);
        const uint32_t line = record_cut_add(&rules, rule);
        EXPECT_EQ(record_cut_add(&rules, rule), line);
        EXPECT_EQ(record_cut_text(record_cut_of(rules, line)), text);
    }
    EXPECT_EQ(record_cut_text(record_cut_of(rules, 99)), "");
}

TEST(Troubles, TheFirstTwentyAreSaidOnceEach) {
    troubles list;
    std::string said;
    const observer hears = {.context = &said, .say = [](void* to, notice_t, const std::string& message) {
                                *static_cast<std::string*>(to) += message + "\n";
                            }};
    const observer_scope observed(&hears);
    for (int i = 0; i < 60; i++) troubles_add(&list, std::to_string(i / 2));
    EXPECT_TRUE(said.ends_with("\n19\nfurther messages are left out\n")) << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 21);
}

// Whatever pieces the input comes in, the reader cuts as the rule does, which finds each record's end as soon as the
// bytes at hand tell it and never another one.
TEST(Records, TheReaderCutsAsTheRuleDoes) {
    const temp_dir dir;
    std::mt19937_64 rng(17);
    for (const char* rule : {"", "times 0 %Y-%m-%d%t%T", "objects", "quotes", "lines", "journal"}) {
        std::string text;
        for (int i = 0; i < 300; i++) {
            const size_t lengths[] = {0, 1, 30, 30, 30, RECORD_MAX / 5, RECORD_MAX - 2, 3 * RECORD_MAX};
            const char* const starts[] = {
                "",       "",   " ", "\t", "\r",        "2024-05-01 10:00:00 ", "{\"a\":[\n{}],",   "\"b\":\"",
                "\"c\"}", "{}", "[", "],", "__CURSOR=", "\"a\n\"\"b\",\"",      "{\"Records\":[{}", "{\"Records\": [ "};
            text += starts[rng() % std::size(starts)] + std::string(lengths[rng() % (i % 20 == 0 ? 8 : 5)], 'y') + "\n";
        }
        write_file(dir.file("log"), text);
        log_input input;
        record_reader reader;
        reader.cut = record_cut_from_text(rule);
        std::string error;
        ASSERT_TRUE(log_input_open(&input, dir.file("log"), &error)) << error;
        record_reader_open(&reader, &input, text.size());
        std::vector<std::string> got;
        uint64_t offset, before = 0;
        std::string_view record;
        while (record_reader_next(&reader, &offset, &record)) {
            got.emplace_back(record);
            for (uint64_t have = 0; have <= offset - before + 1;
                 have += offset - before < 400 ? 1 : (offset - before) / 2) {
                const size_t found = record_length(reader.cut, std::string_view(text).substr(before, have), false);
                ASSERT_TRUE(offset == 0 || found == 0 || found == offset - before) << rule << " " << before;
            }
            before = offset;
        }
        EXPECT_EQ(reader.offset, text.size());
        EXPECT_EQ(got == records_of(reader.cut, text), true) << rule;
    }
}

TEST(PutLine, Fields) {
    put_event event;
    std::string line = "-5.25\t4294967295\t4294967295\t2\t3\t1.5e3\ta%20b  c%25\r";
    ASSERT_EQ(put_line_parse({line.data(), line.size()}, &event), nullptr);
    EXPECT_EQ(event.txn.time, -6) << "the fraction counts on from the second";
    EXPECT_EQ(event.txn.subsecond, 151u) << "(2 * 75 + 1) << 0";
    EXPECT_EQ(event.txn.address, 4294967295u);
    EXPECT_EQ(event.txn.seek_address, 1500.0);
    EXPECT_EQ(event.terms, (std::vector<std::string_view>{"a b", "c%"}));
    std::string cut = "0\t0\t0\t0\t0\t0\ta%25%4f", zero = "0\t0\t0\t0\t0\t0\ta b";
    zero[zero.size() - 2] = '\0';
    EXPECT_NE(put_line_parse({cut.data(), cut.size() - 1}, &event), nullptr) << "which goes on behind its end";
    EXPECT_STREQ(put_line_parse({zero.data(), zero.size()}, &event), "a term holds a NUL byte");
    EXPECT_TRUE(encode_subsecond(0) == 0 && encode_subsecond(500000000) == 11 && encode_subsecond(50000000) == 22);
    EXPECT_EQ(encode_subsecond(123456000), 2u * 123456 + 1);
}

}  // namespace
}  // namespace veldar
