#include "searchthing/postings/plist.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <list>
#include <map>
#include <random>
#include <vector>

#include "libzero/endian.h"
#include "searchthing/postings/gap_groups.h"
#include "searchthing/slice/kept_lists.h"
#include "searchthing/slice/warmslice_lists.h"
#include "tests/support/faults.h"
#include "tests/support/forge.h"
#include "tests/support/temp_dir.h"

namespace veldar {

namespace {

using ids_t = std::vector<uint32_t>;

struct dice {
    std::mt19937 engine;
    uint32_t below(uint64_t limit) { return static_cast<uint32_t>(engine() % limit); }
};

// A slice that is nothing but posting lists: the writer's section in a file, its offset entries in memory.
struct lists_only {
    temp_dir dir;
    WARM warm;
    st_warm_slice_body header = {};
    std::string entries;

    // `values` holds each entry's V and type; the last one is the size of the section.
    lists_only(const std::string& section, const std::vector<std::pair<uint64_t, uint32_t>>& values,
               uint32_t num_values) {
        const uint64_t base = 40;  // any place in the file will do
        warm.fd = open_file(dir.file("lists"), std::string(base, '\xEE') + section);
        warm_header_init(&header, "_TSIDX9");
        warm_header_set_flag(&header, WARM_FLAG_PLO_TAG2 | WARM_FLAG_PLO32, true);
        header.num_terms.set(static_cast<uint32_t>(values.size()));
        header.num_values.set(num_values);
        for (const auto& [value, type] : values) {
            uint8_t bytes[4];
            store_be32(bytes, static_cast<uint32_t>(value * 4 + type));
            entries.append(reinterpret_cast<char*>(bytes), sizeof bytes);
        }
        warm.body = &header;
        warm.plo = reinterpret_cast<const uint8_t*>(entries.data());
        warm.plo_last = values.back().first;
        warm.postings_base = base;
    }
};

struct reader_owner {
    plist_reader reader;
    warm_rc_t rc;
    explicit reader_owner(WARM* warm) { EXPECT_EQ(_init_reader(&reader, warm, 1024, nullptr, &rc), 0) << rc.message; }
    ~reader_owner() { close_plist_reader(&reader); }

    bool has_marks = false;
    std::map<uint32_t, plist_marks_t> marks;  // by term

    int seek_term(uint32_t term) {
        const int status = _seek_reader(&reader, term, &rc);
        if (status != 0 || !has_marks || reader.plo_type != PLO_RLE || reader.run == 0) return status;
        plist_marks_t& of_term = marks[term];
        const uint64_t room = plist_marks_room(reader.list_end - reader.list_begin);
        const bool has_room = !of_term.marks.empty() || room == 0 || of_term.marks.alloc(room);
        EXPECT_TRUE(has_room);
        plist_reader_attach_marks(&reader, &of_term);
        return status;
    }
    uint32_t next() {
        uint32_t id = 0;
        EXPECT_EQ(_next(&reader, &id, &rc), 0) << rc.message;
        return id;
    }
    uint32_t seek(uint32_t target) {
        uint32_t id = 0;
        EXPECT_EQ(_seek(&reader, target, &id, &rc), 0) << rc.message;
        return id;
    }
    ids_t all(uint32_t term) {
        EXPECT_EQ(seek_term(term), 0) << rc.message;
        ids_t ids;
        for (uint32_t id = next(); id != PLIST_END; id = next()) ids.push_back(id);
        return ids;
    }
};

// Reads the rest of a list in every way from a random place on and compares with the ids expected.
void check_list(reader_owner* r, uint32_t term, const ids_t& ids, uint32_t num_values, dice* random) {
    ASSERT_EQ(r->all(term), ids) << "term " << term;
    ASSERT_EQ(r->next(), PLIST_END) << "the end is final";

    // next and seek, mixed; seeks go to just before, at, just after and far past the next event
    ASSERT_EQ(r->seek_term(term), 0);
    for (size_t i = 0; i < ids.size();) {
        if (random->below(3) == 0) {
            ASSERT_EQ(r->next(), ids[i++]) << "term " << term;
            continue;
        }
        const size_t jump = random->below(4) == 0 ? random->below(3000) : random->below(20);
        const uint32_t near = ids[std::min(i + jump, ids.size() - 1)];
        const uint32_t target = near + random->below(3) - (near > 0 ? 1 : 0);
        i = static_cast<size_t>(std::lower_bound(ids.begin() + static_cast<ptrdiff_t>(i), ids.end(), target) -
                                ids.begin());
        ASSERT_EQ(r->seek(target), i < ids.size() ? ids[i] : PLIST_END) << "term " << term << " to " << target;
        i++;
    }

    // both bulk readers over a range, the copy in pieces, after a few events were taken one by one
    const uint32_t begin = random->below(num_values + 1);
    const uint32_t end = begin + random->below(num_values - begin + 1);
    const size_t taken = ids.empty() ? 0 : random->below(std::min<size_t>(ids.size(), 3));
    ids_t below;
    std::string bits(_calc_bitmap_size(begin, end), '\0');
    for (size_t i = taken; i < ids.size() && ids[i] < end; i++) {
        below.push_back(ids[i]);
        if (ids[i] < begin) continue;
        const uint32_t bit = ids[i] - begin;
        bits[bit / 8] = static_cast<char>(bits[bit / 8] | 1 << (bit % 8));
    }
    const auto start_again = [&] {
        EXPECT_EQ(r->seek_term(term), 0);
        for (size_t i = 0; i < taken; i++) r->next();
    };
    start_again();
    buffer<uint8_t> bitmap;  // its own allocation: an overrun is seen by the sanitizer
    ASSERT_TRUE(bitmap.alloc(bits.size()));
    ASSERT_EQ(plist_or_into_bitmap(&r->reader, bitmap.data(), begin, end, &r->rc), 0) << r->rc.message;
    ASSERT_EQ(std::string(reinterpret_cast<char*>(bitmap.data()), bitmap.size()), bits)
        << "term " << term << " [" << begin << ", " << end << ")";

    start_again();
    ids_t copied;
    uint32_t count = 0;
    do {
        uint32_t piece[700];
        const uint32_t capacity = 1 + random->below(700);
        ASSERT_EQ(plist_copy(&r->reader, piece, capacity, end, &count, &r->rc), 0) << r->rc.message;
        ASSERT_LE(count, capacity);
        copied.insert(copied.end(), piece, piece + count);
        if (count < capacity) break;
    } while (true);
    ASSERT_EQ(copied, below) << "term " << term << " below " << end;
}

// Ascending ids below `limit`, enough for several buffers: stretches of single events, dense stretches, runs and wide
// gaps.
ids_t random_ids(dice* random, uint32_t limit, uint32_t gap) {
    ids_t ids;
    uint64_t id = random->below(3);
    for (int item = 0; item < 15000 && id < limit; item++) {
        const uint32_t kind = random->below(2000);
        const uint32_t run = random->below(kind == 0 ? 20000 : kind < 50 ? 300 : kind < 200 ? 9 : 1) + 1;
        for (uint32_t i = 0; i < run && id < limit; i++) ids.push_back(static_cast<uint32_t>(id++));
        id += 1 + random->below(kind % 50 == 7 ? 100 * gap : gap);
    }
    return ids;
}

}  // namespace

// Lists of many buffers and bitmap chunks, written and read by us.
TEST(Plist, LongListsSurviveWriterAndReader) {
    dice random{std::mt19937(3)};
    const uint32_t limit = 20000000;
    std::vector<ids_t> lists;
    std::vector<uint32_t> types;
    for (const uint32_t gap : {2u, 9u, 127u, 300u, 400u, 600u, 800u, 1000u, 30000u}) {
        for (const uint32_t type : {PLO_RLE, PLO_BMAP}) {
            lists.push_back(random_ids(&random, limit, gap));
            types.push_back(lists.size() == 1 ? PLO_RLE : type);
        }
    }
    temp_dir dir;
    const unique_fd fd = open_file(dir.file("section"));
    plist_writer_t plw;
    _plist_writer_open(&plw, fd.get(), 0, {});
    std::vector<std::pair<uint64_t, uint32_t>> entries;
    for (size_t term = 0; term < lists.size(); term++) {
        if (term > 0) entries.emplace_back(plw.total, types[term]);
        plw.plo_type = types[term];
        ASSERT_EQ(_plist_writer_start_term(&plw), 0);
        for (const uint32_t id : lists[term]) {
            ASSERT_EQ(_plist_writer_put(&plw, id), 0);
            if (id % 5 != 0) continue;
            ASSERT_EQ(_plist_writer_put(&plw, id), 0) << "again is once";
        }
        EXPECT_EQ(plw.count_forterm, lists[term].size());
        ASSERT_EQ(_plist_writer_end_term(&plw), 0);
    }
    for (const uint32_t copy : {3u, 4u}) {  // one bitmap and one RLE list
        entries.emplace_back(copy, PLO_DEDUP);
        lists.push_back(lists[copy]);
    }
    entries.emplace_back(limit - 1, PLO_SPO);
    lists.push_back({limit - 1});
    entries.emplace_back(plw.total, PLO_RLE);
    ASSERT_EQ(_plist_writer_close(&plw), 0);

    lists_only slice(read_file(dir.file("section")), entries, limit);
    reader_owner r(&slice.warm);
    for (int round = 0; round < 4; round++) {
        gap_groups_are_off = round == 1;
        r.has_marks = round >= 2;
        for (uint32_t term = 0; term < lists.size(); term++) {
            ASSERT_NO_FATAL_FAILURE(check_list(&r, term, lists[term], limit, &random)) << "round " << round;
        }
    }
    // To a place far into a marked list less is decoded than two stretches between marks.
    plist_marks_t& marks = r.marks[4];
    ASSERT_GT(marks.count, 5u);
    for (const uint32_t at : {1u, marks.count / 2, marks.count - 1}) {
        marks.passed = 0;
        ASSERT_EQ(r.seek_term(4), 0);
        EXPECT_GT(r.seek(marks.marks[at].last), 0u);
        EXPECT_LT(marks.passed, 2 * PLIST_MARK_BYTES) << at;
    }
}

// Every write failing once: told by the call that meets it, or by the one that closes the writer.
TEST(Plist, WriterTellsOfFailures) {
    temp_dir dir;
    std::vector<uint32_t> sets(20000);
    for (uint32_t i = 0; i < sets.size(); i++) sets[i] = i / 3;
    for (const uint32_t type : {PLO_RLE, PLO_BMAP}) {
        for (uint64_t nth = 1, failed = 1; failed != 0; nth++) {
            const unique_fd fd = open_file(dir.file("section"));
            const fault disk(fault_call::pwrite, nth, EIO);
            plist_writer_t plw;
            _plist_writer_open(&plw, fd.get(), 0, sets);
            plw.plo_type = type;
            int status = 0;
            for (uint32_t term = 0; term < 4 && status == 0; term++) {
                status = _plist_writer_start_term(&plw);
                for (uint32_t id = term; id < sets.size() && status == 0; id += term == 0 ? 19990 : 1) {
                    status = _plist_writer_put(&plw, id);
                    if (id % 2000 < 1950) continue;
                    if (status == 0) status = _plist_writer_end_term(&plw);
                    if (status == 0) status = _plist_writer_start_term(&plw);
                }
                if (status == 0) status = _plist_writer_end_term(&plw);
            }
            if (status == 0) status = _plist_writer_close(&plw);
            failed = disk.hits();
            ASSERT_EQ(status, failed != 0 ? WARM_RC_WRITE : 0) << nth;
        }
    }
}

// With groups of gaps and without, with marks and without: damage is found where it is, whatever was read before.
TEST(Plist, DamageFarIntoAListIsFoundByEveryReader) {
    const uint32_t values = 200000;
    for (const std::string& item : {std::string("\x80\x00", 2), std::string("\x00\x00", 2), std::string(5, '\xFF'),
                                    std::string("\xFF\xFF\x7F", 3)}) {
        const std::string list = std::string(5000, '\x07') + item + std::string(3000, '\x07');
        lists_only slice(list, {{list.size(), PLO_RLE}}, values);
        reader_owner r(&slice.warm);
        buffer<uint8_t> bits;
        ASSERT_TRUE(bits.alloc(values));
        for (int round = 0; round < 6; round++) {
            gap_groups_are_off = round % 2 == 1;
            r.has_marks = round >= 2;
            uint32_t id = 0, count = 0;
            std::vector<uint32_t> ids(values);
            ASSERT_EQ(r.seek_term(0), 0);
            EXPECT_EQ(r.seek(34993), 34993u + (34993 % 7 != 0 ? 7 - 34993 % 7 : 0));
            EXPECT_EQ(_seek(&r.reader, 35001, &id, &r.rc), WARM_RC_CORRUPT) << round;
            ASSERT_EQ(r.seek_term(0), 0);
            EXPECT_EQ(plist_copy(&r.reader, ids.data(), values, PLIST_END, &count, &r.rc), WARM_RC_CORRUPT) << round;
            EXPECT_EQ(count, 5000u);
            ASSERT_EQ(r.seek_term(0), 0);
            EXPECT_EQ(plist_or_into_bitmap(&r.reader, bits.data(), 30000, values, &r.rc), WARM_RC_CORRUPT) << round;
            EXPECT_LE(r.marks[0].count, 4u);
        }
    }
    gap_groups_are_off = false;
}

// Asks for all of a list, or for the n-th part; whether its bits are kept. They, or else the reader, begin with the number
// `first`.
bool ask(kept_lists* lists, reader_owner* r, uint32_t term, uint32_t first, uint32_t part = 1) {
    std::span<const uint8_t> bits = lists->find(term);
    if (bits.empty()) {
        EXPECT_EQ(r->seek_term(term), 0);
        const uint32_t wanted = r->reader.num_values / part;
        EXPECT_EQ(lists->open(term, &r->reader, wanted, &bits, &r->rc), 0) << r->rc.message;
    }
    EXPECT_EQ(bits.empty() ? r->next() : static_cast<uint32_t>(std::countr_zero(load_le64(bits.data()))), first);
    return !bits.empty();
}

// Groups stop before the last word of a bitmap that is not whole, before `stop`, and before bytes that are not theirs.
TEST(GapGroups, KeepTheirBounds) {
    if (!gap_groups_usable()) GTEST_SKIP() << "no vectors";
    const std::vector<uint8_t> gaps(96, 1), wide(96, 100);
    gap_span far = {wide.data(), wide.data() + 96, wide.data() + 96, 0};
    EXPECT_FALSE(gap_groups_seek(&far, 150, 160)) << "200 is no event";
    for (const uint64_t bound : {1u, 63u, 64u, 70u, 127u, 128u, 1000u}) {
        for (const size_t stop : {0u, 1u, 40u, 96u}) {
            gap_span span = {gaps.data(), gaps.data() + stop, gaps.data() + gaps.size(), 0};
            std::vector<uint8_t> bits(32);
            gap_groups_set_bits(&span, bound, bits.data(), 0);
            EXPECT_LE(span.last, std::min<uint64_t>(bound / 64 * 64, stop + 7)) << bound << " " << stop;
            for (uint32_t bit = 0; bit < 256; bit++) {
                ASSERT_EQ(bits[bit / 8] >> bit % 8 & 1, bit > 0 && bit <= span.last)
                    << bound << " " << stop << " " << bit;
            }
            EXPECT_EQ(span.at - gaps.data(), span.last) << "an event a byte";
            EXPECT_TRUE(stop < 96 || bound <= 64 || span.last >= 56) << "and it takes what it may";
            std::vector<uint32_t> numbers(20);
            span = {gaps.data(), gaps.data() + stop, gaps.data() + gaps.size(), 0};
            const uint64_t copied = gap_groups_copy(&span, bound, numbers.data(), 20);
            EXPECT_TRUE(copied <= 16 && span.last == copied && copied < bound) << copied;
        }
    }
}

// Of a slice 8 MiB, which four lists fill here, and 64 lists; of the process 64 MiB.
TEST(KeptLists, AreBounded) {
    std::string section(1, '\0');
    std::vector<std::pair<uint64_t, uint32_t>> entries;
    for (char term = 1; term < 67; term++) {
        entries.emplace_back(section.size(), PLO_BMAP);
        section += {static_cast<char>(term % 60), 1};
    }
    entries.emplace_back(section.size(), PLO_RLE);
    lists_only large(section, entries, (16 << 20) - 8), small(section, entries, 1000);
    reader_owner r(&large.warm), of_small(&small.warm);
    std::list<kept_lists> slices(8);
    for (kept_lists& lists : slices) {
        for (uint32_t term = 1; term <= 4; term++) EXPECT_TRUE(ask(&lists, &r, term, term)) << "there is room";
        EXPECT_FALSE(lists.find(1).empty());
        for (const bool again : {false, true}) EXPECT_EQ(ask(&lists, &r, 5, 5), again);
        for (uint32_t term = 1; term <= 5; term++) EXPECT_EQ(lists.find(term).empty(), term == 2) << term;
    }
    kept_lists last;
    for (int i = 0; i < 3; i++) EXPECT_FALSE(ask(&last, &r, 1, 1)) << "the others have it all";
    slices.pop_back();
    for (const uint64_t nth : {1u, 2u, 3u}) {
        kept_lists none;
        const fault_step no_memory(fault_action::allocation, nth);
        EXPECT_FALSE(ask(&none, &r, 1, 1)) << nth;
    }
    EXPECT_TRUE(ask(&last, &r, 1, 1));
    kept_lists many;
    for (uint32_t term = 1; term <= 65; term++) {
        EXPECT_EQ(ask(&many, &of_small, term, term % 60), term <= 64) << term;
    }
    EXPECT_TRUE(ask(&many, &of_small, 65, 5) && many.find(1).empty() && !many.find(2).empty());
}

TEST(KeptLists, AreLongAndSound) {
    const struct {
        std::string section;
        uint32_t values;
        bool kept;
    } cases[] = {{"\x05\x06", 63, false},
                 {"\x05\x06", 64, true},
                 {"\x05\x06\x07", 1024, false},
                 {"\x05\x06\x07\x01", 1024, true},
                 {"\x05\x60", 100, false}};  // a gap past the values
    for (const auto& c : cases) {
        lists_only slice(c.section, {{c.section.size(), PLO_RLE}}, c.values);
        reader_owner r(&slice.warm);
        kept_lists whole, in_parts;
        for (int i = 0; i < 3; i++) EXPECT_EQ(ask(&whole, &r, 0, 5), c.kept) << c.section.size();
        if (c.section.size() < 4 || !c.kept) continue;
        // Once as many bytes were decoded as the list has, with those that are about to be.
        EXPECT_FALSE(ask(&in_parts, &r, 0, 5, 4));
        EXPECT_FALSE(ask(&in_parts, &r, 0, 5, 4)) << "nothing was decoded";
        EXPECT_EQ(r.seek(c.values - 1), PLIST_END);
        EXPECT_TRUE(ask(&in_parts, &r, 0, 5, 4));
    }
}

TEST(Plist, RleBytes) {
    const ids_t sets = {4, 4, 4, 4, 1, 1, 2, 2, 2};
    const struct {
        ids_t ids;
        std::string bytes;
        ids_t map = {};  // neighbours of one dimension set keep first and last
    } cases[] = {{{10, 11, 12, 13, 20}, std::string("\x0A\x00\x03\x07", 4)},
                 {{7, 7, 7}, "\x07"},
                 {{0}, std::string("\x00", 1)},
                 {{1}, "\x01"},
                 {{0, 1, 2}, std::string("\x00\x00\x02", 3)},
                 {{1, 2, 300}, std::string("\x01\x00\x01\xAA\x02", 5)},
                 {{0, 5, 6}, std::string("\x00\x05\x00\x01", 4)},
                 {{0, 1, 3, 5, 6, 7, 8}, std::string("\x00\x03\x02\x00\x01\x02", 6), sets}};
    plist_writer_t plw;  // opened again and again
    const unique_fd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    _plist_writer_open(&plw, full.get(), 0, {});
    ASSERT_EQ(_plist_writer_start_term(&plw) + _plist_writer_put(&plw, 7) + _plist_writer_end_term(&plw), 0);
    EXPECT_EQ(_plist_writer_close(&plw), WARM_RC_WRITE);
    for (const auto& c : cases) {
        temp_dir dir;
        const unique_fd fd = open_file(dir.file("list"));
        _plist_writer_open(&plw, fd.get(), 0, c.map);
        ASSERT_EQ(_plist_writer_start_term(&plw), 0);
        for (const uint32_t id : c.ids) ASSERT_EQ(_plist_writer_put(&plw, id), 0);
        EXPECT_TRUE(c.map.empty() || _plist_writer_put(&plw, 9) == WARM_RC_CAPACITY);
        ASSERT_EQ(_plist_writer_end_term(&plw), 0);
        EXPECT_TRUE(c.map.empty() || plw.count_forterm == 5) << "0 3 5 6 8";
        EXPECT_EQ(plw.total, c.bytes.size());
        ASSERT_EQ(_plist_writer_close(&plw), 0);
        EXPECT_EQ(read_file(dir.file("list")), c.bytes);
    }
}

TEST(Plist, DamagedListsAndEntriesAreCorruption) {
    const std::string five_tops = "\xFF\xFF\xFF\xFF\xFF";
    std::string two_sizes;
    for (int i = 0; i < 60; i++) two_sizes += i % 9 == 8 ? "\x81\x01" : "\x01";
    const struct {
        const char* what;
        std::string section;
        std::vector<std::pair<uint64_t, uint32_t>> entries;
        int seek_status;
        int next_status;  // of the first failing next
    } cases[] = {
        {"first event past the values", "\x64", {{1, PLO_RLE}}, -12, 0},
        {"gap past the values", "\x05\x60", {{2, PLO_RLE}}, 0, -12},
        {"short gaps past the values", std::string(200, '\x01'), {{200, PLO_RLE}}, 0, -12},
        {"gaps of two sizes past the values", two_sizes, {{two_sizes.size(), PLO_RLE}}, 0, -12},
        {"run past the values", std::string("\x05\x00\x7F", 3), {{3, PLO_RLE}}, 0, -12},
        {"run of none", std::string("\x05\x00\x00", 3), {{3, PLO_RLE}}, 0, -12},
        {"gap of 0 in two bytes", std::string("\x05\x80\x00", 3), {{3, PLO_RLE}}, 0, -12},
        {"run mark at the end", std::string("\x05\x00", 2), {{2, PLO_RLE}}, 0, -12},
        {"number cut by the list's end", "\x05\x80\x01", {{2, PLO_RLE}, {3, PLO_RLE}}, 0, -12},
        {"number that never ends", five_tops, {{5, PLO_RLE}}, -12, 0},
        {"list past the section", "\x05\x01", {{9, PLO_RLE}, {2, PLO_RLE}}, -12, 0},
        {"list past the file", "\x05", {{9, PLO_RLE}}, -48, 0},
        {"section past the file", "", {{9, PLO_RLE}}, -49, 0},
        {"no end", "\x05", {{1, PLO_SPO}}, -12, 0},
        {"equal start and end", "", {{0, PLO_RLE}}, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        lists_only slice(c.section, c.entries, 100);
        reader_owner r(&slice.warm);
        for (const uint32_t target : {0u, 90u, 100u, 5000u, PLIST_END - 1}) {  // 0: event by event
            ASSERT_EQ(r.seek_term(0), c.seek_status);
            uint32_t id = 0;
            int status = 0;
            while (status == 0 && id != PLIST_END) {
                status = target != 0 ? _seek(&r.reader, target, &id, &r.rc) : _next(&r.reader, &id, &r.rc);
            }
            EXPECT_EQ(status, c.next_status);
        }
    }
    lists_only past("\x05\x01" + std::string(11, '\0') + "\x01", {{0, PLO_BMAP}, {14, PLO_RLE}}, 100);  // 5 and 101
    for (const uint32_t begin : {0u, 6u, 90u}) {
        reader_owner r(&past.warm);
        std::vector<uint8_t> bits(16);
        ASSERT_EQ(r.seek_term(1), 0);
        EXPECT_EQ(plist_or_into_bitmap(&r.reader, bits.data(), begin, 100, &r.rc), begin == 0 ? 0 : WARM_RC_CORRUPT);
    }
    lists_only cut("\x05" + std::string(8300, '\0'), {{0, PLO_BMAP}, {9000, PLO_RLE}}, 100);
    reader_owner behind(&cut.warm);
    uint32_t id = 0;
    ASSERT_EQ(behind.seek_term(1), 0);
    EXPECT_EQ(_next(&behind.reader, &id, &behind.rc), WARM_RC_READ) << "a bitmap past the file";
    EXPECT_EQ(behind.seek_term(2), WARM_RC_CAPACITY) << "no such term";
    lists_only shorter("\x05\x01", {{2, PLO_RLE}}, 100);
    reader_owner marked(&shorter.warm);
    plist_marks_t marks;
    ASSERT_TRUE(marks.marks.alloc(1) && marked.seek_term(0) == 0);
    marks.marks[marks.count++] = {50, 1000};
    plist_reader_attach_marks(&marked.reader, &marks);
    EXPECT_EQ(_seek(&marked.reader, 60, &id, &marked.rc), WARM_RC_CORRUPT) << "a mark past the list";
    // term 1's entry: start above end, a single event and duplicates that cannot be
    const struct {
        const char* what;
        std::pair<uint64_t, uint32_t> entry;
        const char* message;
    } entries[] = {
        {"start above end", {3, PLO_RLE}, "plo_cxt->start < plo_cxt->end"},
        {"event past the values", {100, PLO_SPO}, "invalid tsval_id range"},
        {"duplicate past the last term",
         {3, PLO_DEDUP},
         "term_id < ((uint32_t) __builtin_bswap32((uint32_t) (reader->whdr->num_terms)))"},
        {"duplicate of a duplicate", {1, PLO_DEDUP}, "plo_cxt.type != PLO_DEDUP"},
    };
    for (const auto& c : entries) {
        SCOPED_TRACE(c.what);
        lists_only slice("\x05\x06", {c.entry, {1, PLO_RLE}, {2, PLO_RLE}}, 100);
        reader_owner r(&slice.warm);
        EXPECT_EQ(r.seek_term(1), WARM_RC_CORRUPT);
        EXPECT_STREQ(r.rc.message, c.message);
        EXPECT_EQ(r.next(), PLIST_END) << "a failed seek leaves an empty list";
        EXPECT_EQ(r.all(2), ids_t{6}) << "and a usable reader";
    }
}

}  // namespace veldar
