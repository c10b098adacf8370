// What checks slices and shows what is inside, and that every command tells its failures.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>

#include "searchthing/base/st_init.h"
#include "searchthing/directory/tsidx.h"
#include "tests/support/damage.h"
#include "tests/support/faults.h"
#include "tests/support/file_log.h"
#include "tests/support/forge.h"
#include "tests/support/forge_metric.h"
#include "tests/support/fsck.h"
#include "tests/support/hot_events.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/load/merging.h"
#include "tools/libveldar/query/slice_events.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/observer.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/terminal_observer.h"

namespace veldar {

using namespace tool;
namespace {

const std::string TOOL = "veldar/veldar";

// Without a file, which the file system would make slow. The name counts.
std::string fsck_bytes(const std::string& bytes, const std::string& name) {
    slice_image image;
    slice_image_from_bytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, name, &image);
    return fsck_findings(image);
}

TEST(Fsck, EveryFlippedBitOfMetricSectionsIsFound) {
    const temp_dir dir;
    for (const bool milliseconds : {false, true}) {
        forge_metric_options options;
        options.milliseconds = milliseconds;
        options.store = milliseconds ? 2 : 1;
        const std::string path =
            forge_metric_file(dir.path(), forge_random_metrics(milliseconds, 60), options, milliseconds);
        EXPECT_EQ(fsck_findings(path), "");
        slice_image image;
        std::string error, bytes;
        ASSERT_EQ(slice_image_open(path, &image, &error), IMAGE_OPEN);
        ASSERT_TRUE(disk_read_file(path, &bytes));
        const uint64_t in_footer = image.sections[IN_CSTORE].offset + image.header.cstore_ref.get() + 15;
        EXPECT_NE(fsck_bytes(bytes.substr(0, in_footer), path).find("cannot be placed"), std::string::npos);
        for (const auto& [field, later, said] :
             {std::tuple(offsetof(st_warm_slice_body, earliest), 1u, "time outside the header's"),
              {offsetof(st_warm_slice_body, latest), ~uint32_t{0}, "time outside the header's"},
              {offsetof(st_warm_slice_body, latest), 1u, "latest is not that of the values"}}) {
            std::string bad = bytes;
            auto* const at = reinterpret_cast<uint8_t*>(bad.data() + field);
            store_be32(at, load_be32(at) + later);
            EXPECT_NE(fsck_bytes(bad, path).find(said), bad.npos) << field;
        }
        std::string odd = bytes;  // the second run has the values of the first, which has none
        auto* const runs = reinterpret_cast<uint8_t*>(odd.data() + image.sections[IN_VALUES].offset);
        store_le32(runs + 12, load_le32(runs + 12) + load_le32(runs + 4));
        store_le32(runs + 8, load_le32(runs));
        store_le32(runs + 4, 0);
        EXPECT_NE(fsck_bytes(odd, path).find("runs do not follow each other"), odd.npos);
        const unique_fd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
        for (const slice_section_t section : {IN_VALUES, IN_OFFSETS, IN_METADATA, IN_LISTS, IN_DIMSETS, IN_CSTORE}) {
            ASSERT_EQ(image.sections[section].state, SECTION_WHOLE);
            const section_place at = image.sections[section];
            // Of the values those that tell where runs begin: another time may be as good.
            const uint64_t size = section == IN_VALUES ? 8 * image.header.num_dimsets.get() : at.size;
            for (uint64_t byte = at.offset; byte < at.offset + size; byte++) {
                // Not the top bit, which can turn a number into a longer spelling of itself.
                const char flipped = static_cast<char>(bytes[byte] ^ (1 << (byte % 7)));
                ASSERT_TRUE(disk_write_at(fd.get(), {&flipped, 1}, byte));
                const std::string findings = fsck_findings(path);
                EXPECT_NE(findings, "") << slice_section_name(section) << " at " << byte - at.offset;
                if (section == IN_LISTS) {
                    EXPECT_EQ(findings.rfind("\nlists"), findings.npos) << findings;
                    EXPECT_GE(std::stoull(findings.substr(findings.find(" at byte ") + 9)), at.offset) << findings;
                }
                ASSERT_TRUE(disk_write_at(fd.get(), {&bytes[byte], 1}, byte));
            }
        }
    }
}

// A slice whose bytes are known by heart. Values 0 to 20, newest first:
//
//   term      numbers          coded as
//   0 a       all              00 00 14       RLE
//   1 burst   10 to 13, 20     0A 00 03 07    RLE
//   2 burst2  the same                        DEDUP of 1
//   3 solo    7                               SPO
//   4 zed     10 to 13, 20     0A 0F 04       BMAP
//
// Lexicon blocks: 01 "a", 00 05 "burst", 05 "2" and 04 "solo", 00 03 "zed".
struct known_slice {
    std::string bytes;
    forge_picture picture;
};

known_slice make_known(uint64_t wflags = FORGE_TAG2, const std::string& magic = "_TSIDX9") {
    std::vector<forge_event> events;
    for (uint32_t i = 0; i <= 20; i++) {
        const uint32_t number = 20 - i;
        forge_event event{.time = static_cast<int32_t>(1000 + i), .address = 500 + i, .s = 1, .terms = {"a"}};
        const bool burst = (number >= 10 && number <= 13) || number == 20;
        if (burst) event.terms.insert(event.terms.end(), {"burst", "burst2", "zed"});
        if (number == 7) event.terms.push_back("solo");
        events.push_back(event);
    }
    forge_options options;
    options.magic = magic;
    options.wflags = wflags;
    options.tperb = 3;
    options.lists = forge_lists::rle;
    if (wflags & FORGE_TAG2) {
        options.forced = {{"burst", forge_encoding::rle},
                          {"burst2", forge_encoding::dedup},
                          {"solo", forge_encoding::spo},
                          {"zed", forge_encoding::bmap}};
    }
    known_slice slice;
    slice.bytes = forge_slice(events, options, &slice.picture);
    return slice;
}

struct planted {
    const char* section;
    const char* what;  // what fsck must say of it
    std::function<void(known_slice*)> plant;
    uint64_t wflags = FORGE_TAG2;
    const char* magic = "_TSIDX9";
    const char* name = "1020-1000-1.tsidx";
};

void put_be(std::string* bytes, uint64_t at, uint64_t value, uint32_t size) {
    for (uint32_t i = 0; i < size; i++) (*bytes)[at + i] = static_cast<char>(value >> (8 * (size - 1 - i)));
}

enum place_t { HEADER, VALUES, S, D, OFFSETS, METADATA, LEXICON, LISTS, DIMSETS };

uint64_t offset_of(const known_slice& slice, place_t place) {
    const forge_offsets& at = slice.picture.at;
    const uint64_t offsets[] = {0,           at.values,  at.s,        at.d,      at.posting_offsets,
                                at.metadata, at.lexicon, at.postings, at.dimsets};
    return offsets[place];
}

// Sets `size` bytes at an offset of a section to a big-endian number.
std::function<void(known_slice*)> set(place_t place, uint64_t at, uint64_t value, uint32_t size = 1) {
    return [=](known_slice* slice) { put_be(&slice->bytes, offset_of(*slice, place) + at, value, size); };
}

std::function<void(known_slice*)> cut(place_t place, uint64_t at) {
    return [=](known_slice* slice) { slice->bytes.resize(offset_of(*slice, place) + at); };
}

std::function<void(known_slice*)> append(const std::string& bytes) {
    return [=](known_slice* slice) { slice->bytes += bytes; };
}

std::function<void(known_slice*)> both(std::function<void(known_slice*)> a, std::function<void(known_slice*)> b) {
    return [=](known_slice* slice) { a(slice), b(slice); };
}

const std::function<void(known_slice*)> NOTHING = [](known_slice*) {};

const std::vector<planted>& planted_faults() {
    static const std::vector<planted> faults = {
        {"header", "cut off", cut(HEADER, 119)},
        {"header", "unknown magic", set(HEADER, 6, '5')},
        {"header", "d_nbits is not 1", set(HEADER, 56, 2, 4)},
        {"header", "companion wider than 31 bits", set(HEADER, 44, 32, 4)},
        {"header", "size of a companion array", set(HEADER, 32, 4, 4)},
        {"header", "companion array beyond 2^32 bits", both(set(HEADER, 8, 0x80000001, 4), set(HEADER, 44, 2, 4))},
        {"header", "reserved byte is not zero", set(HEADER, 69, 1)},
        {"header", "reserved byte is not zero", set(HEADER, 119, 1)},
        {"header", "unknown flags", set(HEADER, 79, 0x88)},
        {"header", "earliest is after latest", set(HEADER, 60, 1021, 4)},
        {"header", "earliest is not the last value's time", set(HEADER, 60, 999, 4)},
        {"header", "latest is not the first value's time", set(HEADER, 64, 1021, 4)},
        {"header", "smallest address above the largest", set(HEADER, 80, 521, 4)},
        {"header", "more preambles than values", both(set(HEADER, 79, 0x0C), set(HEADER, 96, 22, 4))},
        {"header", "dimension sets in a slice of events", set(HEADER, 96, 1, 4)},
        {"header", "column store in a slice of events", set(HEADER, 95, 1)},
        {"header", "no terms", set(HEADER, 16, 0, 4)},
        {"header", "postings without values", set(HEADER, 8, 0, 4)},
        {"header", "num_postings is not what the lists hold: 36, lists 37", set(HEADER, 12, 36, 4)},
        {"name", "not <latest>-<earliest>-<id>.tsidx", NOTHING, FORGE_TAG2, "_TSIDX9", "1020-1000.tsidx"},
        {"name", "times differ from the header's", NOTHING, FORGE_TAG2, "_TSIDX9", "1021-1000-1.tsidx"},
        {"name", "times differ from the values'", NOTHING, 0, "Veldar6", "1020-999-1.tsidx"},
        {"name", "an ordinary name, but only the values are there", cut(OFFSETS, 0)},
        {"name", "the name of a mini slice", NOTHING, FORGE_TAG2, "_TSIDX9", "1020-1000-1.mini.tsidx"},
        {"values", "values are not newest first: value 3 at 1020 behind 1018", set(VALUES, 24, 1020, 4)},
        {"values", "time outside the header's: value 0: 1021", set(VALUES, 0, 1021, 4)},
        {"values", "address outside the header's: value 20: 499", set(VALUES, 164, 499, 4)},
        {"values", "packed values beyond 2^32 bits", set(HEADER, 8, 0x1999999A, 4), FORGE_TAG2 | FORGE_PACKED},
        {"values", "padding is not zero", set(VALUES, 31, 0x80), FORGE_TAG2 | FORGE_PACKED},
        {"values", "cut off", cut(VALUES, 100)},
        {"s", "padding is not zero", set(S, 2, 0x20)},
        {"s", "byte behind the section is not zero", set(S, 3, 1)},
        {"header", "byte behind the section is not zero", set(HEADER, 120, 1)},
        {"offsets", "the last entry has a type: SPO", set(OFFSETS, 39, 0x2A)},
        {"offsets", "term 3 \"solo\": value number out of range: 21 of 21", set(OFFSETS, 16, 21 * 4 + 2, 8)},
        {"offsets", "term 2 \"burst2\": term number out of range: 5 of 5", set(OFFSETS, 8, 5 * 4 + 3, 8)},
        {"offsets", "term 2 \"burst2\": duplicate of a duplicate: term 2", set(OFFSETS, 8, 2 * 4 + 3, 8)},
        {"offsets", "term 4 \"zed\": offsets do not ascend: 2 behind 3", set(OFFSETS, 24, 2 * 4 + 1, 8)},
        {"offsets", "term 1 \"burst\": offset behind the lists: 11 behind 0, 10", set(OFFSETS, 0, 11 * 4, 8)},
        {"offsets", "cut off", cut(OFFSETS, 39)},
        {"lists", "term 1 \"burst\": number cannot be read: RLE list of 4", set(LISTS, 6, 0x87)},
        {"lists", "term 1 \"burst\": run of no numbers", set(LISTS, 5, 0)},
        {"lists", "term 1 \"burst\": numbers do not ascend", set(LISTS, 4, 0x800007, 3)},
        {"lists", "term 0 \"a\": value number out of range", set(LISTS, 2, 0x15)},
        {"lists", "term 4 \"zed\": number cannot be read: BMAP", set(LISTS, 7, 0xFFFFFF, 3)},
        {"lists", "term 4 \"zed\": bitmap does not begin with its first number", set(LISTS, 8, 0x0E)},
        {"lists", "term 4 \"zed\": bitmap ends with an empty byte", set(LISTS, 9, 0)},
        {"lists", "term 4 \"zed\": value number out of range", set(LISTS, 9, 0x0C)},
        {"lists", "cut off", cut(LISTS, 9)},
        {"metadata", "term 0 \"a\": count: 20, the list has 21", set(METADATA, 0, 0x14)},
        {"metadata", "term 1 \"burst\": earliest time: 1001, the list has 1000", set(METADATA, 2, 0x12)},
        {"metadata", "term 1 \"burst\": latest time: 1011, the list has 1010", set(METADATA, 3, 0x56)},
        {"metadata", "term 0 \"a\": count", set(METADATA, 3, 7), 0, "VelLex1"},
        {"metadata", "padding is not zero", set(METADATA, 15, 1)},
        {"metadata", "cut off", cut(METADATA, 5)},
        {"lexicon", "number of terms differs from the header's: 4, header 5", set(LEXICON, 0, 4, 4)},
        {"lexicon", "one term a block", set(LEXICON, 4, 1, 4)},
        {"lexicon", "too many terms a block", set(LEXICON, 4, 1 << 20, 4)},
        {"lexicon", "cannot be placed", set(LEXICON, 4, 0, 4)},
        {"lexicon", "cut off", cut(LEXICON, 30)},
        {"lexicon", "block ends do not ascend: block 0 from 0 to 0", set(LEXICON, 12, 0, 4)},
        {"lexicon", "block outside the lexicon: block 0 from 0 to 22", set(LEXICON, 12, 22, 4)},
        {"lexicon", "bytes behind the last term of a block: 1 in block 1", set(LEXICON, 16, 22, 4)},
        {"lexicon", "term 1 \"b\\x00rst\": term with a NUL", set(LEXICON, 25, 0)},
        {"lexicon", "term 3 \"aolo\": terms do not ascend: after \"burst2\"", set(LEXICON, 32, 'a')},
        {"lexicon", "term 2 \"burs2\": terms do not ascend", set(LEXICON, 29, 4)},
        {"lexicon", "term 4 \"sed\": shared prefix is not the longest: 0 instead of 1",
         both(set(LEXICON, 38, 's'), set(LEXICON, 33, 'a'))},
        {"lexicon", "term 4: shared prefix out of range", set(LEXICON, 36, 5)},
        {"lexicon", "term 2: shared prefix cannot be read", both(set(LEXICON, 29, 0x8080, 2), NOTHING)},
        {"lexicon", "term 4: length cannot be read", set(LEXICON, 37, 0xFFFFFFFF, 4)},
        {"lexicon", "term 4: term runs out of its block", set(LEXICON, 37, 4)},
        {"reverse lexicon", "number of terms differs",
         [](known_slice* slice) { put_be(&slice->bytes, slice->picture.at.reverse_lexicon, 4, 4); }, 0, "Veldar5"},
        {"rest", "bytes behind the last section", append(std::string("\0\0\1", 3))},
        {"dimension sets", "unknown magic", set(DIMSETS, 7, '1'), FORGE_TAG1, "_MSIDX4"},
        {"dimension sets", "number of sets differs from the header's: 1, header 0",
         both(append(std::string(4, '\0')), set(DIMSETS, 8, 1)), FORGE_TAG1, "_MSIDX4"},
        {"dimension sets", "ends of the sets: set 0: 0 to 0", both(append(std::string(4, '\0')), set(DIMSETS, 8, 1)),
         FORGE_TAG1, "_MSIDX4"},
        {"dimension sets", "the last set ends elsewhere: 0, not 1",
         both(append(std::string(4, '\0')), set(DIMSETS, 12, 1)), FORGE_TAG1, "_MSIDX4"},
        {"dimension sets", "cut off", set(DIMSETS, 12, 1), FORGE_TAG1, "_MSIDX4"},
    };
    return faults;
}

TEST(Fsck, NamesEveryPlantedFault) {
    for (const planted& fault : planted_faults()) {
        known_slice slice = make_known(fault.wflags, fault.magic);
        const std::string before = fsck_bytes(slice.bytes, fault.name);
        ASSERT_TRUE(before.empty() || before.starts_with("name at")) << before;
        fault.plant(&slice);
        const std::string said = fsck_bytes(slice.bytes, fault.name);
        const size_t at = said.find(fault.what);
        ASSERT_NE(at, std::string::npos) << "not told: " << fault.what << "\n" << said;
        const std::string section = fault.section + std::string(" at ");
        EXPECT_EQ(said.substr(said.rfind('\n', at) + 1, section.size()), section) << said;
    }
}

TEST(Fsck, NamesFaultsOfLargeTermsAndLists) {
    forge_options options;
    options.tperb = 2;
    forge_picture picture;
    std::string bytes =
        forge_slice({{.time = 1, .terms = {std::string(2047, 'a'), std::string(2047, 'b')}}}, options, &picture);
    bytes[picture.at.lexicon + 16 + 2049] = 1;  // shares one byte now
    EXPECT_NE(fsck_bytes(bytes, "slice").find(": term too long: 2048 bytes\n"), std::string::npos);

    bytes = forge_slice({{.time = 1, .s = 5, .st = 1, .h = 40, .terms = {"a"}}}, {}, &picture);
    for (const auto& [at, bit] : {std::pair(picture.at.s, 3), {picture.at.st, 1}, {picture.at.h, 6}}) {
        std::string padded = bytes;
        padded[at] = static_cast<char>(padded[at] | 1 << bit);
        EXPECT_NE(fsck_bytes(padded, "slice").find("padding is not zero"), std::string::npos) << bit;
    }

    // Events at one time and address take no bytes, so there can be any number of them.
    options.wflags = FORGE_TAG2 | FORGE_PACKED;
    options.companions = false;
    options.forced = {{"b", forge_encoding::bmap}};
    bytes = forge_slice({{.time = 1, .terms = {"a", "b"}}}, options, &picture);
    put_be(&bytes, 8, (1 << 21) + 70000, 4);
    bytes.resize(picture.at.postings + 1);
    bytes += "\x80\x80\x80\x01" + std::string(8200, '\1');
    put_be(&bytes, picture.at.posting_offsets + 8, (1 + 4 + 8200) * 4, 8);
    EXPECT_NE(fsck_bytes(bytes, "slice").find("term 1 \"b\": bitmap longer than readers follow"), std::string::npos);
}

// Nothing breaks the checker, a file that lost bytes is never clean, and most flipped bytes show somewhere.
TEST(Fsck, SurvivesEveryDamage) {
    const std::vector<forge_event> events = forge_random_events(3, 12);
    damage_outcomes outcomes;
    for (const forge_options& options : forge_all_kinds()) {
        const std::string name = forge_file_name(events, 1);
        EXPECT_EQ(fsck_bytes(forge_slice(events, options), name), "") << options.name();
        uint64_t unseen = 0, flips = 0;
        const damage_options sparse = {.truncation_step = 5, .flip_step = 3, .word_step = 20};
        damage_sweep(forge_slice(events, options), sparse, [&](const std::string& damaged, const std::string& what) {
            const std::string findings = fsck_bytes(damaged, name);
            const bool clean = findings.empty();
            outcomes.add(what, clean, findings);
            EXPECT_FALSE(clean && what.starts_with("cut")) << options.name() << " " << what;
            flips += what.starts_with("all bits") ? 1 : 0;
            unseen += clean && what.starts_with("all bits") ? 1 : 0;
        });
        // Companions, addresses, reverse lexicons and what metrics collapse have no second witness.
        const bool witnessed = !options.metric() && (options.magic > "Veldar5");
        EXPECT_TRUE(!witnessed || unseen * 4 < flips) << options.name() << ": " << unseen << " of " << flips;
    }
    expect_kept("fsck-damage", outcomes.text());
}

TEST(Fsck, ExitStatusTells) {
    const temp_dir dir;
    const std::string path = forge_file(dir.path(), forge_random_events(5, 30), forge_as_created(4));
    const std::string bytes = read_file(path);
    EXPECT_EQ(run_tool(TOOL, {"fsck", dir.path()}).out, "1 slices checked, no faults; 1 without a seal\n");
    const damage_options sparse = {.truncation_step = 211, .flip_step = 301, .word_step = 404};
    damage_sweep(bytes, sparse, [&](const std::string& damaged, const std::string& what) {
        write_file(path, damaged);
        const tool_result fsck = run_tool(TOOL, {"-s", dir.path(), "fsck", "--max", "1"});
        const bool told = fsck.out.find(path + ": ") == 0;
        EXPECT_TRUE(fsck.status == (told ? 4 : 0)) << what << " status " << fsck.status << fsck.out << fsck.err;
        const tool_result info = run_tool(TOOL, {"info", path});
        EXPECT_EQ(info.status, fsck.status) << what << info.err;
    });
    EXPECT_EQ(run_tool(TOOL, {"fsck", "--quiet", dir.path()}).out, "");
    {
        slice_image image;
        std::string error;
        const fault broken(fault_call::pread, 1, EIO);
        EXPECT_EQ(slice_image_open(path, &image, &error), IMAGE_UNREADABLE);
        EXPECT_NE(error.find(": cannot be read from byte 0 on: Input/output error"), error.npos) << error;
    }
    ASSERT_EQ(::unlink(path.c_str()), 0);
    ASSERT_EQ(::symlink(path.c_str(), path.c_str()), 0);
    EXPECT_EQ(run_tool(TOOL, {"fsck", dir.path()}).status, 5);
}

// A command of the tool inside of this process.
int run_command(void (*add)(const command&), const std::vector<std::string>& arguments) {
    const command_group group = {nullptr, {&add, 1}};
    return command_line_run({&group, 1}, arguments, "");
}

// When a command has ended, all of it is on the disk: a loss of power takes nothing away and brings nothing back.
TEST(Inspect, WhatIsDoneOutlivesALossOfPower) {
    const lock_optimism optimism;
    st_init("inspect_tool_test");
    const temp_dir dir;
    const std::string store = dir.file("store"), log = dir.file("log"), metrics = dir.file("m"), index = dir.file("i");
    const auto grow = [&](int from, int to) {
        for (int i = from; i < to; i++) {
            std::ofstream(log, std::ios::app) << "2024-01-01T00:00:" << i << "Z n=" << i % 3 << "\n";
            std::ofstream(metrics, std::ios::app) << "up{host=\"a\"} " << i << " " << 100 + i << "\n";
            std::ofstream(index + ".tsv", std::ios::app) << 1000 + i << "\t" << i << "\t1\t1\t1\t0\ta\n";
        }
    };
    const std::pair<void (*)(const command&), std::vector<std::string>> steps[] = {
        {add_load_command, {"load", log, "--no-optimize"}},
        {add_metrics_command, {"metrics", "load", metrics, "--no-optimize"}},
        {add_put_command, {"put", index, index + ".tsv"}},
        {add_load_command, {"load", log, "--no-optimize"}},
        {add_metrics_command, {"metrics", "load", metrics}},
        {add_put_command, {"put", index, index + ".tsv"}},
        {add_delete_command, {"delete", "n=1"}},
        {add_optimize_command, {"optimize", "--all"}},
        {add_retain_command, {"retain", "--older-than", "2024-01-01T00:00:14Z"}},
        {add_seal_command, {"seal", "--anew"}},
        {add_gc_command, {"gc", "--yes"}},
        {add_forget_command, {"forget", log}},
        {add_load_command, {"load", log}},
    };
    int end = 10;
    for (const auto& [add, given] : steps) {
        SCOPED_TRACE(testing::PrintToString(given));
        if (given[0] != "metrics" && given[0] != "put") grow(end, end + 5), end += 5;
        std::vector<std::string> arguments = given;
        if (given[0] != "put") arguments.insert(arguments.end(), {"-s", store});
        file_log calls(dir.path());
        int status = -1;
        testing::internal::CaptureStdout();
        try {
            status = run_command(add, arguments);
        } catch (const failure_t& failure) {
            std::puts(failure.message.c_str());
        }
        calls.stop();
        const std::string said = testing::internal::GetCapturedStdout();
        EXPECT_EQ(status, 0) << said;
        std::map<std::string, std::string> whole;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
            if (entry.is_regular_file()) whole[std::filesystem::relative(entry, dir.path())] = read_file(entry.path());
        }
        for (unsigned seed = 0; seed < 12; seed++) {
            std::mt19937 random(seed);
            auto left = calls.after_power_loss(calls.operations().size(), seed % 2 == 0, &random);
            // Hints are made again, what a writer left is taken away by the next one, and a commit is carried out twice.
            const auto is_needed = [](const std::string& name) {
                const std::string kind = std::filesystem::path(name).extension();
                return name.find(".dat") == name.npos && kind != ".pre-tsidx" && kind != ".lock" &&
                       !name.ends_with("/commit");
            };
            for (const auto& [name, bytes] : whole) {
                EXPECT_TRUE(!is_needed(name) || (left.contains(name) && left[name] == bytes))
                    << name << left.contains(name);
                left.erase(name);
            }
            for (const auto& [name, bytes] : left) EXPECT_FALSE(is_needed(name)) << "came back: " << name;
        }
        testing::internal::CaptureStdout();
        status = run_command(add_fsck_command, {"fsck", store, "--against-source"});
        const std::string told = testing::internal::GetCapturedStdout();
        EXPECT_EQ(status, 0) << told;
        EXPECT_NE(told.find(" 0 differ, 0 cannot be read there"), told.npos) << told;
    }
}

// Between any two file calls the slices are merged: what went is checked in what it went into.
TEST(Fsck, AMergeMeanwhileHidesNothing) {
    st_init("inspect_tool_test");
    for (uint64_t n = 1, calls = 1; n <= calls; n++) {
        const temp_dir dir;
        for (const uint32_t seed : {1u, 2u})
            forge_file(dir.path(), forge_random_events(seed, 9), forge_as_created(4), seed);
        testing::internal::CaptureStdout();
        {
            const fault_step step(n, [&] { merge_directories({dir.path()}, {.everything = true}); });
            EXPECT_EQ(run_command(add_fsck_command, {"fsck", dir.path()}), 0) << n;
            calls = step.calls();
        }
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(out.starts_with(std::to_string(out[0] - '0') + " slices checked, no faults") && out[0] != '0')
            << out;
    }
}

// Whatever a header says, the checker and a query end, and take little memory.
TEST(Fsck, DamagedHeadersCostNothing) {
    st_init("inspect_tool_test");
    const temp_dir dir;
    std::vector<std::string> slices;
    const std::vector<forge_event> events = forge_random_events(3, 12);
    for (const forge_options& options : forge_all_kinds()) slices.push_back(forge_slice(events, options));
    slices.push_back(read_file(forge_metric_file(dir.path(), forge_random_metrics(true, 60), {}, 1)));
    const pid_t child = ::fork();
    if (child == 0) {
#ifndef VELDAR_SANITIZED
        const rlimit limit = {uint64_t{3} << 29, uint64_t{3} << 29};
        ::setrlimit(RLIMIT_AS, &limit);
#endif
        ::alarm(400);  // a loop without an end
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const std::string path = dir.file("100-1-1.tsidx");
        for (size_t kind = 0; kind < slices.size(); kind++) {
            for (uint64_t at = 8; at < 120; at += 4) {
                constexpr uint32_t WORDS[] = {0x7FFFFFFF, 0x06000000, 0xFFFFFFFF};
                std::string damaged = slices[kind];
                put_be(&damaged, at, WORDS[(kind + at / 4) % 3], 4);
                write_file(path, damaged);
                try {
                    fsck_findings(path);
                    run_command(add_explain_command, {"-s", path, "explain", "all"});
                } catch (const std::exception& failure) {
                    ADD_FAILURE() << "kind " << kind << " at " << at << ": " << failure.what();
                }
            }
        }
        testing::internal::GetCapturedStdout();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// Lists turned round in runs of any size give each value its terms.
TEST(Dump, TurnsListsRound) {
    const temp_dir dir;
    const std::vector<forge_event> forged = forge_random_events(11, 60);
    for (const forge_options& options : forge_event_kinds()) {
        const std::string path = forge_file(dir.path(), forged, options);
        const std::vector<forge_event> values = forge_number(forged).values;
        for (const uint64_t budget : {uint64_t{1}, uint64_t{40}, SLICE_EVENTS_BUDGET}) {
            warm_rc_t rc;
            WARM* const warm = st_warm_slice_open_rdonly(path.c_str(), &rc);
            ASSERT_NE(warm, nullptr);
            slice_events events;
            uint32_t seen = 0;
            for (int status = slice_events_open(&events, warm, budget, &rc); status == 0;) {
                status = slice_events_next(&events, &rc);
                if (events.begin == events.end) break;
                for (uint32_t id = events.begin; id < events.end; id++, seen++) {
                    std::vector<std::string> terms;
                    for (const uint32_t term : slice_events_terms(events, id)) {
                        terms.emplace_back(slice_events_term(events, term));
                    }
                    ASSERT_EQ(terms, as_stored({values[id]}).front().terms) << options.name() << " value " << id;
                }
            }
            EXPECT_EQ(rc.warm_rc, 0);
            EXPECT_EQ(seen, values.size());
            slice_events_close(&events);
            st_warm_slice_close(warm);
        }
    }
}

TEST(Dump, PrintsWhatPutReads) {
    const temp_dir dir, copy;
    std::vector<forge_event> events = forge_random_events(4, 200);
    events[3].terms.push_back("a b%c\t\xFF");
    forge_file(dir.path(), events, forge_as_created(4));
    const tool_result dumped = run_tool(TOOL, {"dump", "--format", "tsv", "--deleted", dir.path()});
    ASSERT_EQ(dumped.status, 0) << dumped.err;
    write_file(copy.file("events"), dumped.out);
    ASSERT_EQ(run_tool(TOOL, {"put", copy.path(), copy.file("events"), "--level", "3"}).status, 0);
    EXPECT_EQ(read_created_slices(copy.path()), as_stored(events));
    const tool_result kept = run_tool(TOOL, {"dump", "--format", "tsv", dir.path()});
    EXPECT_LT(kept.out.size(), dumped.out.size());
    EXPECT_EQ(kept.out.find("\t4294967295\t"), std::string::npos);
}

}  // namespace
}  // namespace veldar
