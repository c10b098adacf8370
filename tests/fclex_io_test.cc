#include "searchthing/lexicon/fclex_io.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "tests/support/damage.h"
#include "tests/support/faults.h"

namespace veldar {
namespace {

using strings = std::vector<std::string>;

strings random_terms(std::mt19937* rng, size_t count) {
    const strings stems = {"", "host::", std::string(300, 'q'), "\xFF\x01", std::string(2040, 'z')};
    const size_t letters = (*rng)() % 2 == 0 ? 3 : 255;
    std::set<std::string> terms;
    for (size_t i = 0; i < count; i++) {
        std::string term = stems[(*rng)() % ((*rng)() % 20 == 0 ? 5 : 4)];
        for (size_t length = (*rng)() % 12; length > 0; length--) term += static_cast<char>((*rng)() % letters + 1);
        terms.insert(term.substr(0, ST_MAX_TERM_LENGTH));
    }
    return {terms.begin(), terms.end()};
}

std::string created(const strings& terms, uint32_t tperb) {
    std::vector<const char*> pointers;
    uint64_t length = 0;
    for (const std::string& term : terms) pointers.push_back(term.c_str()), length += term.size();
    std::string body(fclex_body_bound(terms.size(), length, tperb), '\0');
    FCLEX* lex = st_fclex_create(body.data(), body.size(), pointers.data(), static_cast<uint32_t>(terms.size()), tperb,
                                 static_cast<uint32_t>(length));
    body.resize(st_fclex_size(lex));
    st_fclex_close(lex);
    return body;
}

// The sources one behind the other in one file, as far as the test does not damage it.
struct sources_t {
    void add(const std::string& body) {
        offsets.push_back(static_cast<int64_t>(bytes.size()) + 3);
        bytes += "gap" + body;
    }
    int merge(uint32_t tperb, uint64_t page_size, uint32_t* const* maps = nullptr,
              uint64_t failing_allocation = ~uint64_t{0}, uint64_t failing = 1) {
        fd.reset(::memfd_create("sources", MFD_CLOEXEC));
        EXPECT_EQ(::write(fd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        const std::vector<int> fds(offsets.size(), fd.get());
        ends.assign(offsets.size(), 0);
        const fault_step step(fault_action::allocation, failing_allocation, 0, failing);
        const int status = st_fclex_merge_n(false, fds.data(), offsets.data(), static_cast<uint32_t>(fds.size()), tperb,
                                            page_size, &writer, &merged_count, &bitmaps, ends.data(), maps, &rc);
        EXPECT_EQ(status, rc.warm_rc);
        return status;
    }
    int close() { return _lex_writer_close(false, &writer, fd.get(), bytes.size(), &end); }
    std::string merged_body() const {
        std::string body(end - bytes.size(), '\0');
        EXPECT_EQ(::pread(fd.get(), body.data(), body.size(), static_cast<off_t>(bytes.size())),
                  static_cast<ssize_t>(body.size()));
        return body;
    }

    std::string bytes;
    std::vector<int64_t> offsets;
    unique_fd fd;
    lex_writer_t writer;
    uint32_t merged_count = 0;
    bmap_array_t bitmaps;
    std::vector<uint64_t> ends;
    warm_rc_t rc;
    uint64_t end = 0;
};

TEST(FclexIo, MergeIsTheSortedUnion) {
    for (uint32_t seed = 0; seed < 80; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        const auto one_of = [&rng](const std::vector<uint32_t>& from) { return from[rng() % from.size()]; };
        const strings pool = random_terms(&rng, one_of({1, 10, 300, 3000}));
        sources_t sources;
        std::map<std::string, uint64_t> expected;
        std::vector<strings> lists;
        std::vector<std::vector<uint32_t>> old2new;
        for (uint32_t source = 0, count = one_of({1, 2, 3, 7, 32, 33, 64}); source < count; source++) {
            strings terms;
            const uint32_t keep = one_of({1, 5, 50, 100});
            for (const std::string& term : pool) {
                if (rng() % 100 < keep) terms.push_back(term);
            }
            if (terms.empty() || terms == strings{""}) terms = {"lonely"};
            for (const std::string& term : terms) expected[term] |= uint64_t{1} << source;
            sources.add(created(terms, one_of({1, 2, 3, 8, 64})));
            old2new.emplace_back(terms.size(), 0xEEEEEEEE);
            lists.push_back(terms);
        }
        std::vector<uint32_t*> maps;
        for (std::vector<uint32_t>& map : old2new) maps.push_back(rng() % 8 == 0 ? nullptr : map.data());
        const uint32_t tperb = one_of({1, 2, 3, 8, 64});
        ASSERT_EQ(sources.merge(tperb, one_of({9, 10, 30, 4096, 0}), maps.data()), 0);

        ASSERT_EQ(sources.merged_count, expected.size());
        strings merged;
        std::map<std::string, uint32_t> ids;
        for (const auto& [term, holders] : expected) {
            ids[term] = static_cast<uint32_t>(merged.size());
            bmap64_t bits = 0;
            bmap_array_entry_as_bmap64(&sources.bitmaps, merged.size(), &bits);
            ASSERT_EQ(bits, holders) << term;
            merged.push_back(term);
        }
        EXPECT_EQ(sources.bitmaps.narrow, lists.size() <= 32);
        for (size_t source = 0; source < lists.size(); source++) {
            const bool is_last = source + 1 == lists.size();
            const uint64_t next =
                is_last ? sources.bytes.size() + 3 : static_cast<uint64_t>(sources.offsets[source + 1]);
            EXPECT_EQ(sources.ends[source], next - 3);
            for (size_t i = 0; maps[source] != nullptr && i < lists[source].size(); i++) {
                ASSERT_EQ(old2new[source][i], ids[lists[source][i]]);
            }
        }
        ASSERT_EQ(sources.close(), 0);
        EXPECT_EQ(sources.merged_body(), created(merged, tperb));
    }
}

// More blocks than a run of offsets, and more bytes than the cache.
TEST(FclexIo, ReaderGoesOnFromAnyTerm) {
    strings terms;
    for (size_t i = 0; i < 4000; i++) terms.push_back(std::to_string(100000 + i) + std::string(i % 1000, 'x'));
    for (const uint32_t tperb : {1U, 2U, 64U}) {
        sources_t sources;
        sources.add(created(terms, tperb));
        ASSERT_EQ(sources.merge(64, 0), 0);
        EXPECT_EQ(sources.merged_count, terms.size());
        lex_reader_t reader;
        ASSERT_EQ(_lex_reader_open(&reader, sources.fd.get(), sources.offsets[0]), 0);
        fclex_extent extent, behind;
        for (uint64_t block = reader.shape.blocks(); block-- > 0; behind = extent) {
            ASSERT_EQ(bo_reader_get(&reader.blocks.ends, block, bo_reader_t::RUN, &extent), 0);
            ASSERT_TRUE(block == reader.shape.blocks() - 1 || extent.end == behind.start);
        }
        const auto current = [&reader] { return std::string(reader.term, reader.at.length); };
        for (const uint32_t id : {3999U, 0U, 1337U, 1336U, 65U, 2048U, 3000U}) {
            reader.cursor = id;
            ASSERT_EQ(_reload_term(&reader), 0);
            EXPECT_EQ(current(), terms[id]);
            ASSERT_EQ(_increment_cursor(&reader), 0);
            if (id == 3999) {
                EXPECT_EQ(_increment_cursor(&reader), -1);
                EXPECT_EQ(_reload_term(&reader), WARM_RC_CORRUPT);
            } else {
                EXPECT_EQ(current(), terms[id + 1]);
            }
        }
    }
}

// Foreign writers may store a shorter prefix than there is; terms that do not ascend are damage, as is a long one.
TEST(FclexIo, StoredPrefixesMayBeShort) {
    const auto forged = [](const strings& terms) {
        std::string blocks;
        for (size_t i = 0; i < terms.size(); i++) {
            if (i != 0) blocks += '\0';
            uint8_t coded[5];
            blocks.append(reinterpret_cast<char*>(coded),
                          st_encode_to_vbe(coded, static_cast<uint32_t>(terms[i].size())));
            blocks += terms[i];
        }
        std::string body(16, '\0');
        store_be32(body.data(), static_cast<uint32_t>(terms.size()));
        store_be32(body.data() + 4, 64);
        store_be32(body.data() + 12, static_cast<uint32_t>(blocks.size()));
        return body + blocks;
    };
    sources_t sources;
    sources.add(forged({"", "aa", "aab", "aac"}));
    sources.add(created({"aab", "aabb", "ab"}, 8));
    ASSERT_EQ(sources.merge(8, 0), 0);
    ASSERT_EQ(sources.close(), 0);
    EXPECT_EQ(sources.merged_body(), created({"", "aa", "aab", "aabb", "aac", "ab"}, 8));
    const std::vector<strings> bad = {{"ab", "aa"},    {"ab", "a"}, {"ab", "ab"},
                                      {"a", "b", "a"}, {"a", ""},   {"a", std::string(2048, 'b')}};
    for (const strings& terms : bad) {
        sources_t damaged;
        damaged.add(created({"x"}, 8));
        damaged.add(forged(terms));
        EXPECT_EQ(damaged.merge(8, 0), WARM_RC_CORRUPT);
        EXPECT_EQ(damaged.rc.detail, 1U);
    }
}

TEST(FclexIo, DamageEndsInAStatus) {
    const std::string body = created({"", "aa", "aab", "b", "bc", "bcd", "bce", "c", "cc"}, 4);
    const std::set<int> allowed = {
        0, WARM_RC_NO_MEMORY, WARM_RC_CORRUPT, WARM_RC_ZERO_TERMS, WARM_RC_SHORT_READ, WARM_RC_END_OF_FILE};
    std::set<int> seen;
    testing::internal::CaptureStderr();
    damage_outcomes outcomes;
    damage_sweep(body, {}, [&](const std::string& damaged, const std::string& what) {
        sources_t sources;
        sources.add(created({"a", "aab", "x"}, 8));
        sources.add(damaged);
        const int status = sources.merge(3, 16);
        EXPECT_TRUE(allowed.contains(status)) << what << " " << status;
        EXPECT_TRUE(status == 0 || sources.rc.detail == 1) << what;
        seen.insert(status);
        if (status != 0) return outcomes.add(what, status, sources.rc.message);
        ASSERT_EQ(sources.close(), 0);
        outcomes.add(what, status, sources.merged_body());
        FCLEX* lex = st_fclex_open_fd(sources.fd.get(), static_cast<int64_t>(sources.bytes.size()));
        const auto one = [](int32_t, const char*, size_t, void*) { return 1; };
        EXPECT_EQ(st_fclex_apply(lex, nullptr, one, nullptr, nullptr), sources.merged_count) << what;
        st_fclex_close(lex);
    });
    testing::internal::GetCapturedStderr();
    EXPECT_GE(seen.size(), 5U);
    expect_kept("lexicon-damage", outcomes.text());
    std::string huge = created({"a", "b"}, 8);  // one block of five bytes and a thousand terms
    store_be32(huge.data(), 1000);
    store_be32(huge.data() + 4, 1000);
    sources_t sources;
    sources.add(huge);
    EXPECT_EQ(sources.merge(3, 16), WARM_RC_CORRUPT);
    EXPECT_STREQ(sources.rc.message, "lexicon longer than its file in st_fclex_merge_n");
}

TEST(FclexIo, EveryFailedCallIsReported) {
    sources_t sources;
    std::mt19937 rng(7);
    std::set<std::string> all;
    for (const uint32_t tperb : {1U, 8U}) {
        const strings terms = random_terms(&rng, 200);
        all.insert(terms.begin(), terms.end());
        sources.add(created(terms, tperb));
    }
    for (const uint64_t failing : {uint64_t{1} << 60, uint64_t{1}}) {
        for (uint64_t nth = 1;; nth += failing == 1 ? 1 : 9) {
            const int status = sources.merge(1, 100, nullptr, nth, failing);
            if (status == 0) break;
            ASSERT_EQ(status, WARM_RC_NO_MEMORY);
            ASSERT_EQ(sources.writer.pages, nullptr);
            ASSERT_LT(nth, 1000U);
        }
    }
    ASSERT_EQ(sources.close(), 0);
    EXPECT_EQ(sources.merged_body(), created({all.begin(), all.end()}, 1));
    uint64_t nth = 1;
    for (bool failed = true; failed; nth++) {
        ASSERT_EQ(sources.merge(1, 100), 0);
        const fault disk(fault_call::pwrite, nth, ENOSPC);
        const int status = sources.close();
        failed = disk.hits() != 0;
        ASSERT_EQ(status, failed ? WARM_RC_WRITE : 0);
    }
    EXPECT_GT(nth, 10U);
}

TEST(FclexIo, WriterRefusals) {
    lex_writer_t writer;
    ASSERT_EQ(_lex_writer_open(false, &writer, 2, 9, 3), 0);
    EXPECT_EQ(_lex_writer_put(&writer, "", 0), 0);
    EXPECT_EQ(writer._cursor, 1U);
    for (const char* term : {"", "ab", "ab", "b", "b"}) EXPECT_EQ(_lex_writer_put(&writer, term, std::strlen(term)), 0);
    EXPECT_EQ(writer._cursor, 3U);
    const std::string longest(2048, 'x');
    EXPECT_EQ(_lex_writer_put(&writer, longest.data(), 2048), WARM_RC_DOES_NOT_FIT);
    EXPECT_EQ(_lex_writer_put(&writer, longest.data(), 2047), 0);
    EXPECT_EQ(_lex_writer_put(&writer, longest.data(), 2046), WARM_RC_INVALID_ARGUMENT);
    EXPECT_EQ(_lex_writer_put(&writer, "a", 1), WARM_RC_INVALID_ARGUMENT);
    EXPECT_DEATH(static_cast<void>(_lex_writer_open(false, &writer, 2, 8, 3)),
                 "writer->_page_sz >= sizeof\\(size_t\\) \\+ 1");
    ASSERT_EQ(_lex_writer_open(false, &writer, 1, 0, 0), 0);  // a block end for each term but the last
    for (char term = '0'; term <= '@'; term++) ASSERT_EQ(_lex_writer_put(&writer, &term, 1), 0);
    {
        const fault_step no_memory(fault_action::allocation, 1);
        EXPECT_EQ(_lex_writer_put(&writer, "A", 1), WARM_RC_NO_MEMORY) << "the seventeenth";
    }
    // Counts at the end of 32 bits.
    constexpr uint64_t MOST = UINT32_MAX;
    ASSERT_EQ(_lex_writer_open(false, &writer, 1, 0, 0), 0);
    writer._cursor = MOST;
    EXPECT_EQ(_lex_writer_put(&writer, "a", 1), WARM_RC_DOES_NOT_FIT);
    for (const auto member : {&lex_writer_t::_blocks_off, &lex_writer_t::_uncompressed_size}) {
        ASSERT_EQ(_lex_writer_open(false, &writer, 1, 0, 0), 0);
        ASSERT_EQ(_lex_writer_put(&writer, "a", 1), 0);
        writer.*member = MOST + 1;
        uint64_t end = 0;
        EXPECT_EQ(_lex_writer_close(false, &writer, -1, 0, &end), WARM_RC_DOES_NOT_FIT);
    }
    lex_reader_t reader;
    EXPECT_EQ(_lex_reader_open(&reader, -1, -1), WARM_RC_INVALID_ARGUMENT);
    sources_t many;
    for (int i = 0; i < 65; i++) many.add(created({"a"}, 8));
    EXPECT_DEATH(many.merge(8, 0), "src_sz <= ");
}

}  // namespace
}  // namespace veldar
