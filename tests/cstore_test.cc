// The column store: what goes in comes out bit for bit, and no damage gets past the checksums.
#include "searchthing/columns/cstore.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "libzero/endian.h"
#include "libzero/resource.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/columns/cset_block1.h"
#include "searchthing/columns/cset_doubles.h"
#include "searchthing/columns/cset_internal.h"
#include "searchthing/slice/warmslice.h"
#include "tests/support/damage.h"
#include "tests/support/faults.h"
#include "tests/support/forge_metric.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

constexpr uint64_t SECTION = 24;  // where the tests put the section

using column = std::map<uint32_t, double>;        // by value number
using columns = std::map<uint32_t, column>;       // by measure
using change_rule = bool (*)(uint32_t value_no);  // whether a value begins a dimension set

struct section {
    unique_fd fd{::memfd_create("cstore", MFD_CLOEXEC)};
    int64_t ref = 0;
};

// Fed value by value, as creation does.
section build(const columns& all, uint32_t num_values, uint32_t num_preambles, change_rule changes) {
    section out;
    cs_builder_t builder;
    warm_rc_t rc;
    EXPECT_EQ(cs_builder_open(&builder, 2, &rc), 0);
    std::multimap<uint32_t, std::pair<uint32_t, double>> by_value;
    for (const auto& [measure, elements] : all) {
        EXPECT_EQ(cs_add_columnset(&builder, measure, &rc), 0);
        for (const auto& [value_no, v] : elements) by_value.insert({value_no, {measure, v}});
    }
    for (const auto& [value_no, element] : by_value) {
        EXPECT_EQ(cs_add_element(&builder, element.first, value_no, changes(value_no), element.second, &rc), 0);
    }
    EXPECT_EQ(cs_finalize_offsets(&builder, num_values, num_preambles, &out.ref, &rc), 0) << rc.message;
    EXPECT_EQ(cs_sync_cstore(&builder, out.fd.get(), SECTION, &rc), 0);
    cs_builder_close(&builder);
    return out;
}

unique_fd file_of(const std::string& bytes) {
    unique_fd fd(::memfd_create("cstore", MFD_CLOEXEC));
    EXPECT_EQ(st_pwrite(fd.get(), bytes.data(), bytes.size(), 0), static_cast<int64_t>(bytes.size()));
    return fd;
}
std::string bytes_of(const std::vector<double>& numbers) {
    return {reinterpret_cast<const char*>(numbers.data()), numbers.size() * sizeof(double)};
}
std::string bytes_of(const section& s) {
    std::string bytes(static_cast<size_t>(s.ref) + 200, '\0');
    const int64_t size = st_pread(s.fd.get(), bytes.data(), bytes.size(), 0);
    EXPECT_GT(size, s.ref);
    bytes.resize(static_cast<size_t>(size));
    return bytes;
}

bool same_bits(double a, double b) {
    return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}

// Elements of every kind that the codecs tell apart; `kind` chooses one.
double element_of(int kind, uint32_t i, std::mt19937_64* random) {
    constexpr auto QUIET = std::bit_cast<double>(uint64_t{0x7FF8000000001234});
    constexpr auto SIGNALLING = std::bit_cast<double>(uint64_t{0xFFF0000000000001});
    static const double special[] = {0.0,     -0.0,     HUGE_VAL, -HUGE_VAL,   QUIET, SIGNALLING, 0x1p-1074,
                                     DBL_MAX, -DBL_MAX, 0x1p53,   -0x1p53 - 2, 1e22,  0.1};
    const auto r = static_cast<double>((*random)() % 100000);
    switch (kind) {
        case 0:
            return 0.1;  // one value
        case 1:
            return r / 1000;
        case 2:
            // Off by some units in the last place.
            return std::bit_cast<double>(std::bit_cast<uint64_t>(1 + r / 1000) + (*random)() % (2 + i / 300) - i / 600);
        case 3:
            return 1e12 + 60.0 * i + std::fmod(r, 7);  // a counter
        case 4:
            return i < 600 ? std::sqrt(r + 1) : i < 1500 ? 4096 * (1e6 + r) : static_cast<float>(std::sqrt(r));
        case 5:
            return (*random)() % 50 == 0 ? 0 : 5e9 + r;  // outliers below
        case 6:
            return (*random)() % 50 == 0 ? 1e15 : r / 100;  // and above
        case 7:
            return std::bit_cast<double>((*random)());
        case 8:
            return special[(*random)() % std::size(special)];
        default:
            return (*random)() % 20 == 0 ? special[(*random)() % std::size(special)] : -r / 8;
    }
}

void expect_stats(const cs_stats_t& got, const column& elements, uint32_t first, uint32_t n) {
    cs_stats_t want = cs_stats_none();
    double magnitude = 0;
    for (auto at = elements.lower_bound(first); at != elements.end() && at->first - first < n; ++at) {
        cs_stats_add(&want, {&at->second, 1});
        if (!std::isnan(at->second)) magnitude += std::fabs(at->second);
    }
    EXPECT_EQ(got.count, want.count);
    EXPECT_EQ(got.nans, want.nans);
    EXPECT_EQ(got.min, want.min);
    EXPECT_EQ(got.max, want.max);
    if (std::isfinite(magnitude)) {
        EXPECT_NEAR(got.sum, want.sum, magnitude * 1e-12);
    }
}

void expect_column(const cs_reader_t& store, uint32_t measure, const column& elements, std::mt19937_64* random) {
    warm_rc_t rc;
    cset_reader_t set;
    st_query_info_t info;
    ASSERT_EQ(cset_reader_open(&set, &store, measure, &info, &rc), 0) << rc.message;
    EXPECT_LE(set.data_size, (elements.size() + set.blocks.size()) * 8) << "larger than as it was";
    uint32_t value_no = 0;
    double v = 0;
    for (const auto& [want_value, want] : elements) {
        ASSERT_EQ(cset_reader_next(&set, &value_no, &v, &rc), 0) << rc.message;
        ASSERT_EQ(value_no, want_value);
        ASSERT_TRUE(same_bits(v, want)) << v << " " << want;
    }
    ASSERT_EQ(cset_reader_next(&set, &value_no, &v, &rc), 0);
    EXPECT_EQ(value_no, CSET_END);

    const uint32_t values = store.num_values - store.num_preambles;
    std::vector<double> out(values);
    std::vector<uint8_t> present(values);
    for (int i = 0; i < 40; i++) {
        const uint32_t first = store.num_preambles + static_cast<uint32_t>((*random)() % values);
        const uint32_t n = i == 0 ? 0 : static_cast<uint32_t>((*random)() % (store.num_values - first + 1));
        ASSERT_EQ(cset_reader_range(&set, first, n, out.data(), present.data(), &rc), 0);
        for (uint32_t k = 0; k < n; k++) {
            const auto want = elements.find(first + k);
            ASSERT_EQ(present[k], want != elements.end());
            ASSERT_TRUE(same_bits(out[k], want == elements.end() ? 0 : want->second));
        }
        cs_stats_t stats;
        ASSERT_EQ(cset_reader_stats(&set, first, n, &stats, &rc), 0);
        expect_stats(stats, elements, first, n);
        bool is_present = false;
        ASSERT_EQ(cset_reader_get(&set, first, &v, &is_present, &rc), 0);
        const auto want = elements.find(first);
        ASSERT_EQ(is_present, want != elements.end());
        ASSERT_TRUE(same_bits(v, is_present ? want->second : 0));
    }
    EXPECT_EQ(cset_reader_range(&set, store.num_values - 1, 2, out.data(), present.data(), &rc), WARM_RC_CORRUPT);
    EXPECT_STREQ(rc.message, "invalid tsval_id range");
    cs_stats_t stats;
    EXPECT_EQ(cset_reader_stats(&set, store.num_preambles - 1, 1, &stats, &rc), WARM_RC_CORRUPT);
    bool present_at = false;
    EXPECT_EQ(cset_reader_get(&set, store.num_values, &v, &present_at, &rc), WARM_RC_CORRUPT);
    cset_reader_close(&set);
}

TEST(Cstore, WhatGoesInComesOutBitForBit) {
    std::mt19937_64 random(7);
    damage_outcomes written;
    for (const uint32_t length : {1u, 2u, 255u, 511u, 512u, 513u, 1025u, 5000u}) {
        constexpr uint32_t PREAMBLES = 3;
        const uint32_t num_values = PREAMBLES + length + static_cast<uint32_t>(random() % 3000);
        columns all;
        for (int kind = 0; kind < 10; kind++) {
            column& elements = all[static_cast<uint32_t>(kind * kind)];
            // Kinds by turns in one run, in runs of random length, and one by one.
            uint32_t value_no = PREAMBLES + static_cast<uint32_t>(random() % (num_values - PREAMBLES - length + 1));
            const uint32_t slack = num_values - value_no - length;
            uint32_t gaps = kind % 3 == 0 ? 0 : slack;
            for (uint32_t i = 0; i < length; i++) {
                elements[value_no++] = element_of(kind, i, &random);
                const uint64_t odds = kind % 3 == 1 ? 100 : 2;
                if (gaps > 0 && random() % odds == 0) {
                    const uint32_t gap = std::min(gaps, 1 + static_cast<uint32_t>(random() % 9));
                    value_no += gap;
                    gaps -= gap;
                }
            }
        }
        all[1000] = {};
        const section s = build(all, num_values, PREAMBLES, [](uint32_t value_no) { return value_no % 150 == 0; });
        written.add("elements " + std::to_string(length), 0, bytes_of(s));
        cs_reader_t store;
        warm_rc_t rc;
        ASSERT_EQ(cs_reader_open(&store, s.fd.get(), SECTION, s.ref, &rc), 0) << rc.message;
        EXPECT_EQ(cs_verify(&store, &rc), 0) << rc.message;
        uint64_t offset = 0;
        EXPECT_EQ(cs_reader_find(&store, 999, &offset, &rc), WARM_RC_NOT_FOUND);
        EXPECT_STREQ(rc.message, "metric tid is not found in cstore");
        for (const auto& [measure, elements] : all) {
            SCOPED_TRACE(testing::Message() << "length " << length << " measure " << measure);
            expect_column(store, measure, elements, &random);
        }
        cs_reader_close(&store);
    }
    expect_kept("cstore-written", written.text());
}

// Every status that opening the section and reading all of it gives; 0 for a whole section.
int read_all(int fd, int64_t ref, warm_rc_t* rc) {
    cs_reader_t store;
    ST_TRY(cs_reader_open(&store, fd, SECTION, ref, rc));
    return cs_verify(&store, rc);
}

void expect_no_damage_gets_past(const std::string& name, const std::string& whole, int64_t ref) {
    warm_rc_t rc;
    damage_outcomes outcomes;
    ASSERT_EQ(read_all(file_of(whole).get(), ref, &rc), 0);
    const damage_fn refuse = [&](const std::string& damaged, const std::string& what) {
        ASSERT_EQ(read_all(file_of(damaged).get(), ref, &rc), WARM_RC_CORRUPT) << what;
        outcomes.add(what, static_cast<int>(rc.detail), rc.message);
    };
    EXPECT_GT(damage_sweep(whole, {.from = SECTION}, refuse), whole.size() * 3);
    expect_kept(name, outcomes.text());
}

TEST(Cstore, NoDamageGetsPast) {
    std::mt19937_64 random(5);
    columns all;
    for (int kind = 0; kind < 10; kind++) {
        for (uint32_t i = 0; i < 20; i++)
            all[static_cast<uint32_t>(kind)][4 + i + i / 7] = element_of(kind, i, &random);
    }
    const section s = build(all, 40, 4, [](uint32_t) { return false; });
    expect_no_damage_gets_past("cstore-damage", bytes_of(s), s.ref);
    const section none = build({}, 9, 4, [](uint32_t) { return false; });
    warm_rc_t rc;
    EXPECT_EQ(read_all(none.fd.get(), none.ref, &rc), 0);
    for (const int64_t ref : {int64_t{-1}, int64_t{0}, int64_t{16}, s.ref - 8, s.ref + 1, s.ref + 8, INT64_MAX}) {
        EXPECT_EQ(read_all(s.fd.get(), ref, &rc), WARM_RC_CORRUPT) << ref;
    }
}

// Hands every flip of one bit of `data`, the last word of which is their checksum of `checksum_size` bytes and fits, to
// `decode`: nothing beside the elements is touched.
void flip_bits(std::string data, size_t checksum_size, uint32_t elements, damage_outcomes* flips,
               const std::function<int(std::span<const uint8_t>, double*)>& decode) {
    const size_t size = data.size() - checksum_size;
    data.append(CSET_SLACK, '\x5A');
    auto* const bytes = reinterpret_cast<uint8_t*>(data.data());
    std::vector<double> decoded(elements + 64);
    for (uint64_t bit = 0; bit < 8 * size; bit++) {
        bytes[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        store_le32(bytes + size, XXH32(bytes, size, 0));
        std::fill(decoded.begin(), decoded.end(), 3.0);
        const int status = decode({bytes, size + checksum_size}, decoded.data());
        ASSERT_EQ(std::count(decoded.begin() + elements, decoded.end(), 3.0), 64) << "bit " << bit;
        flips->add("byte " + std::to_string(bit / 8), status, status == 0 ? bytes_of(decoded) : "");
        bytes[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
    }
    // Data that end early; what lies behind them is nothing of theirs.
    for (size_t left = 0; left < size; left += checksum_size == 8 ? 8 : 1) {
        std::vector<uint8_t> cut(bytes, bytes + left + checksum_size + (checksum_size == 8 ? 0 : CSET_SLACK));
        store_le32(cut.data() + left, XXH32(cut.data(), left, 0));
        if (checksum_size == 8) store_le32(cut.data() + left + 4, 0);
        EXPECT_FALSE(decode({cut.data(), left + checksum_size}, decoded.data())) << left;
    }
}

TEST(Cstore, DamagedBlocksWriteNoFurtherThanTheirElements) {
    std::mt19937_64 random(6);
    std::set<int> codecs;
    damage_outcomes flips, heads;
    for (int kind = 0; kind < 20; kind++) {
        std::vector<double> values(kind < 10 ? 20 : 300);
        for (uint32_t i = 0; i < values.size(); i++) {
            values[i] =
                kind < 20 ? element_of(kind % 10, i, &random) : static_cast<double>((1 << 27) + (random() >> 37));
        }
        cset_block_t block = {};
        std::string data(CSET_BLOCK_MAX_SIZE, '\0');
        data.resize(cset_block_encode(values, &block, reinterpret_cast<uint8_t*>(data.data())));
        codecs.insert(block.codec * 4 + (block.residual_bits > 0) * 2 + block.has_exceptions);
        if (block.codec != CSET_CONST) {
            flip_bits(data, CSET_CHECKSUM_SIZE, block.count, &flips, [&](auto bytes, double* decoded) {
                cset_block_t cut = block;
                cut.data_size = static_cast<uint32_t>(bytes.size());
                return cset_block_decode(&cut, bytes, decoded);
            });
        }
        // Heads of any bits are refused, or say what a block can be.
        uint8_t head[CSET_HEAD_MAX_SIZE];
        const size_t size = cset_head_put(&block, head);
        for (size_t bit = 0; bit < 8 * size; bit++) {
            head[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
            cset_block_t read;
            size_t read_size = 0;
            data.resize(CSET_BLOCK_MAX_SIZE + CSET_SLACK);
            if (cset_head_get({head, size}, &read, &read_size)) {
                ASSERT_TRUE(read_size <= size && read.count <= CSET_BLOCK_ELEMENTS && read.codec <= CSET_BITS);
                if (read.codec != CSET_CONST) {
                    auto* const bytes = reinterpret_cast<uint8_t*>(data.data());
                    const size_t sum_at = read.data_size - CSET_CHECKSUM_SIZE;
                    store_le32(bytes + sum_at, XXH32(bytes, sum_at, 0));
                }
                std::vector<double> decoded(CSET_BLOCK_ELEMENTS + 1, 3.0);
                const std::span<const uint8_t> of_block(reinterpret_cast<uint8_t*>(data.data()), read.data_size);
                const int status = cset_block_decode(&read, of_block, decoded.data());
                ASSERT_EQ(decoded[read.count], 3.0) << kind << " bit " << bit;
                heads.add("kind " + std::to_string(16 * kind), status, status == 0 ? bytes_of(decoded) : "");
            } else {
                heads.add("kind " + std::to_string(16 * kind), 1, "");
            }
            head[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        }
    }
    EXPECT_GE(codecs.size(), 8u);
    expect_kept("cstore-flips", flips.text() + heads.text());
}

// Quotients by any power of ten are the nearest doubles, with the processor's vectors and without.
TEST(Cstore, QuotientsAreRoundedToTheNearest) {
    std::mt19937_64 random(8);
    for (uint32_t i = 0; i < 20000; i++) {
        const uint32_t exponent = i % 23, count = i % 7 + 1;
        uint64_t k[7];
        double out[7];
        for (uint64_t& number : k) {
            number = random() >> (i % 100 == 0 ? 0 : 12 + random() % 52);  // some are wider than 51 bits
            if (random() % 2 == 0) number = 0 - number;
        }
        for (const bool is_delta : {false, true}) {
            for (const bool off : {false, true}) {
                cset_vectors_are_off = off;
                cset_to_doubles(k, count, exponent, is_delta, out);
                cset_vectors_are_off = false;
                uint64_t at = 0;
                for (uint32_t place = 0; place < count; place++) {
                    at = is_delta ? at + k[place] : k[place];
                    const double want = static_cast<double>(static_cast<int64_t>(at)) / std::pow(10.0, exponent);
                    ASSERT_TRUE(same_bits(out[place], want)) << static_cast<int64_t>(at) << " e " << exponent;
                }
            }
        }
    }
}

// Heads and tables likewise: what still opens has elements in the order of values, each in a block.
void expect_tables_refused_or_sound(const std::string& name, const std::string& whole, int64_t ref,
                                    const columns& all) {
    const unique_fd good = file_of(whole);
    cs_reader_t store;
    warm_rc_t rc;
    ASSERT_EQ(cs_reader_open(&store, good.get(), SECTION, ref, &rc), 0);
    uint32_t refused = 0, opened = 0;
    damage_outcomes outcomes, verified;
    // The size of the tables that a head tells.
    const auto size_of = [&](const std::string& bytes, uint64_t offset) {
        cset_head_t head;
        cset_head1_t old;
        std::memcpy(&head, bytes.data() + offset, sizeof head);
        std::memcpy(&old, bytes.data() + offset, sizeof old);
        const bool is_old = store.version == 1;
        return (cset_packed_words(head.runs, is_old ? old.value_nbits : head.value_nbits) +
                cset_packed_words(head.runs, is_old ? old.ordinal_nbits : head.ordinal_nbits)) *
                   8 +
               (is_old ? old.blocks * sizeof(cset_block1_t) : head.heads_size);
    };
    for (const auto& [measure, elements] : all) {
        uint64_t offset = 0, extent = 0;
        ASSERT_EQ(cs_reader_extent(&store, measure, &offset, &extent, &rc), 0);
        const uint64_t all_bits = 8 * (sizeof(cset_head_t) + size_of(whole, offset));
        for (uint64_t i = 0, bit = 0; i < all_bits + all_bits / 16; i++) {
            std::string bad = whole;
            bit = i < all_bits ? i : 32 * (i - all_bits) % all_bits;  // then each word becomes 0, or one more
            char* const at = bad.data() + offset + bit / 8;
            if (i < all_bits) *at = static_cast<char>(*at ^ 1 << bit % 8);
            if (i >= all_bits) store_le32(at, i < all_bits + all_bits / 32 ? 0 : load_le32(at) + 1);
            const uint64_t size = size_of(bad, offset);
            if (size > extent) continue;
            auto* const head = reinterpret_cast<uint8_t*>(bad.data()) + offset;
            store_le32(head + 28, cset_head_checksum(head, head + sizeof(cset_head_t), size));
            const unique_fd fd = file_of(bad);
            store.fd = fd.get();
            store.remembered.clear();
            cset_reader_t set;
            const int status = cset_reader_open(&set, &store, measure, nullptr, &rc);
            (status == 0 ? opened : refused)++;
            const std::string what = "byte " + std::to_string(offset + bit / 8);
            outcomes.add(what, status, status == 0 ? "" : rc.message);
            if (status != 0) continue;
            uint32_t next = store.num_preambles, count = 0, in_blocks = 0, value_no = 0;
            for (const cset_place_t& place : set.blocks) in_blocks += place.block.count;
            ASSERT_EQ(in_blocks, set.elements) << bit;
            int read = 0;
            for (double v = 0; (read = cset_reader_next(&set, &value_no, &v, &rc)) == 0 && value_no != CSET_END;) {
                ASSERT_TRUE(value_no >= next && value_no < store.num_values && ++count <= set.elements) << bit;
                next = value_no + 1;
                outcomes.add(what, 0, bytes_of({v, static_cast<double>(value_no)}));
            }
            cs_stats_t stats;
            outcomes.add(what, read, read == 0 ? "" : rc.message);
            outcomes.add(what, cset_reader_stats(&set, store.num_preambles, 5, &stats, &rc), "");
            verified.add(what, cset_reader_verify(&set, &rc), "");
            bool present = false;
            double v = 0;
            verified.add(what, cset_reader_get(&set, next - 1, &v, &present, &rc), bytes_of({v}));
            cset_reader_close(&set);
        }
        store.fd = good.get();
    }
    cs_reader_close(&store);
    // And those of the section.
    const auto footer = SECTION + static_cast<uint64_t>(ref);
    for (uint64_t bit = 8 * SECTION; bit < 8 * whole.size(); bit++) {
        if (bit == 8 * (SECTION + 32)) bit = 8 * footer;
        std::string bad = whole;
        bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ 1 << bit % 8);
        auto* const bytes = reinterpret_cast<uint8_t*>(bad.data());
        const uint32_t sum = XXH32(bytes + footer + 16, bad.size() - footer - 16, XXH32(bytes + SECTION, 32, 0));
        store_le32(bytes + footer + 4, sum);
        const int status = read_all(file_of(bad).get(), ref, &rc);
        outcomes.add("byte " + std::to_string(bit / 8), status, status == 0 ? "" : rc.message);
    }
    expect_kept(name, outcomes.text() + verified.text());
    EXPECT_TRUE(refused > 300 && opened > 100) << refused << " " << opened;
}

TEST(Cstore, DamagedTablesAreRefusedOrSound) {
    columns all;
    for (uint32_t i = 0; i < 600; i++) all[i % 2][4 + i + i / 90] = i;
    all[2][0] = 1;
    const section s = build(all, 700, 0, [](uint32_t) { return false; });
    expect_tables_refused_or_sound("cstore-tables", bytes_of(s), s.ref, all);
}

TEST(Cstore, Version1IsReadForEver) {
    // Five measures of twelve values and fewer, a block of each codec.
    const std::string text = read_file(VELDAR_SOURCE_DIR "/tests/data/cstore-1.hex");
    std::string whole(SECTION, '\0');
    for (size_t at = 0; at < text.size(); at += 3) {
        whole.push_back(static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16)));
    }
    columns all;
    for (uint32_t i = 0; i < 12; i++) {
        const uint32_t value_no = 2 + i + i / 5 * 3;
        all[0][value_no] = 0.1;
        all[2][value_no] = i == 7 ? HUGE_VAL : 51.8 + 0.001 * (i * 37 % 29);
        all[4][value_no] = 1e12 + 1e6 * i + i % 3;
        all[6][value_no] = static_cast<float>(std::sqrt(i + 2.0));
        if (i % 4 == 0) all[8][value_no] = std::bit_cast<double>(0x9E3779B97F4A7C15u * (i + 1));
    }
    const int64_t ref = static_cast<int64_t>(whole.size() - SECTION) - 16 - 5 * 8;
    const unique_fd fd = file_of(whole);
    std::mt19937_64 random(9);
    cs_reader_t store;
    warm_rc_t rc;
    ASSERT_EQ(cs_reader_open(&store, fd.get(), SECTION, ref, &rc), 0) << rc.message;
    EXPECT_EQ(cs_verify(&store, &rc), 0) << rc.message;
    std::set<int> codecs;
    damage_outcomes flips;
    for (const auto& [measure, elements] : all) {
        expect_column(store, measure, elements, &random);
        cset_reader_t set;
        ASSERT_EQ(cset_reader_open(&set, &store, measure, nullptr, &rc), 0);
        ASSERT_EQ(set.blocks.size(), 1u);
        codecs.insert(set.blocks[0].block.codec);
        const cset_block1_t block = cset_block1_of(set.blocks[0]);
        flip_bits(whole.substr(set.data_offset, set.data_size), 8, block.count, &flips,
                  [&](auto bytes, double* decoded) { return cset_block1_decode(&block, bytes, decoded); });
        EXPECT_FALSE(cset_block1_decode(&block, {}, nullptr));
        cset_reader_close(&set);
    }
    EXPECT_EQ(codecs.size(), 5u);
    expect_kept("cstore-1-flips", flips.text());
    expect_no_damage_gets_past("cstore-1-damage", whole, ref);
    expect_tables_refused_or_sound("cstore-1-tables", whole, ref, all);
}

// Builds a section of two measures and reads all of it; the first failure, with the record's code checked against it.
int build_and_read(int fd) {
    warm_rc_t rc;
    cs_builder_t builder;
    int64_t ref = 0;
    int status = cs_builder_open(&builder, 2, &rc);
    for (uint32_t measure = 0; measure < 2 && status == 0; measure++) status = cs_add_columnset(&builder, measure, &rc);
    for (uint32_t i = 0; i < 12000 && status == 0; i++) {
        status = cs_add_element(&builder, i % 2, i + i / 9, i % 700 == 0, std::sqrt(i), &rc);
    }
    if (status == 0) status = cs_finalize_offsets(&builder, 20000, 0, &ref, &rc);
    if (status == 0) status = cs_sync_cstore(&builder, fd, SECTION, &rc);
    cs_builder_close(&builder);
    cs_reader_t store;
    if (status == 0) status = cs_reader_open(&store, fd, SECTION, ref, &rc);
    if (status == 0) status = cs_verify(&store, &rc);
    cset_reader_t set;
    double v = 0;
    bool present = false;
    if (status == 0) status = cset_reader_open(&set, &store, 0, nullptr, &rc);
    if (status == 0) status = cset_reader_get(&set, 9000, &v, &present, &rc);
    return status == rc.warm_rc ? status : 1;
}

TEST(Cstore, EveryFailureIsAStatus) {
    const unique_fd fd(::memfd_create("cstore", MFD_CLOEXEC));
    const std::pair<fault_action, std::set<int>> troubles[] = {
        {fault_action::allocation, {WARM_RC_NO_MEMORY}},
        {fault_action::fail, {WARM_RC_WRITE, WARM_RC_READ, WARM_RC_FILE_SIZE}},
        {fault_action::shorten, {0, WARM_RC_WRITE, WARM_RC_SHORT_READ}}};
    for (const auto& [action, allowed] : troubles) {
        const auto run = [&, action = action](uint64_t n, int* status) {
            const fault_step trouble(action, n, EIO);
            const failure_watch watch;
            *status = build_and_read(fd.get());
            EXPECT_TRUE(watch.ended_with(*status)) << *status;
            return action == fault_action::allocation ? trouble.allocations() : trouble.calls();
        };
        int status = 0;
        const uint64_t calls = run(~uint64_t{0}, &status);
        EXPECT_EQ(status, 0);
        EXPECT_GT(calls, 8u);
        for (uint64_t n = 1; n <= calls; n++) {
            run(n, &status);
            EXPECT_TRUE(allowed.contains(status)) << static_cast<int>(action) << " at " << n << ": " << status;
        }
    }
}

TEST(Cstore, BuilderRefusesWhatReadersWould) {
    cs_builder_t builder;
    warm_rc_t rc;
    int64_t ref = 0;
    ASSERT_EQ(cs_builder_open(&builder, 1, &rc), 0);
    ASSERT_EQ(cs_add_columnset(&builder, 7, &rc), 0);
    ASSERT_EQ(cs_add_columnset(&builder, 7, &rc), 0);
    EXPECT_EQ(cs_add_element(&builder, 6, 3, false, 1, &rc), WARM_RC_NOT_FOUND);
    EXPECT_EQ(cs_add_element(&builder, 7, 3, false, 1, &rc), 0);
    EXPECT_EQ(cs_add_element(&builder, 7, 3, false, 1, &rc), WARM_RC_CORRUPT);
    EXPECT_EQ(cs_finalize_offsets(&builder, 3, 0, &ref, &rc), WARM_RC_CORRUPT);
    EXPECT_EQ(cs_finalize_offsets(&builder, 4, 4, &ref, &rc), WARM_RC_CORRUPT);
    EXPECT_EQ(cs_finalize_offsets(&builder, 4, 3, &ref, &rc), 0);
    EXPECT_EQ(cs_sync_cstore(&builder, -1, 0, &rc), WARM_RC_WRITE);
    cs_builder_close(&builder);
}

TEST(Cstore, SlicesWithoutAStoreOrWithThatOfAnother) {
    const temp_dir dir;
    const std::string path = forge_metric_file(dir.path(), forge_random_metrics(3, 40), {});
    warm_rc_t rc;
    WARM* warm = st_warm_slice_open_rdonly(path.c_str(), &rc);
    ASSERT_NE(warm, nullptr);
    const st_warm_slice_body* const body = warm->body;
    using body_t = st_warm_slice_body;
    const struct {
        void (*change)(body_t* body);
        int status;
        const char* message;
    } wrong[] = {
        {[](body_t* b) { b->num_values.set(b->num_values.get() - 1); }, WARM_RC_CORRUPT, "cstore footer is corrupted"},
        {[](body_t* b) { b->num_dimsets.set(b->num_dimsets.get() - 1); }, WARM_RC_CORRUPT,
         "cstore footer is corrupted"},
        {[](body_t* b) { b->cstore_ref.set(b->cstore_ref.get() + 8); }, WARM_RC_CORRUPT, "cstore footer is corrupted"},
        {[](body_t* b) { std::memcpy(b->magic, "_TSIDX8", 8); }, WARM_RC_NO_DIMSETS, "size is 0"},
        {[](body_t* b) { b->cstore_ref.set(0); }, WARM_RC_UNSUPPORTED, "not a msidx cstore tsidx"}};
    for (const auto& one : wrong) {
        body_t other = *body;
        one.change(&other);
        warm->body = &other;
        EXPECT_EQ(st_warm_slice_cstore(warm, &rc), nullptr);
        EXPECT_EQ(std::pair(rc.warm_rc, std::string(rc.message)), std::pair(one.status, std::string(one.message)));
    }
    warm->body = reinterpret_cast<st_warm_slice_body*>(warm->map.data());
    EXPECT_EQ(st_warm_slice_close(warm), 0);
}

}  // namespace
}  // namespace veldar
