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
#include <sstream>

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

void put_be(std::string* bytes, uint64_t at, uint64_t value, uint32_t size) {
    for (uint32_t i = 0; i < size; i++) (*bytes)[at + i] = static_cast<char>(value >> (8 * (size - 1 - i)));
}

// What a row plants, one after the other: "set", "cut" or "append", and a section, an offset in it, and a big-endian
// number with its size.
void plant(const std::string& acts, known_slice* slice) {
    const forge_offsets& at = slice->picture.at;
    std::map<std::string, uint64_t> places = {{"header", 0},
                                              {"values", at.values},
                                              {"s", at.s},
                                              {"d", at.d},
                                              {"offsets", at.posting_offsets},
                                              {"metadata", at.metadata},
                                              {"lexicon", at.lexicon},
                                              {"lists", at.postings},
                                              {"dimsets", at.dimsets},
                                              {"reverse", at.reverse_lexicon}};
    std::istringstream words(acts);
    uint64_t offset = 0, value = 0;
    uint32_t size = 0;
    for (std::string act, place; words >> act >> place >> offset >> value >> size;) {
        const uint64_t begin = act == "append" ? slice->bytes.size() : places.at(place) + offset;
        if (act != "set") slice->bytes.resize(begin + size);
        put_be(&slice->bytes, begin, value, size);
    }
}

// Rows: the section, what must be said of it, what is planted, the flags, the magic, and the file's name.
TEST(Fsck, NamesEveryPlantedFault) {
    const std::map<std::string, uint64_t> flags = {
        {"none", 0}, {"tag1", FORGE_TAG1}, {"tag2", FORGE_TAG2}, {"packed", FORGE_TAG2 | FORGE_PACKED}};
    for (const std::string& row : data_rows("fsck")) {
        std::string fields[6];
        std::istringstream text(row);
        for (std::string& field : fields) std::getline(text, field, '|');
        const auto& [section, what, acts, wflags, magic, name] = fields;
        known_slice slice = make_known(flags.at(wflags), magic);
        const std::string before = fsck_bytes(slice.bytes, name);
        ASSERT_TRUE(before.empty() || before.starts_with("name at")) << before;
        plant(acts, &slice);
        const std::string said = fsck_bytes(slice.bytes, name);
        const size_t at = said.find(what);
        ASSERT_NE(at, std::string::npos) << "not told: " << what << "\n" << said;
        EXPECT_EQ(said.substr(said.rfind('\n', at) + 1, section.size() + 4), section + " at ") << said;
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
