#include "searchthing/lexicon/fclex.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "searchthing/lexicon/fclex_cursor.h"
#include "searchthing/lexicon/fclex_internal.h"
#include "tests/support/faults.h"

namespace veldar {
namespace {

using lexicon = fclex_ptr;

// A body opened in either mode, for loops over both. Memory is exactly as long as the body, so that the sanitizer sees
// any byte too far; in the file something else lies before the body.
class opened {
  public:
    static constexpr int64_t OFFSET = 7;
    opened(const std::string& body, bool in_file) : bytes_(body.begin(), body.end()) {
        if (!in_file) {
            lex.reset(_fclex_open_bounded(bytes_));
            return;
        }
        fd.reset(::memfd_create("lexicon", MFD_CLOEXEC));
        EXPECT_EQ(::pwrite(fd.get(), bytes_.data(), bytes_.size(), OFFSET), static_cast<ssize_t>(bytes_.size()));
        lex.reset(st_fclex_open_fd(fd.get(), OFFSET));
    }
    std::vector<uint8_t> bytes_;
    unique_fd fd;
    lexicon lex;
};

// An encoder of the test's own, for terms of any length and any byte.
std::string forge_body(const std::vector<std::string>& terms, uint32_t tperb) {
    const auto vbe = [](size_t v) {
        std::string out;
        for (; v >= 0x80; v >>= 7) out += static_cast<char>(v | 0x80);
        return out + static_cast<char>(v);
    };
    const auto be = [](size_t v) {
        return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                           static_cast<char>(v)};
    };
    std::string table, blocks;
    for (size_t i = 0; i < terms.size(); i++) {
        const size_t j = i % tperb;
        size_t p = 0;
        while (j != 0 && p < 2046 && p < terms[i - 1].size() && p < terms[i].size() && terms[i - 1][p] == terms[i][p])
            p++;
        if (j == 0 && i != 0) table += be(blocks.size());
        if (j != 0) blocks += vbe(p);
        if (j == 0 || j != tperb - 1) blocks += vbe(terms[i].size() - p);
        blocks += terms[i].substr(p);
    }
    return be(terms.size()) + be(tperb) + be(99) + table + be(blocks.size()) + blocks;
}

std::string create_body(const std::vector<std::string>& terms, uint32_t tperb, uint32_t uncompressed_size = 99) {
    std::vector<const char*> pointers;
    uint64_t length = 0;
    for (const std::string& term : terms) pointers.push_back(term.c_str()), length += term.size();
    std::string body(fclex_body_bound(terms.size(), length, tperb), '\xEE');
    const auto count = static_cast<uint32_t>(terms.size());
    const lexicon lex(st_fclex_create(body.data(), body.size(), pointers.data(), count, tperb, uncompressed_size));
    return lex == nullptr ? "" : body.substr(0, st_fclex_size(lex.get()));
}

struct walked {
    int64_t result = 0;
    std::vector<std::pair<int32_t, std::string>> terms;
    size_t stop_after = ~size_t{0};
};

walked walk(FCLEX* lex, const char* prefix, size_t stop_after = ~size_t{0}, st_query_info_t* stats = nullptr) {
    walked w = {0, {}, stop_after};
    const st_term_fn fn = [](int32_t id, const char* term, size_t length, void* context) {
        auto* out = static_cast<walked*>(context);
        EXPECT_EQ(term[length], '\0');
        out->terms.emplace_back(id, std::string(term, length));
        return out->terms.size() >= out->stop_after ? -1 : 2;
    };
    w.result = st_fclex_apply(lex, prefix, fn, &w, stats);
    return w;
}

std::vector<std::string> random_terms(std::mt19937* rng, size_t count) {
    static const std::vector<std::string> stems = {"", "host::", "path::/var/log/", std::string(200, 'q'), "\xFF\x01"};
    const size_t letters = (*rng)() % 2 == 0 ? 3 : 255;
    std::set<std::string> terms;
    while (terms.size() < count) {
        std::string term = stems[(*rng)() % stems.size()];
        const size_t length = (*rng)() % ((*rng)() % 50 == 0 ? 1800 : 12);
        for (size_t i = 0; i < length; i++) term += static_cast<char>((*rng)() % letters + 1);
        terms.insert(term);
    }
    return {terms.begin(), terms.end()};
}

void check_against_model(FCLEX* lex, const std::vector<std::string>& terms, std::mt19937* rng) {
    ASSERT_EQ(st_fclex_terms(lex), terms.size());
    char text[ST_TERM_BUFFER_SIZE];
    warm_rc_t rc;
    for (uint32_t id = 0; id < terms.size(); id++) {
        ASSERT_EQ(st_fclex_get(lex, terms[id].c_str(), nullptr), static_cast<int32_t>(id)) << terms[id];
        ASSERT_EQ(st_fclex_get_term_from_id(lex, id, text, sizeof text, nullptr, &rc), 0);
        ASSERT_EQ(text, terms[id]);
    }
    for (int i = 0; i < 60; i++) {
        std::string key = terms[(*rng)() % terms.size()];
        key = key.substr(0, (*rng)() % (key.size() + 1)) + (i % 3 == 0 ? "~" : "");
        const auto begin = std::lower_bound(terms.begin(), terms.end(), key);
        uint32_t id = 0;
        const bool present = begin != terms.end() && *begin == key;
        EXPECT_EQ(_fclex_get_with_status(lex, key.c_str(), &id, nullptr, &rc), present ? 0 : WARM_RC_NOT_FOUND);
        EXPECT_EQ(st_fclex_get(lex, key.c_str(), nullptr), present ? begin - terms.begin() : -1);

        const walked w = walk(lex, key.c_str());
        auto expected = key.empty() ? terms.begin() : begin;
        for (const auto& [found_id, found] : w.terms) {
            ASSERT_EQ(found, *expected);
            ASSERT_EQ(found_id, expected - terms.begin());
            expected++;
        }
        EXPECT_TRUE(expected == terms.end() || !expected->starts_with(key));
        EXPECT_EQ(w.result, static_cast<int64_t>(2 * w.terms.size()));
    }
    EXPECT_EQ(walk(lex, nullptr).terms.size(), terms.size());
    for (int i = 0; i < 20; i++) {  // a part of a term, behind a prefix or not
        const std::string& from = terms[(*rng)() % terms.size()];
        const size_t start = (*rng)() % (from.size() + 1);
        const std::string infix = from.substr(start, (*rng)() % 6), prefix = from.substr(0, static_cast<size_t>(i % 3));
        std::vector<std::string> expected, found;
        for (const std::string& term : terms) {
            if (term.starts_with(prefix) && term.find(infix) != std::string::npos) expected.push_back(term);
        }
        const st_term_fn fn = [](int32_t, const char* term, size_t length, void* context) {
            static_cast<std::vector<std::string>*>(context)->emplace_back(term, length);
            return 0;
        };
        ASSERT_EQ(fclex_apply_holding(lex, prefix.c_str(), infix, fn, &found, nullptr), 0);
        ASSERT_EQ(found, expected) << prefix << " " << infix;
    }
}

TEST(Fclex, AgreesWithASortedListInBothModes) {
    std::mt19937 rng(7);
    for (uint32_t tperb : {1u, 2u, 3u, 4u, 7u, 8u, 63u, 64u}) {
        for (size_t count : {1u, 2u, 9u, 64u, 65u, 513u, 700u}) {
            const std::vector<std::string> terms = random_terms(&rng, count);
            const std::string body = create_body(terms, tperb);
            ASSERT_EQ(body, forge_body(terms, tperb)) << tperb << " " << count;
            for (const bool in_file : {false, true}) {
                SCOPED_TRACE(testing::Message() << "tperb " << tperb << " terms " << count << " file " << in_file);
                const opened o(body, in_file);
                ASSERT_NE(o.lex, nullptr);
                EXPECT_EQ(st_fclex_size(o.lex.get()), body.size());
                EXPECT_EQ(st_fclex_blocksize(o.lex.get()), tperb);
                EXPECT_EQ(st_fclex_how_many_blocks(o.lex.get()), (count + tperb - 1) / tperb);
                EXPECT_EQ(st_fclex_uncompressed_size(o.lex.get()), 99u);
                EXPECT_TRUE(!in_file || st_fclex_size_fd(o.fd.get(), opened::OFFSET) == body.size());
                check_against_model(o.lex.get(), terms, &rng);
                const lexicon whole(st_fclex_open(body.data()));  // of a length that nobody tells
                ASSERT_NE(whole, nullptr);
                EXPECT_EQ(st_fclex_get(whole.get(), terms.back().c_str(), nullptr), static_cast<int>(count) - 1);
            }
        }
    }
}

TEST(Fclex, WalksStopAndBodiesMove) {
    const std::string body = forge_body({"", "ab", "abc", "b", "ba"}, 4);
    const opened memory(body, false);
    const walked stopped = walk(memory.lex.get(), nullptr, 3);
    EXPECT_TRUE(stopped.result == -1 && stopped.terms.size() == 3);
    std::vector<uint8_t> moved(body.size());
    st_fclex_relocate(memory.lex.get(), moved.data());
    EXPECT_EQ(memory.lex->body, moved.data());
    EXPECT_EQ(st_fclex_get(memory.lex.get(), "ba", nullptr), 4);
    std::string longer = body;
    longer[19] = 99;  // the end of the last block
    const opened damaged(longer, false);
    moved.assign(body.size() + 99, 0xEE);
    st_fclex_relocate(damaged.lex.get(), moved.data());
    EXPECT_EQ(std::count(moved.begin() + static_cast<ptrdiff_t>(body.size()), moved.end(), 0xEE), 99);
}

TEST(Fclex, LongTermsAreCutTo2047) {
    const std::string a2046(2046, 'a'), a2047(2047, 'a'), b(3000, 'b'), c(2048, 'c');
    for (const uint32_t tperb : {1u, 2u, 3u, 8u}) {
        for (const bool in_file : {false, true}) {
            if (in_file && tperb < 3) continue;  // the block of 3000 bytes passes the cache
            const opened o(forge_body({a2046, a2047, b, c, "d"}, tperb), in_file);
            FCLEX* lex = o.lex.get();
            const walked w = walk(lex, nullptr);
            ASSERT_EQ(w.result, 10);
            EXPECT_EQ(w.terms[1].second, a2047);
            EXPECT_EQ(w.terms[2].second, b.substr(0, 2047));
            EXPECT_EQ(w.terms[3].second, c.substr(0, 2047));
            EXPECT_EQ(st_fclex_get(lex, a2046.c_str(), nullptr), 0);
            EXPECT_EQ(st_fclex_get(lex, a2047.c_str(), nullptr), 1);
            EXPECT_EQ(st_fclex_get(lex, b.c_str(), nullptr), 2);
            EXPECT_EQ(st_fclex_get(lex, (b.substr(0, 2047) + "zz").c_str(), nullptr), 2);
            EXPECT_EQ(st_fclex_get(lex, b.substr(0, 2046).c_str(), nullptr), -1);
            EXPECT_EQ(st_fclex_get(lex, "d", nullptr), 4);
        }
    }
}

TEST(Fclex, CreationRefusesWhatIsNotALexicon) {
    EXPECT_EQ(create_body({"a", "a"}, 4), "");
    EXPECT_EQ(create_body({"b", "a"}, 4), "");
    EXPECT_EQ(create_body({"\x80", "a"}, 4), "");
    EXPECT_EQ(create_body({"ab", "a"}, 4), "");
    EXPECT_EQ(create_body({"a"}, 4, 0), "");
    EXPECT_NE(create_body({"a", std::string(40000, 'b')}, 4), "");
}

// Looking a term up needs the ends of its own block and the starts of those that the search meets.
TEST(Fclex, ADamagedEndHarmsNoSearchThatNeedsTheStart) {
    std::vector<std::string> terms;
    for (int i = 0; i < 4000; i++) terms.push_back("term " + std::to_string(10000 + i));
    for (uint64_t nth = 1, failed = 1; failed != 0; nth++) {
        const opened o(create_body(terms, 2), true);
        const fault disk(fault_call::pread, nth, EIO);
        uint32_t id = 0;
        warm_rc_t rc;
        const int status = _fclex_get_with_status(o.lex.get(), terms[3000].c_str(), &id, nullptr, &rc);
        failed = disk.hits();
        EXPECT_TRUE(status == 0 ? id == 3000 : failed != 0 && status == WARM_RC_READ) << nth;
    }
    const std::string good = create_body(terms, 8);
    for (const bool in_file : {false, true}) {
        for (const char damage : {'\0', '\x7F', '\xFF'}) {
            std::string body = good;  // block 249 of 500 is the first that is looked at
            body.replace(12 + 4 * 249, 4, 4, damage);
            const opened o(body, in_file);
            for (const int32_t id : {0, 8 * 124, 8 * 249 - 1, 8 * 252, 3999}) {
                EXPECT_EQ(st_fclex_get(o.lex.get(), terms[static_cast<size_t>(id)].c_str(), nullptr), id);
            }
        }
    }
}

// A case names the field or byte of the five-term body that is wrong, and what must come of it.
TEST(Fclex, NamesTheDamage) {
    const struct {
        const char* what;
        size_t at;
        uint8_t byte;
        int32_t get;  // of "b"
    } cases[] = {{"prefix longer than the term before", 25, 3, -12},
                 {"rest leaves the block", 22, 90, -12},
                 {"first length leaves the block", 30, 90, -1}};
    const std::string body = forge_body({"", "ab", "abc", "b", "ba"}, 4);
    for (const auto& c : cases) {
        for (const bool in_file : {false, true}) {
            SCOPED_TRACE(c.what);
            std::string bytes = body;
            bytes[c.at] = static_cast<char>(c.byte);
            const opened o(bytes, in_file);
            ASSERT_NE(o.lex, nullptr);
            uint32_t id;
            warm_rc_t rc;
            EXPECT_EQ(walk(o.lex.get(), nullptr).result, WARM_RC_CORRUPT);
            EXPECT_EQ(_fclex_get_with_status(o.lex.get(), "b", &id, nullptr, &rc), WARM_RC_CORRUPT);
            EXPECT_EQ(st_fclex_get(o.lex.get(), "b", nullptr), c.get);
        }
    }
    // A body whose length nobody tells ends where its blocks say.
    std::string endless = forge_body({"a", "b", "c", "d", "e"}, 1);
    endless.replace(12 + 4 * 2, 4, 4, '\0');
    const lexicon unbounded(st_fclex_open(endless.data()));
    uint32_t none = 0;
    warm_rc_t status;
    EXPECT_EQ(_fclex_get_with_status(unbounded.get(), "e", &none, nullptr, &status), WARM_RC_CORRUPT);
    const opened o(body.substr(0, 31), true);
    char text[ST_TERM_BUFFER_SIZE];
    warm_rc_t rc;
    testing::internal::CaptureStderr();
    EXPECT_EQ(st_fclex_get_term_from_id(o.lex.get(), 5, text, sizeof text, nullptr, &rc), WARM_RC_CAPACITY);
    EXPECT_EQ(st_fclex_get_term_from_id(o.lex.get(), 4, text, sizeof text, nullptr, &rc), WARM_RC_READ);
    EXPECT_EQ(st_fclex_get_term_from_id(o.lex.get(), 0, text, 2047, nullptr, &rc), WARM_RC_INVALID_ARGUMENT);
    const walked w = walk(o.lex.get(), nullptr);
    EXPECT_EQ(w.result, WARM_RC_READ);
    EXPECT_EQ(w.terms.size(), 4u) << "the terms before the cut are handed out";
    testing::internal::GetCapturedStderr();
}

TEST(Fclex, HostileHeadersDoNotOpen) {
    const std::string body = forge_body({"", "ab", "abc", "b", "ba"}, 4);
    for (const size_t at : {0u, 4u}) {  // no terms, none in a block
        const std::string bytes = std::string(body).replace(at, 4, 4, '\0');
        const opened in_file(bytes, true);
        EXPECT_TRUE(opened(bytes, false).lex == nullptr && in_file.lex == nullptr);
        EXPECT_EQ(st_fclex_size_fd(in_file.fd.get(), opened::OFFSET), 0u);
    }
    std::string huge_blocks = body, many_terms = body;
    huge_blocks.replace(4, 4, std::string("\x00\x08\x00\x00", 4));  // 524288 * 2052 is above 1 GiB
    EXPECT_EQ(opened(huge_blocks, true).lex, nullptr);
    EXPECT_EQ(opened(body.substr(0, 15), true).lex, nullptr) << "cut in the offset table";
    many_terms.replace(0, 4, "\xFF\xFF\xFF\xFF");
    EXPECT_EQ(opened(many_terms, false).lex, nullptr) << "the offset table passes the limit";
    EXPECT_EQ(st_fclex_open_fd(-1, 0), nullptr);
    // No handle at all, or nothing to look up.
    const opened good(body, false);
    uint32_t id = 0;
    warm_rc_t rc;
    EXPECT_EQ(st_fclex_get(nullptr, "b", nullptr) + st_fclex_get(good.lex.get(), nullptr, nullptr), -2);
    EXPECT_EQ(_fclex_get_with_status(nullptr, "b", &id, nullptr, &rc), WARM_RC_NO_LEXICON);
    EXPECT_EQ(_fclex_get_with_status(good.lex.get(), nullptr, &id, nullptr, &rc), WARM_RC_INVALID_ARGUMENT);
    EXPECT_EQ(walk(nullptr, "b").result, WARM_RC_NO_LEXICON);
    EXPECT_EQ(fclex_cursor_open(nullptr, "b", nullptr, {}, 1, nullptr, &rc), nullptr);
    EXPECT_EQ(rc.warm_rc, WARM_RC_NO_LEXICON);
}

TEST(Fclex, WalkReadsLargePiecesAndMayNest) {
    std::mt19937 rng(3);
    std::vector<std::string> terms = random_terms(&rng, 30000);
    terms.push_back(std::string(2000, '\xFF'));
    const std::string body = create_body(terms, 8);
    const opened o(body, true);
    st_query_info_t stats;
    EXPECT_EQ(walk(o.lex.get(), nullptr, ~size_t{0}, &stats).terms.size(), terms.size());
    EXPECT_LE(stats.reads, body.size() / 8192 + 2);
    EXPECT_EQ(stats.bytes, body.size() - 12 + 4 * (((terms.size() + 7) / 8 - 2) / (bo_reader_t::RUN - 1)))
        << "nothing is read twice but the end of a block between two runs of ends";

    // Blocks far larger than a piece, and a callback that looks terms up in the handle it walks.
    const opened wide(create_body(terms, 4000), true);
    struct nested {
        FCLEX* lex;
        int32_t next;
    } context = {wide.lex.get(), 0};
    const st_term_fn look_up = [](int32_t id, const char* term, size_t, void* opaque) {
        auto* n = static_cast<nested*>(opaque);
        EXPECT_EQ(id, n->next++);
        EXPECT_TRUE(id % 997 != 0 || st_fclex_get(n->lex, term, nullptr) == id);
        return 0;
    };
    EXPECT_EQ(st_fclex_apply(wide.lex.get(), "", look_up, &context, nullptr), 0);
    EXPECT_EQ(context.next, static_cast<int32_t>(terms.size()));
}

TEST(Fclex, EnumerationPrefersBlankTermsWithCapitals) {
    const opened o(forge_body({" Abc", " abd", "abc", "abd", "abe"}, 2), true);
    const opened plain(forge_body({" abc", "abc", "abd", "abe", "b"}, 2), false);
    const struct {
        const opened* from;
        const char* prefix;
        uint32_t capacity;
        bool case_flag;
        std::vector<std::pair<std::string, uint32_t>> expected;
    } cases[] = {
        {&o, "ab", 2, false, {{"abc", 2}, {"abd", 3}}},
        {&o, "A", 9, true, {{"Abc", 0}}},
        {&o, "", 9, true, {{"Abc", 0}, {"abd", 1}}},
        {&o, "ab", 9, true, {{"abc", 2}, {"abd", 3}, {"abe", 4}}},
        {&plain, "ab", 9, true, {{"abc", 1}, {"abd", 2}, {"abe", 3}}},
        {&plain, "ab", 0, false, {}},
        {&plain, nullptr, 1, false, {{" abc", 0}}},
    };
    for (const auto& c : cases) {
        std::vector<st_enum_answer> answers(c.capacity);
        const int count = st_fclex_enum(c.from->lex.get(), c.prefix, answers.data(), c.capacity, c.case_flag);
        answers.resize(static_cast<size_t>(count));
        std::vector<std::pair<std::string, uint32_t>> found;
        for (const st_enum_answer& answer : answers) found.emplace_back(answer.term, answer.id);
        EXPECT_EQ(found, c.expected);
    }
}

}  // namespace
}  // namespace veldar
