// Merges of forged slices against the events that went into them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <xxhash.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <tuple>

#include "searchthing/merge/merge_encode.h"
#include "searchthing/slice/warmslice_lists.h"
#include "searchthing/slice/warmslice_values.h"
#include "tests/support/damage.h"
#include "tests/support/faults.h"
#include "tests/support/forge.h"
#include "tests/support/fsck.h"
#include "tests/support/hot_events.h"
#include "tests/support/sampled.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

using event_list = std::vector<forge_event>;

using record_key = std::tuple<int32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t>;
record_key key_of(const forge_event& e) {
    return {e.time, e.address, e.measure, e.deleted ? ST_DELETED_SOURCE : e.s, e.st, e.h};
}

// The events of a merge: equal records have become one with the terms of all, in the target's order.
event_list united(const event_list& events) {
    std::map<record_key, forge_event, std::greater<>> by_record;
    for (const forge_event& event : events) {
        forge_event& one = by_record.try_emplace(key_of(event), event).first->second;
        one.terms.insert(one.terms.end(), event.terms.begin(), event.terms.end());
    }
    event_list out;
    for (auto& [key, event] : by_record) {
        std::sort(event.terms.begin(), event.terms.end());
        event.terms.erase(std::unique(event.terms.begin(), event.terms.end()), event.terms.end());
        out.push_back(std::move(event));
    }
    return out;
}

void expect_events(const event_list& found, const event_list& expected) {
    ASSERT_EQ(found.size(), expected.size());
    for (size_t i = 0; i < found.size(); i++) {
        ASSERT_EQ(key_of(found[i]), key_of(expected[i])) << "value " << i;
        ASSERT_EQ(found[i].terms, expected[i].terms) << "value " << i;
    }
}

struct test_source {
    std::string path;
    event_list events;
};

warm_merge_options_t options_of(uint32_t level, uint32_t advanced = 1) {
    warm_merge_options_t options;
    st_tsidx_write_opts_init(&options.write_options, level, 1500, advanced, 1024);
    return options;
}

merge_ptr open_merge(const std::vector<test_source>& sources, const warm_merge_options_t& options, warm_rc_t* rc) {
    std::vector<const char*> paths;
    {
        const fault_truce truce;
        for (const test_source& source : sources) paths.push_back(source.path.c_str());
    }
    return merge_ptr(st_warm_slice_merge_open(paths, &options, rc));
}

class MergeTest : public testing::Test {
  protected:
    // Merges and compares the target with the sources' events; what it made.
    test_source merge(const std::vector<test_source>& sources, const warm_merge_options_t& options,
                      const merge_seams_t& seams = {}) {
        warm_rc_t rc;
        const merge_ptr merge = open_merge(sources, options, &rc);
        if (merge == nullptr) {
            ADD_FAILURE() << rc.warm_rc << " " << rc.message;
            return {};
        }
        merge->seams = seams;
        event_list events;
        for (const test_source& source : sources) {
            for (forge_event event : source.events) {
                if (options.mapper != nullptr) event.address = options.mapper(event.address, options.mapper_context);
                events.push_back(event);
            }
        }
        const auto is_deleted = [](const forge_event& event) { return event.deleted; };
        if (options.drop_deleted && !std::all_of(events.begin(), events.end(), is_deleted)) {
            std::erase_if(events, is_deleted);
        }
        test_source target{"", united(events)};
        std::set<std::string> terms = bare;
        for (const forge_event& event : target.events) terms.insert(event.terms.begin(), event.terms.end());
        const warm_merge_totals_t* totals = st_warm_slice_merge_totals(merge.get());
        target.path = dir.file(std::to_string(totals->latest) + "-" + std::to_string(totals->earliest) + "-" +
                               std::to_string(++next_id) + ".tsidx");
        EXPECT_EQ(st_warm_slice_merge_write(merge.get(), target.path.c_str(), false, &rc), 0)
            << rc.warm_rc << " " << rc.message;
        EXPECT_EQ(totals->values, target.events.size());
        EXPECT_EQ(totals->terms, terms.size());
        EXPECT_EQ(totals->target_bytes, std::filesystem::file_size(target.path));
        expect_events(read_slice(target.path, &kinds), target.events);
        EXPECT_EQ(fsck_findings(target.path), "");
        const warm_ptr warm(st_warm_slice_open_rdonly(target.path.c_str(), &rc));
        narrow += seams.narrow_entry_max > 2000 && warm_header_is_enabled(warm->body, WARM_FLAG_PLO32);
        EXPECT_LE(warm_header_is_enabled(warm->body, WARM_FLAG_PLO32) ? warm->plo_last : 0, seams.narrow_entry_max);
        const std::string bytes = read_file(target.path);
        made += std::to_string(bytes.size()) + " " + std::to_string(XXH32(bytes.data(), bytes.size(), 0)) + "\n";
        return target;
    }

    test_source forge(const event_list& events, const forge_options& options) {
        return {forge_file(dir.path(), events, options, ++next_id), events};
    }

    const temp_dir dir;
    const no_flushes flushes;
    uint64_t next_id = 0;
    std::set<std::string> bare;  // terms that no event has
    uint32_t kinds = 0;          // of all lists met
    uint32_t narrow = 0;         // targets whose offsets take 4 bytes
    std::string made;            // sizes and digests of all targets
};

// Distributes events over slices: apart in time, or mixed; some into two slices, some with another companion or with
// other terms there.
std::vector<event_list> spread(const event_list& events, uint32_t slices, std::mt19937_64* random) {
    event_list sorted = united(events);
    std::vector<event_list> out(slices);
    if ((*random)() % 2 == 0) sorted[0].terms.insert(sorted[0].terms.begin(), "!first term, in one event");
    const uint64_t mixing = (*random)() % 3;  // 0: apart, 1: a little, 2: fully
    const auto below = [&](uint64_t limit) { return (*random)() % limit; };
    for (size_t i = 0; i < sorted.size(); i++) {
        uint64_t slice = i * slices / sorted.size();
        if (mixing == 2 || (mixing == 1 && below(8) == 0)) slice = below(slices);
        out[slice].push_back(sorted[i]);
        if (below(12) != 0) continue;
        forge_event again = sorted[i];
        if (below(2) == 0) again.terms = {"again", "all"};
        if (below(3) == 0) again.h++;
        out[below(slices)].push_back(again);
    }
    for (event_list& events_of_slice : out) {
        if (events_of_slice.empty()) events_of_slice.push_back(sorted[0]);
        std::shuffle(events_of_slice.begin(), events_of_slice.end(), *random);
    }
    return out;
}

// Slices of one group may merge with each other.
std::vector<forge_options> kinds_of_group(uint32_t group) {
    std::vector<forge_options> out;
    for (const forge_options& options : forge_event_kinds()) {
        const uint32_t own = options.magic == "VelLex1" ? 3 : options.legacy() ? 0 : options.rev1() ? 2 : 1;
        if (own == group) out.push_back(options);
    }
    return out;
}

uint32_t scrambled_address(uint32_t address, void*) {
    return address * 2654435761u >> (address % 2 == 0 ? 0 : 24);
}

// Every event with its companions and terms, every list, count and time is there after one, two and three rounds.
TEST_F(MergeTest, NothingIsLostOrAdded) {
    for (uint64_t seed = 1; seed <= 40; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937_64 random(seed);
        const uint32_t group = seed % 8 < 5 ? 2 : static_cast<uint32_t>(seed % 4);
        const std::vector<forge_options> kinds_here = kinds_of_group(group);
        const uint32_t slices = seed % 10 == 0 ? 64 : 2 + static_cast<uint32_t>(random() % 9);
        const event_list events =
            forge_random_events(seed, seed % 7 == 0 ? 6000 : 40 + static_cast<uint32_t>(random() % 800));
        std::vector<test_source> sources;
        for (const event_list& part : spread(events, slices, &random)) {
            forge_options options = kinds_here[random() % kinds_here.size()];
            options.seed = seed;
            options.pad_to_8 = random() % 2 == 0;
            sources.push_back(forge(part, options));
        }
        const size_t at_once = seed % 10 == 0 ? 64 : 2 + random() % 4;
        for (bool alone = seed % 2 == 0; sources.size() > 1 || alone;) {
            const uint32_t level = 1 + static_cast<uint32_t>(random() % 4);
            warm_merge_options_t options = options_of(level, random() % 8 != 0);
            options.lexicon_tpb = random() % 2 == 0 ? 0 : 1 + static_cast<uint32_t>(random() % 20);
            if (random() % 8 == 0) options.mapper = scrambled_address;
            options.drop_deleted = sources.size() == 1 || random() % 4 == 0;
            alone = alone && sources.size() > 1;
            if (random() % 4 == 0) options.write_options.merge_buffer_bytes = 0;
            merge_seams_t seams;
            if (random() % 3 == 0) seams.hash_mask = random() % 4;  // nearly all lists collide
            if (random() % 4 == 0) seams.packed_bits_max = 1000;
            if (random() % 2 == 0) seams.lists_in_memory = 0;
            if (random() % 3 == 0) seams.narrow_entry_max = random() % 2 == 0 ? 40 : 2000;
            if (random() % 3 == 0) seams.dense_divisor = random() % 2 == 0 ? 1 : 1000;
            const size_t count = std::min(at_once, sources.size());
            std::vector<test_source> some(sources.begin(), sources.begin() + static_cast<ptrdiff_t>(count));
            sources.erase(sources.begin(), sources.begin() + static_cast<ptrdiff_t>(count));
            sources.push_back(merge(some, options, seams));
            if (HasFailure()) return;
        }
    }
    EXPECT_EQ(kinds, 15u);
    EXPECT_GT(narrow, 10u);
    expect_kept("merges", made);
    // The terms of a source without live events go, be it the first or the last.
    event_list live = forge_random_events(3, 50), dead = live;
    for (size_t i = 0; i < live.size(); i++) {
        live[i].deleted = false;
        dead[i].deleted = true;
        dead[i].terms = {"dead"};
        dead[i].h = 77;
    }
    warm_merge_options_t options = options_of(4, true);
    options.drop_deleted = true;
    const std::vector<test_source> both = {forge(live, forge_as_created(4)), forge(dead, forge_as_created(4))};
    merge(both, options, {});
    merge({both[1], both[0]}, options, {});
    // A list of two pieces, the second of them without live events.
    event_list longer = forge_random_events(5, 4200);
    for (size_t i = 0; i < longer.size(); i++) longer[i].deleted = i < 200;
    merge({forge(longer, forge_as_created(4)), both[0]}, options, {});
    // Such a term's record is looked at, too.
    forge_picture picture;
    forge_options old;
    old.magic = "Veldar4";
    const std::vector<test_source> wrong = {{forge_file(dir.path(), dead, old, ++next_id, &picture), dead},
                                            forge(live, old)};
    std::string bytes = read_file(wrong[0].path);
    bytes[picture.at.metadata + 3]++;
    write_file(wrong[0].path, bytes);
    warm_rc_t rc;
    const merge_ptr refused = open_merge(wrong, options, &rc);
    EXPECT_EQ(st_warm_slice_merge_write(refused.get(), dir.file("wrong").c_str(), false, &rc), WARM_RC_CORRUPT);
}

TEST_F(MergeTest, TermsWithoutEventsAndSlicesWithoutValues) {
    for (const char* magic : {"_TSIDX9", "_TSIDX7"}) {
        forge_options options;
        options.magic = magic;
        options.bare_terms = {"bare", "zzz"};
        bare = {"bare", "zzz"};
        const test_source some = forge(forge_random_events(4, 20), options), none = forge({}, options);
        for (const uint32_t level : {2u, 4u}) {
            merge({some, some}, options_of(level));
            warm_rc_t rc;
            const merge_ptr merge = open_merge({none, none}, options_of(level), &rc);
            const std::string path = dir.file("0-0-1.tsidx");
            ASSERT_EQ(st_warm_slice_merge_write(merge.get(), path.c_str(), false, &rc), 0) << rc.message;
            EXPECT_EQ(fsck_findings(path), "");
            std::filesystem::remove(path);
        }
    }
    expect_kept("merges-bare", made);
}

// The encoding follows the size: the four kinds of lists, and the rule that keeps readers from losing a bitmap's tail.
TEST_F(MergeTest, ListsTakeTheShortestForm) {
    const auto encode = [](const std::vector<uint32_t>& ids, bool bitmap_allowed) {
        warm_rc_t rc;
        merge_encoder_t encoder;
        encoder.num_values = ids.back() + 1;
        merge_encoded_t out;
        merge_list_t list;
        list.count = static_cast<uint32_t>(ids.size());
        list.ids = ids;
        list.first = ids.front();
        list.last = ids.back();
        EXPECT_EQ(merge_encode(&encoder, list, bitmap_allowed, &out, &rc), 0);
        return std::pair(out.type, std::string(reinterpret_cast<const char*>(out.bytes.data()), out.bytes.size()));
    };
    EXPECT_EQ(encode({10, 11, 12, 13, 20}, false), std::pair(PLO_RLE, std::string("\x0A\0\x03\x07", 4)));
    EXPECT_EQ(encode({0, 1}, false), std::pair(PLO_RLE, std::string("\0\0\x01", 3)));
    EXPECT_EQ(encode({0, 2, 4, 6, 8}, true), std::pair(PLO_BMAP, std::string("\0\x55\x01", 3)));
    EXPECT_EQ(encode({0, 2, 4, 6, 8}, false).first, PLO_RLE);
    // The table of the lists that were written grows before it is full.
    merge_known_lists_t lists;
    merge_list_writer_t writer{};
    warm_rc_t rc;
    uint32_t known = 0;
    for (uint32_t term = 0; term < 50000; term++) {
        const uint8_t bytes[] = {static_cast<uint8_t>(term), static_cast<uint8_t>(term >> 8), 1};
        ASSERT_EQ(merge_known_lists_find(&lists, &writer, term, {PLO_RLE, bytes}, &known, &rc), 0);
    }
    EXPECT_EQ(lists.slots.size(), size_t{1} << 17);
    // Lists that are in the file already, as a whole or in part.
    const unique_fd file = open_file(dir.file("lists"));
    merge_known_lists_t in_file{.slots = {}, .used = 0, .hash_mask = 0};
    ASSERT_EQ(merge_list_writer_open(&writer, file.get(), 0, 10, &rc), 0);
    const auto find = [&](uint32_t term, const std::string& text) {
        const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
        int status = merge_known_lists_find(&in_file, &writer, term, {PLO_RLE, bytes}, &known, &rc);
        if (status == 0 && known == MERGE_NO_TERM) status = merge_list_writer_append(&writer, bytes, &rc);
        return status != 0 ? status : static_cast<int>(known);
    };
    const std::string texts[] = {"abcdefgh", "abcdefgi", "abcdxfgh", "Abcdefgh"};
    for (uint32_t again = 0; again < 2; again++) {
        for (uint32_t i = 0; i < 4; i++) EXPECT_EQ(find(4 * again + i, texts[i]), again == 0 ? -1 : int(i));
    }
    for (const fault_call call : {fault_call::pread, fault_call::pwrite}) {
        const fault disk(call, 1, EIO);
        const bool reads = call == fault_call::pread;
        EXPECT_EQ(find(9, reads ? texts[0] : std::string(11, 'x')), reads ? WARM_RC_READ : WARM_RC_WRITE);
    }
    writer.written = uint64_t{1} << 40;  // so far behind no list is remembered
    const uint64_t used = in_file.used;
    EXPECT_EQ(find(9, "z"), -1);
    EXPECT_EQ(in_file.used, used);
    for (const uint32_t first : {0x1FFFFFu, 0x200000u}) {
        for (const uint32_t bytes : {8000u, 9000u}) {
            std::vector<uint32_t> ids;
            for (uint32_t i = 0; i < bytes * 4; i++) ids.push_back(first + 2 * i);
            EXPECT_EQ(encode(ids, true).first, first < 0x200000 || bytes < 8192 ? PLO_BMAP : PLO_RLE);
        }
    }
}

struct progress_record {
    uint64_t calls = 0, last = 0, planned = 0;
};
void note_progress(uint64_t done, uint64_t planned, void* context) {
    progress_record* record = static_cast<progress_record*>(context);
    EXPECT_GE(done, record->last);
    EXPECT_LE(done, planned);
    *record = {record->calls + 1, done, planned};
}

// Events deleted while the merge runs, one of them in only one of two slices that hold it.
TEST_F(MergeTest, LaterDeletesAreCarriedOver) {
    std::mt19937_64 random(5);
    std::vector<test_source> sources;
    for (const event_list& part : spread(forge_random_events(5, 300), 4, &random)) sources.push_back(forge(part, {}));
    progress_record progress;
    warm_merge_options_t options = options_of(4);
    options.progress = note_progress;
    options.progress_context = &progress;
    warm_rc_t rc;
    const merge_ptr merge = open_merge(sources, options, &rc);
    const std::string target = dir.file("target.pre-tsidx");
    EXPECT_EQ(st_warm_slice_merge_carry_deletes(merge.get(), target.c_str(), &rc), WARM_RC_INVALID_ARGUMENT);

    // Marks that come after opening are not in what is written.
    std::map<record_key, bool> deleted_later;
    const auto mark = [&](size_t every) {
        for (test_source& source : sources) {
            const warm_ptr warm(st_warm_slice_open_rdwr(source.path.c_str(), &rc));
            const event_list values = forge_number(source.events).values;
            for (size_t i = 0; i < values.size(); i += every) {
                EXPECT_EQ(warm_slice_set_deleted(warm.get(), static_cast<uint32_t>(i), &rc), 0);
                // Bits behind the last value's are nobody's marks.
                if (values.size() % 8 != 0) warm->d_array[values.size() / 8] |= static_cast<uint8_t>(1u << 7);
                deleted_later[key_of(values[i])] = true;
            }
        }
    };
    event_list expected;
    for (const test_source& source : sources) {
        expected.insert(expected.end(), source.events.begin(), source.events.end());
    }
    expected = united(expected);
    mark(17);
    ASSERT_EQ(st_warm_slice_merge_write(merge.get(), target.c_str(), false, &rc), 0) << rc.message;
    EXPECT_EQ(progress.last, progress.planned);
    EXPECT_EQ(progress.planned, st_warm_slice_merge_totals(merge.get())->source_bytes);
    expect_events(read_slice(target), expected);
    EXPECT_EQ(st_warm_slice_merge_carry_deletes(merge.get(), sources[0].path.c_str(), &rc), WARM_RC_INVALID_ARGUMENT);
    for (int round = 0; round < 2; round++) {
        mark(11);
        EXPECT_EQ(st_warm_slice_merge_carry_deletes(merge.get(), target.c_str(), &rc), 0) << rc.message;
        for (forge_event& event : expected) event.deleted |= deleted_later.contains(key_of(event));
        expect_events(read_slice(target), expected);
    }
}

TEST_F(MergeTest, RefusalsNameTheirReason) {
    const event_list events = forge_random_events(3, 30);
    const auto source = [&](const char* magic, uint64_t wflags = 0, bool doubles = false) {
        forge_options options;
        options.magic = magic;
        options.wflags = wflags;
        options.measures_as_doubles = doubles;
        return forge(events, options);
    };
    forge_options mini;
    mini.mini = true;
    test_source mini_source = {forge_file(dir.path(), events, mini, ++next_id, nullptr), events};
    const test_source rev0 = source("_TSIDX7"), rev1 = source("_TSIDX9"), legacy = source("Veldar4");
    const std::vector<test_source> many(65, rev1);
    const char* metric = "cannot merge sources that have versions lower than 8.0.0";
    const struct {
        std::vector<test_source> sources;
        int status;
        const char* message;
    } cases[] = {
        {{rev1}, -37, "a merge takes 2 to 64 slices"},
        {many, -37, "a merge takes 2 to 64 slices"},
        {{rev1, legacy}, -37, "headers inconsistent across srcs legacy"},
        {{legacy, rev1}, -37, "headers inconsistent across srcs legacy"},
        {{rev0, rev1}, -37, "headers inconsistent across srcs rev1"},
        {{rev1, rev0}, -37, "headers inconsistent across srcs rev1"},
        {{legacy, source("VelLex1")}, -13, "metadata types inconsistent across srcs"},
        {{rev1, mini_source}, -37, "cannot merge a minified slice"},
        {{source("_MSIDX3", 1), source("_MSIDX3", 1)}, -37, metric},
        {{legacy, source("Veldar6", 0, true)}, -37, metric},
        {{rev1, {dir.file("absent.tsidx"), {}}}, -45, nullptr},
        {{rev1, {dir.file("1-1-1.tsidx"), {}}}, -4, nullptr},
    };
    for (const auto& c : cases) {
        warm_rc_t rc;
        EXPECT_EQ(open_merge(c.sources, options_of(4), &rc), nullptr);
        EXPECT_EQ(rc.warm_rc, c.status) << rc.message;
        EXPECT_STREQ(c.message == nullptr ? nullptr : rc.message, c.message);
    }
    warm_rc_t rc;
    for (const uint32_t level : {2u, 4u}) {  // headers that end before the values do
        std::vector<test_source> early = {source(level == 2 ? "_TSIDX7" : "_TSIDX9"),
                                          source(level == 2 ? "_TSIDX7" : "_TSIDX9")};
        for (const test_source& one : early) {
            std::string bytes = read_file(one.path);
            store_be32(bytes.data() + 64, load_be32(bytes.data() + 64) - 1);
            write_file(one.path, bytes);
        }
        warm_merge_options_t without = options_of(level, 0);
        without.drop_deleted = true;
        EXPECT_EQ(open_merge(early, without, &rc), nullptr);
        EXPECT_EQ(rc.warm_rc, WARM_RC_TIME_MISMATCH);
        const merge_ptr merge = open_merge(early, options_of(level, 0), &rc);
        EXPECT_EQ(st_warm_slice_merge_write(merge.get(), dir.file("early").c_str(), false, &rc),
                  level == 2 ? WARM_RC_TIME_MISMATCH : WARM_RC_INVALID_ARGUMENT)
            << rc.message;
    }
    // What is in the way stays there.
    const merge_ptr merge = open_merge({rev1, source("_TSIDX8")}, options_of(4), &rc);
    EXPECT_EQ(st_warm_slice_merge_write(merge.get(), rev1.path.c_str(), false, &rc), WARM_RC_OPEN);
    expect_events(read_slice(rev1.path), united(events));
}

TEST_F(MergeTest, FlagsFollowTheWriteLevel) {
    constexpr uint64_t TAG1 = 0x1, PACKED = 0x2, TAG2 = 0x8, PLO32 = 0x10, METRIC = 0x65;  // with PREAMBLES, ASKED, MS
    const struct {
        const char* magic;
        uint64_t flags[5];  // by write level, with every switch on
    } cases[] = {{"_TSIDX7", {0, 0, TAG1, TAG1, TAG1}},
                 {"_TSIDX9", {0, 0, TAG1, TAG1 | PACKED, TAG1 | PACKED | TAG2 | PLO32}},
                 {"_MSIDX4", {0x4, METRIC, METRIC, METRIC, METRIC}}};
    for (const auto& c : cases) {
        for (uint32_t level = 0; level <= 4; level++) {
            st_warm_slice_body source, target;
            warm_header_init(&source, c.magic);
            source.num_terms.set(1);
            source.cstore_ref.set(1);
            warm_header_set_flag(&source, WARM_FLAG_MS_PRESENT, true);
            const unique_fd file(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
            const int fd = file.get();
            warm_merge_options_t options = options_of(level);
            options.write_options.millisecond_mode = 1;
            const TSWRITEOPTS* const opts = &options.write_options;
            warm_rc_t rc;
            EXPECT_EQ(warm_header_init_tgt_header_for_merge_srcs(&target, &source, &fd, 1, opts, 1, &rc), 0);
            EXPECT_EQ(target.wflags.get(), c.flags[level]) << c.magic << " " << level;
            const bool metric = st_warm_slice_is_msidx(&source);
            EXPECT_STREQ(rc.message, metric || level == 4 ? "" : "write level unsupported");
            const int closed = -1;
            const int status = warm_header_init_tgt_header_for_merge_srcs(&target, &source, &closed, 1, opts, 1, &rc);
            EXPECT_EQ(status, metric || level < 4 ? 0 : WARM_RC_READ);
            if (status != 0) {
                EXPECT_EQ(rc.detail, 0u);
                EXPECT_STREQ(rc.message, "error in warm_header_init_tgt_header_for_adv_postings_comp");
            }
            source.cstore_ref.set(~uint64_t{0});
            EXPECT_EQ(warm_header_init_tgt_header_for_merge_srcs(&target, &source, &fd, 1, opts, 1, &rc),
                      metric ? WARM_RC_INVALID_ARGUMENT : 0);
        }
    }
}

// Whatever fails at whatever point, and whatever bytes of a source are wrong: a status and no file, or a merge that
// reads back.
TEST_F(MergeTest, FailuresLeaveTheSourcesAlone) {
    const event_list events = forge_random_events(8, 120);
    const event_list half(events.begin(), events.begin() + 60), rest(events.begin() + 60, events.end());
    const std::vector<test_source> sources = {forge(half, forge_event_kinds().back()), forge(rest, {})};
    const std::string before = read_file(sources[0].path) + read_file(sources[1].path);
    const std::string target = dir.file("target");
    const std::vector<test_source> older = {forge(half, forge_as_created(2)), forge(rest, forge_as_created(2))};
    uint32_t level = 4;
    std::string statuses;
    merge_seams_t seams;
    seams.narrow_entry_max = 40;  // so that offsets of four bytes are tried in vain
    const auto attempt = [&](warm_rc_t* rc) {
        const failure_watch watch;
        const merge_ptr merge = open_merge(level == 4 ? sources : older, options_of(level), rc);
        if (merge != nullptr) merge->seams = seams;
        const int status =
            merge == nullptr ? rc->warm_rc : st_warm_slice_merge_write(merge.get(), target.c_str(), true, rc);
        EXPECT_TRUE(watch.ended_with(status)) << status;
        return status;
    };
    constexpr fault_action ACTIONS[] = {fault_action::fail, fault_action::shorten, fault_action::allocation};
    for (size_t i = 0; i < 2 * std::size(ACTIONS); i++) {
        const fault_action action = ACTIONS[i / 2];
        level = i % 2 == 0 ? 2 : 4;
        for (uint64_t nth = 1, last = 1; nth <= last; nth++) {
            warm_rc_t rc;
            int status = 0;
            {
                const fault_step step(action, nth, ENOSPC);
                status = attempt(&rc);
                last = 1 + (action == fault_action::allocation ? step.allocations() : step.calls());
            }
            EXPECT_EQ(std::filesystem::exists(target), status == 0) << nth << " " << rc.message;
            const bool told = status == WARM_RC_NO_MEMORY || status == WARM_RC_NO_LEXICON;
            EXPECT_TRUE(action != fault_action::allocation || status == 0 || told) << status;
            std::filesystem::remove(target);
            if (action != fault_action::allocation)
                statuses += std::to_string(nth) + " " + std::to_string(status) + "\n";
        }
    }
    EXPECT_EQ(read_file(sources[0].path) + read_file(sources[1].path), before);
    expect_kept("merge-faults", statuses);
    // Whichever question is answered so, the merge ends, be the values in another order than the target's or dropped.
    const std::vector<test_source> few = {forge({events.begin(), events.begin() + 9}, forge_as_created(4)),
                                          forge({events.begin() + 9, events.begin() + 20}, forge_as_created(4))};
    warm_merge_options_t options = options_of(4);
    options.mapper = scrambled_address;
    options.drop_deleted = true;
    options.stop = failure_watch::asked;
    const uint64_t steps = std::exchange(stop_check::steps_a_question, 1);
    for (uint64_t nth = 1, asked = nth; nth <= asked; nth++) {
        warm_rc_t rc;
        const failure_watch watch(nth);
        const merge_ptr merge = open_merge(few, options, &rc);
        const int status =
            merge == nullptr ? rc.warm_rc : st_warm_slice_merge_write(merge.get(), target.c_str(), false, &rc);
        asked = watch.questions();
        EXPECT_EQ(status, asked < nth ? 0 : WARM_RC_CANCELLED) << nth;
        EXPECT_TRUE(watch.ended_with(status)) << nth;
        std::filesystem::remove(target);
    }
    stop_check::steps_a_question = steps;

    // A disk that changes a bit.
    seams = {};
    damage_outcomes flips;
    for (uint64_t nth = 1, last = 1; nth <= last; nth++) {
        for (int place = 0; place < 1000; place += 37 * SANITIZED_PART) {
            warm_rc_t rc;
            const fault_step step(fault_action::flip, nth, place);
            const int status = attempt(&rc);
            last = step.calls();
            flips.add("call " + std::to_string(16 * nth), status, status == 0 ? read_file(target) : rc.message);
            std::filesystem::remove(target);
        }
    }
    expect_kept("merge-flips", flips.text());

    const std::string good = read_file(sources[0].path);
    damage_outcomes outcomes;
    const damage_options damage = {.truncation_step = 31, .flip_step = 7, .word_step = 44};
    damage_sweep(good, damage, [&](const std::string& bytes, const std::string& what) {
        write_file(sources[0].path, bytes);
        warm_rc_t rc;
        const int status = attempt(&rc);
        EXPECT_EQ(std::filesystem::exists(target), status == 0) << what;
        outcomes.add(what, status, status == 0 ? read_file(target) : std::to_string(rc.detail));
        const std::string source = status == 0 ? fsck_findings(sources[0].path) : "";
        EXPECT_FALSE(fsck_blames_lists(source)) << "made good by the merge: " << what << source;
        // A damaged byte in a term's text is another text: it goes along, a NUL too.
        const std::string findings = status == 0 ? fsck_findings(target) : "";
        EXPECT_TRUE(findings.empty() || findings.find("term with a NUL") != std::string::npos) << what << findings;
        std::filesystem::remove(target);
    });
    expect_kept("merge-damage", outcomes.text());
}

// Lists copied to memory, and less than all of them.
TEST_F(MergeTest, ListsBehindTheCopyAreToldOf) {
    forge_picture picture;
    const std::string path = forge_file(dir.path(), forge_random_events(3, 300), {}, ++next_id, &picture);
    warm_rc_t rc;
    const warm_ptr warm(st_warm_slice_open_rdonly(path.c_str(), &rc));
    const std::string section = read_file(path).substr(picture.at.postings, warm->plo_last);
    std::set<int> results;
    for (size_t size = section.size(); size > 0; size -= std::min<size_t>(size, 97)) {
        plist_reader reader;
        ASSERT_EQ(_init_reader(&reader, warm.get(), 0, nullptr, &rc), 0);
        plist_reader_attach_memory(&reader, {reinterpret_cast<const uint8_t*>(section.data()), size});
        for (uint32_t term = 0; term < picture.terms.size(); term++) results.insert(_seek_reader(&reader, term, &rc));
        EXPECT_EQ(results.size() == 1, size == section.size());
    }
    EXPECT_EQ(results, (std::set<int>{WARM_RC_SPLIT_LIST, WARM_RC_CORRUPT, 0}));
}

TEST_F(MergeTest, FittingStopsBeforeATotalOverflows) {
    st_warm_slice_body header;
    warm_header_init(&header, "_TSIDX9");
    const auto fitting = [&](uint32_t values, uint32_t terms, uint32_t postings, size_t slices) {
        header.num_values.set(values);
        header.num_terms.set(terms);
        header.num_postings.set(postings);
        return st_warm_slice_merge_fitting(std::vector<st_warm_slice_body>(slices, header),
                                           std::vector<uint64_t>(slices, 1 << 20));
    };
    EXPECT_EQ(fitting(1000, 1000, 1000, 70), 64u);
    EXPECT_EQ(fitting(1000, 1000, 1000, 7), 7u);
    EXPECT_EQ(fitting(1, 1, 0x80000000, 5), 1u);
    EXPECT_EQ(fitting(1, 1, 0x7FFFFFFF, 5), 2u);
    EXPECT_EQ(fitting(56 << 20, 1, 1, 5), 2u);  // 9 bytes a value
    EXPECT_EQ(fitting(1, 8 << 20, 1, 9), 4u);   // 28 bytes a term
    header.h_nbits.set(31);
    EXPECT_EQ(fitting(45 << 20, 1, 1, 5), 2u);  // an array of 2^32 bits
    const struct {
        const char* magic;
        uint64_t flags, columns;
        int kind;  // slices of one kind merge with each other
    } kinds_of[] = {{"Veldar4", 0, 1, 0},
                    {"VelLex1", 0, 1, 1},
                    {"_TSIDX7", 0, 1, 2},
                    {"_TSIDX9", 0, 1, 3},
                    {"_TSIDX9", WARM_FLAG_PREAMBLES, 1, -1},
                    {"_MSIDX4", WARM_FLAG_PREAMBLES, 1, 4},
                    {"_MSIDX4", WARM_FLAG_PREAMBLES, ~uint64_t{0}, -1},
                    {"_MSIDX4", 0, 1, -1}};
    for (const auto& one : kinds_of) {
        warm_header_init(&header, one.magic);
        warm_header_set_flag(&header, one.flags, true);
        header.cstore_ref.set(one.columns);
        EXPECT_EQ(st_warm_slice_merge_kind(&header), one.kind) << one.magic << one.flags;
    }
}

}  // namespace
}  // namespace veldar
